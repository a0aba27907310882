// The USB bus enumerated by the PnP manager: usbhub bound through its INF to the root hub
// and to an external hub, devices appearing (bound by their class to the generic function
// driver) and vanishing through bus relations, and the whole tree going with its controller.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdmsim/clients.h>
#include <wdmsim/io.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pnpmanager.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

#include "pnp_test_drivers.h"

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
  wdmsim::InstallGenericFunctionDriver();
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

  // A single-function vendor device: the generic driver takes it by its class.
  wdmsim::UsbDescriptionBuilder builder(0x4A9B, 0x0099);
  builder.DeviceClass(0, 0, 0).Configuration(1, 0x80, 100).Interface(0, 0, 0xFF, 0x00, 0x00).BulkIn(0x81);
  ASSERT_EQ(1, wdmsim::AttachUsbDevice(root, std::make_shared<wdmsim::UsbFirmware>(builder.Build()), 1));
  wdmsim::WaitForPnpIdle();
  wdmsim::DeviceNodeInfo vendorNode = Node(wdmsim::GetUsbPortState(root, 1).pdo);
  EXPECT_EQ(u"USB\\VID_4A9B&PID_0099", vendorNode.deviceId);
  EXPECT_EQ(wdmsim::DeviceNodeState::Started, vendorNode.state);
  EXPECT_EQ(wdmsim::kGenericFunctionService, vendorNode.service);
  wdmsim::UnplugUsbDevice(root, 1);
  wdmsim::WaitForPnpIdle();
  std::vector<std::string> names = pnptest::Names(vendorNode.id);
  EXPECT_EQ(std::vector<std::string>(names.end() - 2, names.end()),
            std::vector<std::string>({"SURPRISE_REMOVAL", "REMOVE_DEVICE"}));
  EXPECT_EQ(nullptr, wdmsim::GetUsbPortState(root, 1).pdo);

  wdmsim::UnplugUsbDevice(hub, 3);
  wdmsim::WaitForPnpIdle();
  EXPECT_EQ(0u, wdmsim::FindDeviceNodeByPdo(device));
  std::optional<wdmsim::DeviceNodeInfo> hubAfter = wdmsim::GetDeviceNode(hubNode.id);
  ASSERT_TRUE(hubAfter.has_value());
  EXPECT_TRUE(hubAfter->children.empty());

  wdmsim::DestroyUsbBusForPnp(root);
  wdmsim::WaitForPnpIdle();
  EXPECT_EQ(wdmsim::DeviceNodeState::Deleted, wdmsim::GetDeviceNode(rootNode.id)->state);
  EXPECT_TRUE(wdmsim::RootDeviceNodes().empty());
  EXPECT_EQ(nullptr, wdmsim::UsbHubFdo(root));
  EXPECT_EQ(nullptr, wdmsim::UsbHubFdo(hub));
}

}  // namespace
