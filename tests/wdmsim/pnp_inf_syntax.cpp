// INF text: comments, continuation, quoting and string tokens are read as Windows reads
// them, and bad input is refused with the file, the line and what is wrong.
#include <gtest/gtest.h>

#include <wdmsim/io.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pnpmanager.h>
#include <wdmsim/registry.h>

namespace {

const char kPackage[] =
    "; a comment line\n"
    "[Version]   ; comment after a header\n"
    "Signature=\"$WINDOWS NT$\"\n"
    "Class=USB\n"
    "ClassGuid={36FC9E60-C465-11CF-8056-444553540000}\n"
    "Provider=%Vendor%\n"
    "DriverVer=06/21/2012,4.42.3.0\n"
    "\n"
    "[manufacturer]\n"
    "%Vendor%=Gadgets,NTx86,NTamd64.6.0\n"
    "[Gadgets.NTx86]\n"
    "%Desc%=Wrong, WDMSIM\\GADGET\n"
    "[Gadgets.NTamd64.6.0]\n"
    "%Desc% = Gadget_Install, \\\n"
    "         WDMSIM\\GADGET   ; continued\n"
    "[gadget_install.NTAMD64]\n"
    "[Gadget_Install.NTamd64.Services]\n"
    "AddService = gadget, 0x00000002, Gadget_Service\n"
    "[Gadget_Service]\n"
    "DisplayName = \"%Vendor% \"\"quoted\"\" driver\"\n"
    "ServiceType = 1\n"
    "StartType = 3\n"
    "ErrorControl = 0x1\n"
    "ServiceBinary = %12%\\gadget.sys\n"
    "AddReg = Gadget_Service_AddReg\n"
    "[Gadget_Service_AddReg]\n"
    "HKR,,\"TraceMask\",0x00010001,0x80000003\n"
    "HKR,Parameters,\"Text; not a comment\",,\"a, b\",c\n"
    "HKR,,Percent,,\"100%%\"\n"
    "HKR,,List,0x00010000,one,\"two\"\n"
    "HKR,,Blob,1,de,AD\n"
    "[Strings]\n"
    "Vendor = \"Ruvo, Inc.\"\n"
    "Desc=Gadget\n";

class PnpInfSyntax : public ::testing::Test {
 protected:
  wdmsim::Kernel kernel;
};

std::u16string Text(const std::vector<uint8_t>& data) {
  std::u16string text;
  for (size_t i = 0; i + 1 < data.size(); i += 2) text += static_cast<char16_t>(data[i] | data[i + 1] << 8);
  return text;
}

TEST_F(PnpInfSyntax, ReadsCommentsContinuationsQuotesAndTokens) {
  wdmsim::InfError error;
  ASSERT_TRUE(wdmsim::InstallInf("gadget.inf", kPackage, &error)) << error.Text();

  // The x86 models are not offered on x64; the continued line carries the hardware ID.
  auto match = wdmsim::FindDriver({u"wdmsim\\gadget"}, {});
  ASSERT_TRUE(match.has_value());
  EXPECT_EQ(match->service, u"gadget");
  EXPECT_EQ(match->description, u"Gadget");
  EXPECT_EQ(match->manufacturer, u"Ruvo, Inc.");
  EXPECT_EQ(match->classGuid, u"{36FC9E60-C465-11CF-8056-444553540000}");
  EXPECT_EQ(match->infFile, "gadget.inf");

  std::u16string key = wdmsim::ServiceKeyPath(u"gadget");
  auto image = wdmsim::RegistryGetValue(key, u"ImagePath");
  ASSERT_TRUE(image.has_value());
  EXPECT_EQ(image->type, static_cast<uint32_t>(REG_EXPAND_SZ));
  EXPECT_EQ(Text(image->data), std::u16string(u"\\SystemRoot\\System32\\drivers\\gadget.sys") + u'\0');
  EXPECT_EQ(Text(wdmsim::RegistryGetValue(key, u"DisplayName")->data),
            std::u16string(u"Ruvo, Inc. \"quoted\" driver") + u'\0');
  EXPECT_EQ(wdmsim::RegistryGetValue(key, u"ErrorControl")->data, std::vector<uint8_t>({1, 0, 0, 0}));
  EXPECT_EQ(wdmsim::RegistryGetValue(key, u"TraceMask")->data, std::vector<uint8_t>({3, 0, 0, 0x80}));
  EXPECT_EQ(Text(wdmsim::RegistryGetValue(key + u"\\Parameters", u"Text; not a comment")->data),
            std::u16string(u"a, b,c") + u'\0');
  EXPECT_EQ(Text(wdmsim::RegistryGetValue(key, u"Percent")->data), std::u16string(u"100%") + u'\0');
  auto list = wdmsim::RegistryGetValue(key, u"List");
  EXPECT_EQ(list->type, static_cast<uint32_t>(REG_MULTI_SZ));
  EXPECT_EQ(Text(list->data), std::u16string(u"one\0two\0\0", 9));
  auto blob = wdmsim::RegistryGetValue(key, u"Blob");
  EXPECT_EQ(blob->type, static_cast<uint32_t>(REG_BINARY));
  EXPECT_EQ(blob->data, std::vector<uint8_t>({0xDE, 0xAD}));
}

struct BadInf {
  const char* what;
  std::string from;  // a line of kPackage to replace ("" appends `to`)
  std::string to;
  int line;
  const char* message;
};

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  if (from.empty()) return text + to;
  size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return text.replace(at, from.size(), to);
}

TEST_F(PnpInfSyntax, RefusesBadInputNamingFileLineAndFault) {
  const BadInf cases[] = {
      {"unclosed quote", "Class=USB\n", "Class=\"USB\n", 4, "unterminated quoted string"},
      {"unclosed header", "[Strings]\n", "[Strings\n", 32, "section header without ']'"},
      {"text after header", "[Strings]\n", "[Strings] junk\n", 32, "text after the section header"},
      {"line before any section", "; a comment line\n", "orphan = 1\n", 1, "line outside any section"},
      {"undefined token", "Desc=Gadget\n", "", 12, "undefined string token %Desc%"},
      {"unpaired percent", "StartType = 3\n", "StartType = 3%\n", 22, "unpaired '%'"},
      {"continuation at end", "", "[Extra]\nx = \\", 36, "line continuation at the end of the file"},
      {"wrong signature", "Signature=\"$WINDOWS NT$\"\n", "Signature=\"$Windows 95$\"\n", 3, "Signature must be"},
      {"bad DriverVer", "DriverVer=06/21/2012,4.42.3.0\n", "DriverVer=2012-06-21\n", 7, "DriverVer must be"},
      {"missing models", "[Gadgets.NTamd64.6.0]\n", "[Other.NTamd64.6.0]\n", 10,
       "models section [Gadgets.NTamd64.6.0] is missing"},
      {"only x86 models", "%Vendor%=Gadgets,NTx86,NTamd64.6.0\n", "%Vendor%=Gadgets,NTx86\n", 0,
       "no device models for NTamd64"},
      {"model without ID", "         WDMSIM\\GADGET   ; continued\n", "\n", 14, "a model line needs"},
      {"missing install section", "[gadget_install.NTAMD64]\n", "[other.NTAMD64]\n", 14,
       "install section [Gadget_Install] is missing"},
      {"no function service", "AddService = gadget, 0x00000002, Gadget_Service\n",
       "AddService = gadget, 0x00000000, Gadget_Service\n", 18, "has no AddService with flag 0x2"},
      {"no ServiceBinary", "ServiceBinary = %12%\\gadget.sys\n", "\n", 18, "lacks ServiceBinary"},
      {"unknown directory id", "ServiceBinary = %12%\\gadget.sys\n", "ServiceBinary = %99%\\gadget.sys\n", 24,
       "directory id"},
      {"StartType not a number", "StartType = 3\n", "StartType = demand\n", 22, "StartType is not a number"},
      {"missing AddReg section", "AddReg = Gadget_Service_AddReg\n", "AddReg = Nowhere\n", 25,
       "AddReg section [Nowhere] is missing"},
      {"unsupported root", "HKR,,Percent,,\"100%%\"\n", "HKCU,,Percent,,\"100%%\"\n", 29, "registry root \"HKCU\""},
      {"DWORD without number", "HKR,,\"TraceMask\",0x00010001,0x80000003\n", "HKR,,\"TraceMask\",0x00010001,lots\n",
       27, "a DWORD value needs one number"},
      {"bad binary byte", "HKR,,Blob,1,de,AD\n", "HKR,,Blob,1,de,ADD\n", 31, "is not two hex digits"},
      {"unsupported flag", "HKR,,Blob,1,de,AD\n", "HKR,,Blob,0x4,de,AD\n", 31, "are not supported"},
  };
  for (const BadInf& c : cases) {
    wdmsim::InfError error;
    std::string text = Replace(kPackage, c.from, c.to);
    EXPECT_FALSE(wdmsim::InstallInf("bad.inf", text, &error)) << c.what;
    EXPECT_EQ(error.file, "bad.inf") << c.what;
    EXPECT_EQ(error.line, c.line) << c.what << ": " << error.Text();
    EXPECT_NE(error.message.find(c.message), std::string::npos) << c.what << ": " << error.Text();
    // Nothing of a refused package is installed.
    EXPECT_FALSE(wdmsim::FindDriver({u"WDMSIM\\GADGET"}, {}).has_value()) << c.what;
    EXPECT_FALSE(wdmsim::RegistryKeyExists(wdmsim::ServiceKeyPath(u"gadget"))) << c.what;
  }
  wdmsim::InfError error;
  EXPECT_FALSE(wdmsim::InstallInfFile("/nonexistent/x.inf", &error));
  EXPECT_EQ(error.Text(), "/nonexistent/x.inf: cannot be read");
}

}  // namespace
