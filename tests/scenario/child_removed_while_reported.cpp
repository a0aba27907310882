// One child is removed on its own (a user disables the function) while the parent still
// reports it: its PDO must stay, reported in every answer, until the parent stops reporting
// it; then the removal that follows deletes it like its siblings.
#include "composite_device_under_pnp.h"

#include <algorithm>

namespace scenario {
namespace {

TEST_F(CompositeDeviceUnderPnp, ChildRemovedWhileReportedStaysUntilReportedMissing) {
  std::vector<DeviceNodeInfo> children = PlugDemoAndSettle();
  ASSERT_EQ(3u, children.size());
  const DeviceNodeInfo removed = children[1];

  RunOperation(wdmsim::PnpOperation::QueryRemove, removed.id);
  EXPECT_EQ((std::vector<std::string>{"QUERY_REMOVE_DEVICE", "REMOVE_DEVICE"}), NewRequests(removed.id));
  EXPECT_EQ(DeviceNodeState::Removed, Node(removed.id).state);
  std::vector<PDEVICE_OBJECT> held = UsbmiChildPdos();
  EXPECT_EQ(3u, held.size());
  EXPECT_NE(held.end(), std::find(held.begin(), held.end(), removed.pdo));

  // Asked again, the parent still reports it: the node stays as it was.
  RunOperation(wdmsim::PnpOperation::Reenumerate, ParentNode());
  EXPECT_EQ((std::vector<std::string>{"QUERY_DEVICE_RELATIONS BusRelations"}), NewRequests(ParentNode()));
  EXPECT_EQ(Node(ParentNode()).children,
            (std::vector<wdmsim::DeviceNodeId>{children[0].id, children[1].id, children[2].id}));
  EXPECT_EQ(DeviceNodeState::Removed, Node(removed.id).state);
  EXPECT_EQ(0, CountOf(TakeTrace(), kChildDeletedOnItsRemoval));

  // The parent's stop leaves every child out of the next answer: the running ones are
  // surprise-removed, the removed one only removed again, and each is deleted by that removal.
  RunOperation(wdmsim::PnpOperation::Rebalance, ParentNode());
  EXPECT_EQ((std::vector<std::string>{"REMOVE_DEVICE"}), NewRequests(removed.id));
  for (const DeviceNodeInfo& child : {children[0], children[2]}) {
    EXPECT_EQ((std::vector<std::string>{"SURPRISE_REMOVAL", "REMOVE_DEVICE"}), NewRequests(child.id));
  }
  for (const DeviceNodeInfo& child : children) EXPECT_EQ(DeviceNodeState::Deleted, Node(child.id).state);
  const std::string trace = TakeTrace();
  EXPECT_EQ(3, CountOf(trace, kChildDeletedOnItsRemoval)) << trace;
  EXPECT_EQ(3u, UsbmiChildPdos().size());
  EXPECT_EQ(3u, Children().size());
}

}  // namespace
}  // namespace scenario
