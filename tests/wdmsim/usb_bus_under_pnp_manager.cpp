// The USB bus enumerated by the PnP manager: usbhub bound through its INF to the root hub
// and to an external hub, devices appearing and vanishing through bus relations, and the
// whole tree going with its controller.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdmsim/io.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pnpmanager.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

namespace {

class UsbBusUnderPnpManager : public ::testing::Test {
 protected:
  wdmsim::Kernel kernel;
};

wdmsim::DeviceNodeInfo Node(PDEVICE_OBJECT pdo) {
  std::optional<wdmsim::DeviceNodeInfo> info = wdmsim::GetDeviceNode(wdmsim::FindDeviceNodeByPdo(pdo));
  EXPECT_TRUE(info.has_value());
  return info.value_or(wdmsim::DeviceNodeInfo());
}

TEST_F(UsbBusUnderPnpManager, HubsBindToUsbhubAndDevicesComeAndGoThroughBusRelations) {
  const int root = wdmsim::CreateUsbBusForPnp(2);
  ASSERT_NE(0, root);
  wdmsim::WaitForPnpIdle();
  wdmsim::DeviceNodeInfo rootNode = Node(wdmsim::UsbHubPdo(root));
  EXPECT_EQ(u"USB\\ROOT_HUB20", rootNode.deviceId);
  EXPECT_EQ(u"usbhub", rootNode.service);
  EXPECT_EQ(wdmsim::DeviceNodeState::Started, rootNode.state);
  EXPECT_NE(nullptr, wdmsim::UsbHubFdo(root));

  const int hub = wdmsim::AttachUsbHub(root, 2, 4, true);
  wdmsim::WaitForPnpIdle();
  wdmsim::DeviceNodeInfo hubNode = Node(wdmsim::UsbHubPdo(hub));
  EXPECT_EQ(u"usbhub", hubNode.service);
  EXPECT_EQ(wdmsim::DeviceNodeState::Started, hubNode.state);
  EXPECT_EQ(rootNode.id, hubNode.parent);

  ASSERT_EQ(3, wdmsim::AttachUsbDevice(hub, wdmsim::MakeDemoCompositeFirmware(), 3));
  wdmsim::WaitForPnpIdle();
  PDEVICE_OBJECT device = wdmsim::GetUsbPortState(hub, 3).pdo;
  ASSERT_NE(nullptr, device);
  wdmsim::DeviceNodeInfo deviceNode = Node(device);
  EXPECT_EQ(hubNode.id, deviceNode.parent);
  EXPECT_EQ(u"USB\\VID_4A9B&PID_0042\\WDMSIM-DEMO-0001", deviceNode.instancePath);
  EXPECT_EQ(u"Port_#0003.Hub_#0002", deviceNode.location);
  EXPECT_EQ(u"wdmsim Demo Composite Device", deviceNode.busDescription);

  wdmsim::UnplugUsbDevice(hub, 3);
  wdmsim::WaitForPnpIdle();
  EXPECT_EQ(0u, wdmsim::FindDeviceNodeByPdo(device));
  std::optional<wdmsim::DeviceNodeInfo> hubAfter = wdmsim::GetDeviceNode(hubNode.id);
  ASSERT_TRUE(hubAfter.has_value());
  EXPECT_TRUE(hubAfter->children.empty());

  wdmsim::DestroyUsbBusForPnp(root);
  wdmsim::WaitForPnpIdle();
  EXPECT_TRUE(wdmsim::RootDeviceNodes().empty());
  EXPECT_EQ(nullptr, wdmsim::UsbHubFdo(root));
  EXPECT_EQ(nullptr, wdmsim::UsbHubFdo(hub));
}

}  // namespace
