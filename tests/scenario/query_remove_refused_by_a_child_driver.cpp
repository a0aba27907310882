// Orderly removal of the device while one child's function driver refuses to let go, then
// agrees. The PnP manager asks the children first: the refusal cancels the removal for every
// child that was asked, and all keep running on the same PDOs with the device configured.
// Once the driver agrees, the children are removed while the parent still reports them (so
// they stay alive) and the parent's removal takes them with it.
#include "composite_device_under_pnp.h"

#include "pnp_test_drivers.h"

namespace scenario {
namespace {

// A driver for the vendor function that holds it open.
constexpr char16_t kHoldingService[] = u"holdsopen";

TEST_F(CompositeDeviceUnderPnp, RefusedQueryRemoveIsCancelledThenAgreedRemovalTakesTheChildren) {
  pnptest::TestDrivers drivers;
  drivers.Add(kHoldingService).refuse[IRP_MN_QUERY_REMOVE_DEVICE] = STATUS_DEVICE_BUSY;
  pnptest::Install("holdsopen", {{"vendor function held open", {"USB\\VID_4A9B&PID_0042&MI_04"}}});
  std::vector<DeviceNodeInfo> children = PlugDemoAndSettle();
  ASSERT_EQ(3u, children.size());
  ASSERT_EQ(kHoldingService, children[2].service);
  const std::vector<PDEVICE_OBJECT> pdos = UsbmiChildPdos();

  RunOperation(wdmsim::PnpOperation::QueryRemove, ParentNode(), STATUS_DEVICE_BUSY);

  const std::vector<std::string> cancelled = {"QUERY_REMOVE_DEVICE", "CANCEL_REMOVE_DEVICE"};
  for (const DeviceNodeInfo& child : children) {
    EXPECT_EQ(cancelled, NewRequests(child.id));
    EXPECT_EQ(DeviceNodeState::Started, Node(child.id).state);
  }
  EXPECT_TRUE(NewRequests(ParentNode()).empty());  // children go first; the parent was never asked
  EXPECT_EQ(DeviceNodeState::Started, Node(ParentNode()).state);
  EXPECT_EQ(pdos, UsbmiChildPdos());
  EXPECT_EQ(0, Selections(TakeUrbs()));

  // Every child is back in the started state: a stop and restart of each one (which checks
  // the state it starts from) runs without a complaint.
  for (const DeviceNodeInfo& child : children) {
    RunOperation(wdmsim::PnpOperation::Rebalance, child.id);
    EXPECT_EQ(DeviceNodeState::Started, Node(child.id).state);
  }
  std::string trace = TakeTrace();
  EXPECT_FALSE(Contains(trace, "ASSERTION FAILED")) << trace;

  drivers.Behaviour(kHoldingService).refuse.clear();
  for (const DeviceNodeInfo& child : children) NewRequests(child.id);
  RunOperation(wdmsim::PnpOperation::QueryRemove, ParentNode());

  for (const DeviceNodeInfo& child : children) {
    EXPECT_EQ((std::vector<std::string>{"QUERY_REMOVE_DEVICE", "REMOVE_DEVICE"}), NewRequests(child.id));
    EXPECT_EQ(DeviceNodeState::Deleted, Node(child.id).state);
  }
  EXPECT_EQ((std::vector<std::string>{"QUERY_REMOVE_DEVICE", "REMOVE_DEVICE"}), NewRequests(ParentNode()));
  EXPECT_EQ(DeviceNodeState::Removed, Node(ParentNode()).state);
  // A removal leaves the device as it is; the hub resets it when it goes.
  EXPECT_EQ(0, Selections(TakeUrbs()));
  trace = TakeTrace();
  EXPECT_EQ(0, CountOf(trace, kChildDeletedOnItsRemoval)) << trace;
  EXPECT_EQ(3, CountOf(trace, kChildDestroyed)) << trace;
  EXPECT_EQ(0, drivers.LiveFdos(kHoldingService));
  EXPECT_FALSE(Contains(trace, "ASSERTION FAILED")) << trace;

  Unplug();  // while the test driver is still there to see its unload
}

}  // namespace
}  // namespace scenario
