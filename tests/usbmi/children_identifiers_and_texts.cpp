// The children a started parent reports, as the PnP manager reads them: one per function, in
// child-list order (RNDIS and AT-command ACM functions taking turns), each with the parent's
// instance identifier, identifiers in the scheme the hardware key selects, semantic strings
// read from the device, and texts from the function's interface string or the parent's
// properties.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <wdmsim/io.h>
#include <wdmsim/pnp.h>

#include "parent_on_usb_bus.h"

namespace usbmitest {
namespace {

using Strings = std::vector<std::u16string>;

// Functions A (02/02/01 + data), B (02/02/FF + data named net_1), C (FF/FF/00 without a
// string), D (02/02/FF + data named net-1), and the notification interface.
std::shared_ptr<wdmsim::UsbFirmware> FourFunctionDevice() {
  wdmsim::UsbDescriptionBuilder b(0x1234, 0x5678);
  b.DeviceClass(0xEF, 0x02, 0x01).Configuration(1, 0x80, 100);
  b.Interface(0, 0, 0x02, 0x02, 0x01, u"Modem").CdcHeader().CdcUnion(0, {1}).InterruptIn(0x81, 16, 8);
  b.Interface(1, 0, 0x0A, 0x00, 0x00).BulkIn(0x82).BulkOut(0x01);
  b.Interface(2, 0, 0x02, 0x02, 0xFF).CdcHeader().CdcUnion(2, {3}).InterruptIn(0x83, 16, 8);
  b.Interface(3, 0, 0x0A, 0x00, 0x00, u"net_1").BulkIn(0x84).BulkOut(0x02);
  b.Interface(4, 0, 0xFF, 0xFF, 0x00).BulkIn(0x85).BulkOut(0x03);
  b.Interface(5, 0, 0x02, 0x02, 0xFF, u"Second").CdcHeader().CdcUnion(5, {6}).InterruptIn(0x86, 16, 8);
  b.Interface(6, 0, 0x0A, 0x00, 0x00, u"net-1").BulkIn(0x87).BulkOut(0x04);
  b.Interface(7, 0, 0xFF, 0x01, 0x00).InterruptIn(0x88, 4, 8);
  return std::make_shared<wdmsim::UsbFirmware>(b.Build());
}

class ChildrenTest : public ParentOnUsbBus {
 protected:
  // The instance identifier the bus gives the parent's PDO.
  std::u16string ParentInstanceId() {
    IO_STATUS_BLOCK answer = wdmsim::SendPnpIrp(mPdo, IRP_MN_QUERY_ID, [](IO_STACK_LOCATION& s) {
      s.Parameters.QueryId.IdType = BusQueryInstanceID;
    });
    EXPECT_EQ(STATUS_SUCCESS, answer.Status);
    std::u16string id(reinterpret_cast<const char16_t*>(answer.Information));
    ExFreePool(reinterpret_cast<PVOID>(answer.Information));
    return id;
  }
};

TEST_F(ChildrenTest, FamilySchemeOrdersChildrenAndReadsSemanticStrings) {
  Plug(FourFunctionDevice());
  SetStringSetting(u"FamilyName", u"Fam");
  SetSetting(u"UsbConfiguration", 0x123);
  SetSetting(u"ConfigInPnpId", 0);  // no effect with a family name
  ASSERT_EQ(STATUS_SUCCESS, AddAndStart());
  std::u16string instance = ParentInstanceId();
  ASSERT_FALSE(instance.empty());

  std::vector<ChildView> children = Children();
  ASSERT_EQ(4u, children.size());
  const ChildView& b = children[0];
  const ChildView& a = children[1];
  const ChildView& d = children[2];
  const ChildView& c = children[3];

  EXPECT_EQ(u"USB\\Fam&VID_1234&PID_5678&CF_123&MI_02", b.deviceId.value_or(u"?"));
  EXPECT_EQ((Strings{u"USB\\Fam&VID_1234&PID_5678&CF_123&MI_02", u"USB\\Fam&02_02_FF&net_1", u"USB\\Fam&02_02_FF",
                     u"USB\\Fam&02_02", u"USB\\Fam&02"}),
            b.hardwareIds);
  EXPECT_EQ((Strings{u"USB\\MS_COMP_RNDIS&MS_SUBCOMP_5162001", u"USB\\MS_COMP_RNDIS",
                     u"USB\\CLASS_02&SUBCLASS_02&PROT_FF", u"USB\\CLASS_02&SUBCLASS_02", u"USB\\CLASS_02"}),
            b.compatibleIds);

  EXPECT_EQ(u"USB\\Fam&VID_1234&PID_5678&CF_123&MI_00", a.deviceId.value_or(u"?"));
  EXPECT_EQ((Strings{u"USB\\Fam&VID_1234&PID_5678&CF_123&MI_00", u"USB\\Fam&02_02_01", u"USB\\Fam&02_02",
                     u"USB\\Fam&02"}),
            a.hardwareIds);

  // net-1 is no semantic string: no identifier for it.
  EXPECT_EQ((Strings{u"USB\\Fam&VID_1234&PID_5678&CF_123&MI_05", u"USB\\Fam&02_02_FF", u"USB\\Fam&02_02",
                     u"USB\\Fam&02"}),
            d.hardwareIds);

  EXPECT_EQ(u"USB\\Fam&VID_1234&PID_5678&CF_123&MI_04", c.deviceId.value_or(u"?"));
  EXPECT_EQ((Strings{u"USB\\MS_COMP_MTP", u"USB\\CLASS_FF&SUBCLASS_FF&PROT_00", u"USB\\CLASS_FF&SUBCLASS_FF",
                     u"USB\\CLASS_FF"}),
            c.compatibleIds);

  for (const ChildView& child : children) {
    EXPECT_EQ(instance, child.instanceId.value_or(u"?"));
  }
  // Texts: the function's own interface string, else the parent's texts.
  EXPECT_EQ(u"Modem", a.description.value_or(u"?"));
  EXPECT_EQ(u"Modem", a.location.value_or(u"?"));
  EXPECT_EQ(u"Second", d.description.value_or(u"?"));
  EXPECT_EQ(kParentDescription, b.description.value_or(u"?"));
  EXPECT_EQ(kParentLocation, b.location.value_or(u"?"));
  EXPECT_EQ(kParentDescription, c.description.value_or(u"?"));

  std::string trace = TakeTrace();
  EXPECT_TRUE(Contains(trace, "usbmi:Device::CreateChildren: invalid semantic string: net-1\n")) << trace;
  EXPECT_TRUE(Contains(trace, "usbmi:Device::CreateChildren: Indicating arrival of new child devices\n")) << trace;
  std::vector<wdmsim::RelationInvalidation> invalidations = wdmsim::TakeRelationInvalidations();
  ASSERT_FALSE(invalidations.empty());
  EXPECT_EQ(mPdo, invalidations.back().pdo);
  EXPECT_EQ(BusRelations, invalidations.back().type);
}

TEST_F(ChildrenTest, CdcFunctionsAreNumberedAndAnEmptySemanticStringCounts) {
  wdmsim::UsbDescriptionBuilder b(0x1234, 0x5678);
  b.Configuration(1, 0x80, 100);
  uint8_t emptyName = b.StringIndex(u"to be emptied");
  b.Interface(0, 0, 0x02, 0x02, 0x00).CdcHeader().InterruptIn(0x81, 16, 8);
  b.Interface(1, 0, 0x0A, 0x00, 0x00, u"to be emptied").BulkIn(0x82).BulkOut(0x01);
  b.Interface(2, 0, 0x02, 0x06, 0x00).CdcHeader().InterruptIn(0x83, 16, 8);
  b.Interface(3, 0, 0x0A, 0x00, 0x00).BulkIn(0x84).BulkOut(0x02);
  b.Interface(4, 0, 0x02, 0x02, 0x00).CdcHeader().InterruptIn(0x85, 16, 8);
  b.Interface(5, 0, 0x0A, 0x00, 0x00).BulkIn(0x86).BulkOut(0x03);
  wdmsim::UsbDeviceDescription description = b.Build();
  description.SetString(emptyName, u"");
  Plug(std::make_shared<wdmsim::UsbFirmware>(description));
  SetStringSetting(u"FamilyName", u"Fam");
  ASSERT_EQ(STATUS_SUCCESS, AddAndStart());

  // ACM {0,1}, ECM {2}, its data interface {3}, ACM {4,5}; none is 02/02/FF or 02/02/01.
  std::vector<ChildView> children = Children();
  ASSERT_EQ(4u, children.size());
  EXPECT_EQ((Strings{u"USB\\Fam&VID_1234&PID_5678&CF_00&MI_00", u"USB\\Fam&02_02_00&", u"USB\\Fam&02_02_00&0",
                     u"USB\\Fam&02_02_00", u"USB\\Fam&02_02", u"USB\\Fam&02"}),
            children[0].hardwareIds);
  EXPECT_EQ(u"USB\\Fam&02_06_00&0", children[1].hardwareIds.at(1));
  EXPECT_EQ((Strings{u"USB\\Fam&VID_1234&PID_5678&CF_00&MI_03", u"USB\\Fam&0A_00_00", u"USB\\Fam&0A_00",
                     u"USB\\Fam&0A"}),
            children[2].hardwareIds);
  EXPECT_EQ(u"USB\\Fam&02_02_00&1", children[3].hardwareIds.at(1));
}

TEST_F(ChildrenTest, MissingTextsStayMissing) {
  wdmsim::UsbDescriptionBuilder b(0x1234, 0x5678);
  b.Configuration(1, 0x80, 100).Interface(0, 0, 0xFF, 0x00, 0x00).BulkIn(0x81);
  Plug(std::make_shared<wdmsim::UsbFirmware>(b.Build()));
  wdmsim::ClearDeviceProperty(mPdo, DevicePropertyDeviceDescription);
  // 128 characters do not fit the 256-byte buffer with their terminator.
  wdmsim::SetDeviceStringProperty(mPdo, DevicePropertyLocationInformation, std::u16string(128, u'L'));
  SetSetting(u"ConfigInPnpId", 1);
  // A child was created after the failed property read: the start succeeds.
  ASSERT_EQ(STATUS_SUCCESS, AddAndStart());
  std::vector<ChildView> children = Children();
  ASSERT_EQ(1u, children.size());
  EXPECT_FALSE(children[0].description.has_value());
  EXPECT_FALSE(children[0].location.has_value());
  EXPECT_EQ(u"USB\\VID_1234&PID_5678&CF_00&MI_00", children[0].deviceId.value_or(u"?"));
  std::string trace = TakeTrace();
  EXPECT_TRUE(Contains(trace, "usbmi:Device::CreateChildren: GetDeviceProperty failed 0xC0000023")) << trace;
}

TEST_F(ChildrenTest, NotificationInterfaceAloneMakesNoChildButStillInvalidates) {
  wdmsim::UsbDescriptionBuilder b(0x1234, 0x5678);
  b.Configuration(1, 0x80, 100).Interface(0, 0, 0xFF, 0x01, 0x00).InterruptIn(0x81, 4, 8);
  Plug(std::make_shared<wdmsim::UsbFirmware>(b.Build()));
  wdmsim::TakeRelationInvalidations();
  ASSERT_EQ(STATUS_SUCCESS, AddAndStart());
  EXPECT_TRUE(QueryBusRelations().empty());
  std::vector<wdmsim::RelationInvalidation> invalidations = wdmsim::TakeRelationInvalidations();
  ASSERT_EQ(1u, invalidations.size());
  EXPECT_EQ(BusRelations, invalidations[0].type);

  // Without a child the location read decides the result.
  RemoveParent();
  wdmsim::ClearDeviceProperty(mPdo, DevicePropertyLocationInformation);
  NTSTATUS status = AddAndStart();
  EXPECT_FALSE(NT_SUCCESS(status));
  std::string trace = TakeTrace();
  EXPECT_TRUE(Contains(trace, "usbmi:Device::OnPnpStartDevice: CreateChildren failed, stat=")) << trace;
}

}  // namespace
}  // namespace usbmitest
