// The PnP manager brings up the simulated USB tree from its root hub PDO: the hub driver
// bound through an INF, devices appearing and vanishing as they are plugged and pulled.
#include <gtest/gtest.h>

#include <wdmsim/clients.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

#include "pnp_test_drivers.h"

namespace {

class PnpUsbTree : public ::testing::Test {
 protected:
  wdmsim::Kernel kernel;
};

TEST_F(PnpUsbTree, RootHubEnumeratesPluggedDevicesAndRemovesPulledOnes) {
  // The in-box INF binds usbhub to the root hub.
  wdmsim::InstallGenericFunctionDriver();
  int hub = wdmsim::CreateUsbBusForPnp(4);
  wdmsim::DeviceNodeId root = wdmsim::FindDeviceNodeByPdo(wdmsim::UsbHubPdo(hub));
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

  wdmsim::DestroyUsbBusForPnp(hub);
  EXPECT_EQ(wdmsim::GetDeviceNode(root)->state, wdmsim::DeviceNodeState::Deleted);
}

}  // namespace
