// The INF that ships with the driver and the in-box INF of the generic function driver
// install cleanly and bind what they are meant to bind; the generic driver starts on a
// child and leaves with it.
#include <gtest/gtest.h>

#include <algorithm>

#include <wdmsim/clients.h>
#include <wdmsim/registry.h>

#include "pnp_test_drivers.h"

namespace {

std::string ShippedInfPath() {
  std::string here = __FILE__;
  return here.substr(0, here.rfind("/tests/")) + "/win/ruvo_mi_x64.inf";
}

class PnpInfs : public ::testing::Test {
 protected:
  wdmsim::Kernel kernel;
};

TEST_F(PnpInfs, ShippedInfBindsTheListedDevicesAndSetsTheTraceMask) {
  wdmsim::InfError error;
  ASSERT_TRUE(wdmsim::InstallInfFile(ShippedInfPath(), &error)) << error.Text();
  for (const char16_t* id : {u"USB\\VID_4A9B&PID_0042", u"usb\\vid_4a9b&pid_0045"}) {
    auto match = wdmsim::FindDriver({std::u16string(id) + u"&REV_0442", id}, {u"USB\\COMPOSITE"});
    ASSERT_TRUE(match.has_value());
    EXPECT_EQ(match->service, u"usbmi");
    EXPECT_EQ(match->matchedId, id);
  }
  EXPECT_EQ(wdmsim::FindDriver({u"USB\\VID_4A9B&PID_0042"}, {})->description, u"Ruvo composite demo device");
  EXPECT_FALSE(wdmsim::FindDriver({u"USB\\VID_4A9B&PID_0048"}, {u"USB\\COMPOSITE"}).has_value());

  std::u16string key = wdmsim::ServiceKeyPath(u"usbmi");
  EXPECT_EQ(wdmsim::RegistryGetValue(key, u"TraceMask")->data, std::vector<uint8_t>({3, 0, 0, 0}));
  EXPECT_EQ(wdmsim::RegistryGetValue(key, u"Start")->data, std::vector<uint8_t>({3, 0, 0, 0}));
  auto image = wdmsim::RegistryGetValue(key, u"ImagePath")->data;
  std::u16string path;
  for (size_t i = 0; i + 1 < image.size(); i += 2) path += static_cast<char16_t>(image[i] | image[i + 1] << 8);
  EXPECT_EQ(path, std::u16string(u"\\SystemRoot\\System32\\drivers\\ruvo_mi_x64.sys") + u'\0');
}

TEST_F(PnpInfs, GenericDriverTakesEveryChildClassButHubs) {
  wdmsim::InstallGenericFunctionDriver();
  for (const char16_t* id : {u"USB\\CLASS_00", u"USB\\CLASS_02", u"USB\\CLASS_FF", u"USB\\MS_COMP_RNDIS",
                             u"USB\\MS_COMP_MTP"}) {
    auto match = wdmsim::FindDriver({u"USB\\Fam&02_02"}, {u"USB\\CLASS_02&SUBCLASS_02", id});
    ASSERT_TRUE(match.has_value()) << std::string(id, id + 20);
    EXPECT_EQ(match->service, wdmsim::kGenericFunctionService);
  }
  EXPECT_FALSE(wdmsim::FindDriver({}, {u"USB\\CLASS_09"}).has_value());
  // A driver bound by the child's hardware ID still wins.
  pnptest::Install("specific", {{"specific function", {"USB\\FAM&02_02"}}});
  EXPECT_EQ(wdmsim::FindDriver({u"USB\\Fam&02_02"}, {u"USB\\CLASS_02"})->service, u"specific");
}

TEST_F(PnpInfs, GenericDriverStartsOnAChildAndGoesWithIt) {
  wdmsim::InstallGenericFunctionDriver();
  PDEVICE_OBJECT pdo =
      pnptest::CreateDevice(u"USB\\VID_4A9B&PID_0042&MI_02", {u"USB\\VID_4A9B&PID_0042&MI_02"},
                            {u"USB\\CLASS_02&SUBCLASS_02&PROT_01", u"USB\\CLASS_02&SUBCLASS_02", u"USB\\CLASS_02"}, u"2");
  wdmsim::DeviceNodeId id = wdmsim::ReportRootDevice(pdo);
  wdmsim::WaitForPnpIdle();
  auto node = wdmsim::GetDeviceNode(id);
  EXPECT_EQ(node->state, wdmsim::DeviceNodeState::Started);
  EXPECT_EQ(node->service, wdmsim::kGenericFunctionService);
  EXPECT_EQ(node->description, u"Generic USB function");
  ASSERT_NE(pdo->AttachedDevice, nullptr);
  EXPECT_EQ(pdo->AttachedDevice->DriverObject->DriverExtension->ServiceKeyName.Length,
            std::char_traits<char16_t>::length(wdmsim::kGenericFunctionService) * 2);

  // The start went down to the bus and came back; so did the rest.
  std::vector<UCHAR> minors;
  for (const wdmsim::RawPdoRequest& request : wdmsim::TakeRawPdoRequests(pdo)) minors.push_back(request.minorFunction);
  auto start = std::find(minors.begin(), minors.end(), IRP_MN_START_DEVICE);
  ASSERT_NE(start, minors.end());
  EXPECT_EQ(std::vector<UCHAR>(start, minors.end()),
            std::vector<UCHAR>({IRP_MN_START_DEVICE, IRP_MN_QUERY_CAPABILITIES, IRP_MN_QUERY_PNP_DEVICE_STATE,
                                IRP_MN_QUERY_DEVICE_RELATIONS}));

  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::QueryRemove, id), STATUS_SUCCESS);
  EXPECT_EQ(pdo->AttachedDevice, nullptr);
  std::vector<UCHAR> last;
  for (const wdmsim::RawPdoRequest& request : wdmsim::TakeRawPdoRequests(pdo)) last.push_back(request.minorFunction);
  EXPECT_EQ(last, std::vector<UCHAR>({IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_REMOVE_DEVICE}));
  wdmsim::RunPnpOperation(wdmsim::PnpOperation::SurpriseRemoval, id);
  wdmsim::DeleteRawPdo(pdo);
  // The driver unloaded with its device: the end of the run finds no driver object left.
}

}  // namespace
