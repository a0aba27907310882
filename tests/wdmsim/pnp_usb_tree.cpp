// The PnP manager brings up the simulated USB tree from its root hub PDO: the hub driver
// bound through an INF, devices appearing and vanishing as they are plugged and pulled.
#include <gtest/gtest.h>

#include <wdmsim/clients.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

#include "pnp_test_drivers.h"

namespace {

// The hub driver's in-box INF as a test writes it: root hubs and class 09 devices.
const char kHubInf[] =
    "[Version]\n"
    "Signature = \"$Windows NT$\"\n"
    "Class = USB\n"
    "ClassGuid = {36FC9E60-C465-11CF-8056-444553540000}\n"
    "Provider = wdmsim\n"
    "DriverVer = 01/01/2024,1.0.0.0\n"
    "[Manufacturer]\n"
    "wdmsim = Hubs, NTamd64\n"
    "[Hubs.NTamd64]\n"
    "\"USB Root Hub\" = Hub_Install, USB\\ROOT_HUB20\n"
    "\"Generic USB Hub\" = Hub_Install, USB\\CLASS_09\n"
    "[Hub_Install.NT]\n"
    "[Hub_Install.NT.Services]\n"
    "AddService = usbhub, 2, Hub_Service\n"
    "[Hub_Service]\n"
    "ServiceType = 1\n"
    "StartType = 3\n"
    "ErrorControl = 1\n"
    "ServiceBinary = %12%\\usbhub.sys\n";

class PnpUsbTree : public ::testing::Test {
 protected:
  wdmsim::Kernel kernel;
};

TEST_F(PnpUsbTree, RootHubEnumeratesPluggedDevicesAndRemovesPulledOnes) {
  wdmsim::InfError error;
  ASSERT_TRUE(wdmsim::InstallInf("usbhub.inf", kHubInf, &error)) << error.Text();
  wdmsim::RegisterDriverImage(wdmsim::kUsbHubService, wdmsim::UsbHubDriverEntry);
  wdmsim::InstallGenericFunctionDriver();
  int hub = wdmsim::CreateUsbRootHub(4);
  wdmsim::DeviceNodeId root = wdmsim::ReportRootDevice(wdmsim::UsbHubPdo(hub));
  wdmsim::WaitForPnpIdle();
  ASSERT_EQ(wdmsim::GetDeviceNode(root)->state, wdmsim::DeviceNodeState::Started);
  EXPECT_EQ(wdmsim::GetDeviceNode(root)->service, wdmsim::kUsbHubService);

  // A single-function vendor device: the generic driver takes it by its class.
  wdmsim::UsbDescriptionBuilder builder(0x4A9B, 0x0099);
  builder.DeviceClass(0, 0, 0).Configuration(1, 0x80, 100).Interface(0, 0, 0xFF, 0x00, 0x00).BulkIn(0x81);
  int port = wdmsim::AttachUsbDevice(hub, std::make_shared<wdmsim::UsbFirmware>(builder.Build()));
  ASSERT_NE(port, 0);
  wdmsim::WaitForPnpIdle();
  auto children = wdmsim::GetDeviceNode(root)->children;
  ASSERT_EQ(children.size(), 1u);
  auto device = wdmsim::GetDeviceNode(children[0]);
  EXPECT_EQ(device->deviceId, u"USB\\VID_4A9B&PID_0099");
  EXPECT_EQ(device->state, wdmsim::DeviceNodeState::Started);
  EXPECT_EQ(device->service, wdmsim::kGenericFunctionService);
  EXPECT_FALSE(device->location.empty());

  wdmsim::UnplugUsbDevice(hub, port);
  wdmsim::WaitForPnpIdle();
  EXPECT_TRUE(wdmsim::GetDeviceNode(root)->children.empty());
  std::vector<std::string> names = pnptest::Names(children[0]);
  EXPECT_EQ(std::vector<std::string>(names.end() - 2, names.end()),
            std::vector<std::string>({"SURPRISE_REMOVAL", "REMOVE_DEVICE"}));
  EXPECT_EQ(wdmsim::GetUsbPortState(hub, port).pdo, nullptr);

  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::SurpriseRemoval, root), STATUS_SUCCESS);
  wdmsim::DestroyUsbRootHub(hub);
}

}  // namespace
