// The device is pulled out while the parent and its children run: the PnP manager
// surprise-removes the children and then the parent, and removes them in the same order.
// The parent's surprise removal marks its children absent, but no relations answer follows,
// so the children outlive their own removal and go with the parent's. Afterwards nothing of
// the driver is left.
#include "composite_device_under_pnp.h"

namespace scenario {
namespace {

const std::vector<std::string> kSurpriseRemoval = {"SURPRISE_REMOVAL", "REMOVE_DEVICE"};

TEST_F(CompositeDeviceUnderPnp, PulledDeviceTakesItsChildrenAndLeavesNothing) {
  const LiveResources before = TakeLiveResources();
  std::vector<DeviceNodeInfo> children = PlugDemoAndSettle();
  ASSERT_EQ(3u, children.size());

  Unplug();

  EXPECT_EQ(kSurpriseRemoval, NewRequests(ParentNode()));
  EXPECT_EQ(DeviceNodeState::Deleted, Node(ParentNode()).state);
  for (const DeviceNodeInfo& child : children) {
    EXPECT_EQ(kSurpriseRemoval, NewRequests(child.id));
    EXPECT_EQ(DeviceNodeState::Deleted, Node(child.id).state);
  }
  const std::string trace = TakeTrace();
  EXPECT_EQ(0, CountOf(trace, kChildDeletedOnItsRemoval)) << trace;
  EXPECT_EQ(3, CountOf(trace, kChildDestroyed)) << trace;
  // With its last device gone the driver is unloaded, which the kernel refuses (and
  // reports) while any device object of the driver is left.
  EXPECT_TRUE(Contains(trace, "usbmi:DriverUnload")) << trace;
  EXPECT_EQ(before, TakeLiveResources());

  // The same port takes the device again: a new parent with new children.
  Plug();
  EXPECT_EQ(DeviceNodeState::Started, Node(ParentNode()).state);
  std::vector<DeviceNodeInfo> again = Children();
  ASSERT_EQ(3u, again.size());
  for (size_t i = 0; i < again.size(); ++i) {
    EXPECT_EQ(children[i].instancePath, again[i].instancePath);
    EXPECT_EQ(DeviceNodeState::Started, again[i].state);
  }
}

}  // namespace
}  // namespace scenario
