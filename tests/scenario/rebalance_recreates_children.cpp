// Rebalance: the PnP manager stops the running parent and starts it again. The stop
// unconfigures the device and marks the children absent; the restart configures it again
// and creates the children anew, so the relations answer after the restart reports new PDOs
// and leaves the old ones out. The old children, reported missing, are surprise-removed and
// deleted by their own removal; the new ones get nodes and drivers of their own. A restart
// that fails leaves the parent to take the old children with it.
#include "composite_device_under_pnp.h"

#include <algorithm>

#include <wdmsim/usbbus.h>

namespace scenario {
namespace {

TEST_F(CompositeDeviceUnderPnp, RebalanceReplacesEveryChildWithAFreshOne) {
  std::vector<DeviceNodeInfo> before = PlugDemoAndSettle();
  ASSERT_EQ(3u, before.size());

  RunOperation(wdmsim::PnpOperation::Rebalance, ParentNode());

  std::vector<std::string> expected = {"QUERY_STOP_DEVICE", "STOP_DEVICE", "START_DEVICE"};
  for (const std::string& request : AfterStartRequests()) expected.push_back(request);
  EXPECT_EQ(expected, NewRequests(ParentNode()));
  EXPECT_EQ(DeviceNodeState::Started, Node(ParentNode()).state);
  // Unconfigured by the stop before anything else, selected again by the start.
  const std::vector<USHORT> urbs = TakeUrbs();
  ASSERT_FALSE(urbs.empty());
  EXPECT_EQ(URB_FUNCTION_SELECT_CONFIGURATION, urbs.front());
  EXPECT_EQ(2, Selections(urbs));
  EXPECT_EQ(1, mFirmware->Configuration());

  for (const DeviceNodeInfo& old : before) {
    EXPECT_EQ((std::vector<std::string>{"SURPRISE_REMOVAL", "REMOVE_DEVICE"}), NewRequests(old.id));
    EXPECT_EQ(DeviceNodeState::Deleted, Node(old.id).state);
  }
  const std::string trace = TakeTrace();
  EXPECT_EQ(3, CountOf(trace, kChildDeletedOnItsRemoval)) << trace;

  std::vector<DeviceNodeInfo> after = Children();
  ASSERT_EQ(before.size(), after.size());
  std::vector<PDEVICE_OBJECT> held = UsbmiChildPdos();
  EXPECT_EQ(after.size(), held.size());
  for (size_t i = 0; i < after.size(); ++i) {
    SCOPED_TRACE(i);
    // The same function in the same place, on a new PDO: the old ones were still alive when
    // the new ones were created.
    EXPECT_EQ(before[i].instancePath, after[i].instancePath);
    EXPECT_NE(before[i].id, after[i].id);
    EXPECT_NE(before[i].pdo, after[i].pdo);
    EXPECT_NE(held.end(), std::find(held.begin(), held.end(), after[i].pdo));
    EXPECT_EQ(DeviceNodeState::Started, after[i].state);
    EXPECT_EQ(u"wdmgeneric", after[i].service);
  }

  // A second rebalance works on the children of the first.
  RunOperation(wdmsim::PnpOperation::Rebalance, ParentNode());
  EXPECT_EQ(3, CountOf(TakeTrace(), kChildDeletedOnItsRemoval));
  EXPECT_EQ(3u, Children().size());
  EXPECT_EQ(3u, UsbmiChildPdos().size());
}

// The restart fails: the parent cannot serve its children any more, so the PnP manager
// removes them and then the parent. The children were marked absent by the stop but never
// left out of an answer, so their removal leaves them to the parent's, which takes them.
TEST_F(CompositeDeviceUnderPnp, RestartFailingAfterRebalanceTakesTheOldChildrenWithTheParent) {
  const LiveResources before = TakeLiveResources();
  std::vector<DeviceNodeInfo> children = PlugDemoAndSettle();
  ASSERT_EQ(3u, children.size());
  wdmsim::UsbFaultPoint descriptor;
  descriptor.fault = wdmsim::UsbFault::FailUrb;
  descriptor.urbFunction = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
  descriptor.irpStatus = STATUS_DEVICE_DATA_ERROR;
  wdmsim::ArmUsbFault(descriptor);

  RunOperation(wdmsim::PnpOperation::Rebalance, ParentNode(), STATUS_DEVICE_DATA_ERROR);
  EXPECT_EQ(1, wdmsim::UsbFaultHits(wdmsim::UsbFault::FailUrb));
  wdmsim::ClearUsbFaults();

  EXPECT_EQ((std::vector<std::string>{"QUERY_STOP_DEVICE", "STOP_DEVICE", "START_DEVICE", "REMOVE_DEVICE"}),
            NewRequests(ParentNode()));
  const DeviceNodeInfo parent = Node(ParentNode());
  EXPECT_EQ(DeviceNodeState::StartFailed, parent.state);
  EXPECT_EQ(STATUS_DEVICE_DATA_ERROR, parent.problemStatus);
  for (const DeviceNodeInfo& child : children) {
    EXPECT_EQ((std::vector<std::string>{"SURPRISE_REMOVAL", "REMOVE_DEVICE"}), NewRequests(child.id));
    EXPECT_EQ(DeviceNodeState::Deleted, Node(child.id).state);
  }
  const std::string trace = TakeTrace();
  EXPECT_EQ(0, CountOf(trace, kChildDeletedOnItsRemoval)) << trace;
  EXPECT_EQ(3, CountOf(trace, kChildDestroyed)) << trace;
  EXPECT_EQ(nullptr, ParentPdo()->AttachedDevice);

  Unplug();
  EXPECT_EQ(before, TakeLiveResources());
}

}  // namespace
}  // namespace scenario
