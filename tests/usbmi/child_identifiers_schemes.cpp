// The identifiers of one function in both schemes: vendor/product/interface without a family
// name (with and without the configuration field), the family of identifiers with a family
// name, numbered CDC functions, semantic strings and the compatible identifiers, compared
// with texts written out by hand.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>
#include <vector>

#include <wdmsim/debugout.h>
#include <wdmsim/kernel.h>

#include "childidentifiers.h"
#include "kntrace.h"

namespace {

using Strings = std::vector<std::u16string>;

class RecordingSink : public ChildIdentifierSink {
 public:
  void SetDeviceId(PCWSTR Id) override { deviceIds.push_back(Text(Id)); }
  void AddHardwareId(PCWSTR Id) override { hardwareIds.push_back(Text(Id)); }
  void AddCompatibleId(PCWSTR Id) override { compatibleIds.push_back(Text(Id)); }

  Strings deviceIds;
  Strings hardwareIds;
  Strings compatibleIds;

 private:
  static std::u16string Text(PCWSTR Id) { return std::u16string(reinterpret_cast<const char16_t*>(Id)); }
};

PCWSTR Wide(const char16_t* text) { return reinterpret_cast<PCWSTR>(text); }

struct Function {
  const char16_t* family;
  BOOLEAN configInPnpId;
  ULONG configurationValue;
  UCHAR interfaceNumber;
  UCHAR cls, sub, prot;
  const char16_t* semantic;  // nullptr: none
};

ChildIdentifierSource SourceOf(const Function& f) {
  ChildIdentifierSource source = {};
  source.mVendorId = 0x1234;
  source.mProductId = 0x5678;
  source.mConfigurationValue = f.configurationValue;
  source.mConfigInPnpId = f.configInPnpId;
  source.mFamilyName = Wide(f.family);
  source.mInterfaceNumber = f.interfaceNumber;
  source.mClass = f.cls;
  source.mSubClass = f.sub;
  source.mProtocol = f.prot;
  source.mSemanticString = f.semantic != nullptr ? Wide(f.semantic) : NULL;
  return source;
}

class ChildIdentifiersTest : public testing::Test {
 protected:
  void SetUp() override {
    wdmsim::SetDebugSink(wdmsim::DebugSink::Memory);
    KnTraceSetPrefix("usbmi");
    gKnTraceMask = 0x7;
  }
  void TearDown() override { gKnTraceMask = 3; }

  RecordingSink Build(const Function& f) {
    RecordingSink sink;
    ChildIdentifierSource source = SourceOf(f);
    BuildChildIdentifiers(&source, &mNumbers, &sink);
    return sink;
  }

  wdmsim::Kernel mKernel;
  CdcFunctionNumbers mNumbers = {};
};

TEST_F(ChildIdentifiersTest, EachSchemeYieldsItsIdentifiersInOrder) {
  struct Case {
    const char* what;
    Function function;
    Strings hardwareIds;  // the first is also the device identifier
    Strings compatibleIds;
  } cases[] = {
      {"no family name, no configuration field",
       {u"", FALSE, 1, 2, 0x02, 0x02, 0x01, nullptr},
       {u"USB\\VID_1234&PID_5678&MI_02"},
       {u"USB\\CLASS_02&SUBCLASS_02&PROT_01", u"USB\\CLASS_02&SUBCLASS_02", u"USB\\CLASS_02"}},
      {"no family name, configuration field with three digits, interface 0x0A",
       {u"", TRUE, 0x123, 0x0A, 0x0A, 0x00, 0x00, nullptr},
       {u"USB\\VID_1234&PID_5678&CF_123&MI_0A"},
       {u"USB\\CLASS_0A&SUBCLASS_00&PROT_00", u"USB\\CLASS_0A&SUBCLASS_00", u"USB\\CLASS_0A"}},
      {"no family name: a semantic string adds nothing",
       {u"", FALSE, 1, 0, 0x02, 0x02, 0xFF, u"net_1"},
       {u"USB\\VID_1234&PID_5678&MI_00"},
       {u"USB\\MS_COMP_RNDIS&MS_SUBCOMP_5162001", u"USB\\MS_COMP_RNDIS", u"USB\\CLASS_02&SUBCLASS_02&PROT_FF",
        u"USB\\CLASS_02&SUBCLASS_02", u"USB\\CLASS_02"}},
      {"family name with a semantic string",
       {u"Fam", FALSE, 1, 2, 0x02, 0x02, 0x01, u"modem"},
       {u"USB\\Fam&VID_1234&PID_5678&CF_01&MI_02", u"USB\\Fam&02_02_01&modem", u"USB\\Fam&02_02_01",
        u"USB\\Fam&02_02", u"USB\\Fam&02"},
       {u"USB\\CLASS_02&SUBCLASS_02&PROT_01", u"USB\\CLASS_02&SUBCLASS_02", u"USB\\CLASS_02"}},
      {"family name: the configuration field is there whatever ConfigInPnpId says",
       {u"Fam", TRUE, 0x123, 0x0A, 0xFF, 0xFF, 0x00, nullptr},
       {u"USB\\Fam&VID_1234&PID_5678&CF_123&MI_0A", u"USB\\Fam&FF_FF_00", u"USB\\Fam&FF_FF", u"USB\\Fam&FF"},
       {u"USB\\MS_COMP_MTP", u"USB\\CLASS_FF&SUBCLASS_FF&PROT_00", u"USB\\CLASS_FF&SUBCLASS_FF",
        u"USB\\CLASS_FF"}},
      {"family name with an empty semantic string ends in an ampersand",
       {u"Fam", FALSE, 0, 0, 0x02, 0x02, 0xFF, u""},
       {u"USB\\Fam&VID_1234&PID_5678&CF_00&MI_00", u"USB\\Fam&02_02_FF&", u"USB\\Fam&02_02_FF", u"USB\\Fam&02_02",
        u"USB\\Fam&02"},
       {u"USB\\MS_COMP_RNDIS&MS_SUBCOMP_5162001", u"USB\\MS_COMP_RNDIS", u"USB\\CLASS_02&SUBCLASS_02&PROT_FF",
        u"USB\\CLASS_02&SUBCLASS_02", u"USB\\CLASS_02"}},
      {"only FF/FF/00 is MTP; RNDIS needs protocol FF",
       {u"", FALSE, 0, 3, 0xFF, 0xFF, 0x01, nullptr},
       {u"USB\\VID_1234&PID_5678&MI_03"},
       {u"USB\\CLASS_FF&SUBCLASS_FF&PROT_01", u"USB\\CLASS_FF&SUBCLASS_FF", u"USB\\CLASS_FF"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    RecordingSink sink = Build(c.function);
    ASSERT_EQ(1u, sink.deviceIds.size());
    EXPECT_EQ(c.hardwareIds.front(), sink.deviceIds.front());
    EXPECT_EQ(c.hardwareIds, sink.hardwareIds);
    EXPECT_EQ(c.compatibleIds, sink.compatibleIds);
  }
  EXPECT_NE(std::string::npos,
            wdmsim::TakeDebugOutput().find("usbmi:Device::CreateChildren: append semantic string "
                                           "USB\\Fam&02_02_01&modem\n"));
}

TEST_F(ChildIdentifiersTest, CdcFunctionsOfOneKindAreNumberedPerKind) {
  const Function acm = {u"Fam", FALSE, 1, 0, 0x02, 0x02, 0x00, nullptr};
  const Function ecm = {u"Fam", FALSE, 1, 4, 0x02, 0x06, 0x00, nullptr};
  const Function ncm = {u"Fam", FALSE, 1, 6, 0x02, 0x0D, 0x00, nullptr};
  const Function acmAt = {u"Fam", FALSE, 1, 8, 0x02, 0x02, 0x01, nullptr};  // protocol 1: not numbered

  EXPECT_EQ((Strings{u"USB\\Fam&VID_1234&PID_5678&CF_01&MI_00", u"USB\\Fam&02_02_00&0", u"USB\\Fam&02_02_00",
                     u"USB\\Fam&02_02", u"USB\\Fam&02"}),
            Build(acm).hardwareIds);
  EXPECT_EQ(u"USB\\Fam&02_06_00&0", Build(ecm).hardwareIds.at(1));
  EXPECT_EQ(u"USB\\Fam&02_02_00&1", Build(acm).hardwareIds.at(1));
  EXPECT_EQ(4u, Build(acmAt).hardwareIds.size());
  EXPECT_EQ(u"USB\\Fam&02_0D_00&0", Build(ncm).hardwareIds.at(1));
  EXPECT_EQ(u"USB\\Fam&02_02_00&2", Build(acm).hardwareIds.at(1));
  EXPECT_EQ(3u, mNumbers.mAcm);
  EXPECT_EQ(1u, mNumbers.mEcm);
  EXPECT_EQ(1u, mNumbers.mNcm);

  // The vendor/product scheme numbers nothing.
  const Function acmPlain = {u"", FALSE, 1, 0, 0x02, 0x02, 0x00, nullptr};
  EXPECT_EQ(1u, Build(acmPlain).hardwareIds.size());
  EXPECT_EQ(3u, mNumbers.mAcm);
}

TEST_F(ChildIdentifiersTest, LongestFamilyNameAndSemanticStringFit) {
  const char16_t* family = u"F123456789012345678901234567890";    // 31 characters
  const char16_t* semantic = u"s123456789012345678901234567890";  // 31 characters
  const Function f = {family, FALSE, 0xFFFFFFFF, 0xFF, 0x02, 0x02, 0x00, semantic};
  RecordingSink sink = Build(f);
  EXPECT_EQ(std::u16string(u"USB\\") + family + u"&VID_1234&PID_5678&CF_FFFFFFFF&MI_FF", sink.deviceIds.at(0));
  EXPECT_EQ(std::u16string(u"USB\\") + family + u"&02_02_00&" + semantic, sink.hardwareIds.at(1));
  EXPECT_LT(sink.hardwareIds.at(1).size(), size_t(kChildIdentifierChars));
}

}  // namespace
