// Orderly removal asks the children first and the device last; one refusal cancels it
// for every device that was asked, the refusing one included, in reverse order. Once
// agreed, children are removed before their parent, the device stays present but removed,
// and an eject follows the removal.
#include <gtest/gtest.h>

#include "pnp_test_drivers.h"

namespace {

using pnptest::Names;
using wdmsim::DeviceNodeState;

class PnpQueryRemove : public pnptest::BusTest {
 protected:
  void SetUp() override {
    drivers.Add(u"pnpother");
    pnptest::Install("pnpother", {{"other function", {"WDMSIM\\OTHER"}}});
    funcPdo = pnptest::CreateDevice(u"WDMSIM\\FUNC", {u"WDMSIM\\FUNC"}, {}, u"1");
    otherPdo = pnptest::CreateDevice(u"WDMSIM\\OTHER", {u"WDMSIM\\OTHER"}, {}, u"2");
    drivers.Behaviour(u"pnpbus").children = {funcPdo, otherPdo};
    bus = wdmsim::ReportRootDevice(busPdo);
    wdmsim::WaitForPnpIdle();
    drivers.TakeLog();
  }

  void TearDown() override {
    wdmsim::RunPnpOperation(wdmsim::PnpOperation::SurpriseRemoval, bus);
    wdmsim::DeleteRawPdo(funcPdo);
    wdmsim::DeleteRawPdo(otherPdo);
  }

  PDEVICE_OBJECT funcPdo = nullptr;
  PDEVICE_OBJECT otherPdo = nullptr;
  wdmsim::DeviceNodeId bus = 0;
};

TEST_F(PnpQueryRemove, RefusalCancelsThenAgreementRemovesChildrenFirst) {
  std::vector<wdmsim::DeviceNodeId> children = wdmsim::GetDeviceNode(bus)->children;
  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::QueryRemove, 9999), STATUS_NO_SUCH_DEVICE);
  // A child vanishes through its bus's relations, not by itself.
  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::SurpriseRemoval, children[0]), STATUS_INVALID_PARAMETER);

  drivers.Behaviour(u"pnpother").refuse = {{IRP_MN_QUERY_REMOVE_DEVICE, STATUS_DEVICE_BUSY}};
  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::QueryRemove, bus), STATUS_DEVICE_BUSY);
  EXPECT_EQ(drivers.TakeLog(),
            std::vector<std::string>({"pnpfunc QUERY_REMOVE_DEVICE", "pnpother QUERY_REMOVE_DEVICE",
                                      "pnpother CANCEL_REMOVE_DEVICE", "pnpfunc CANCEL_REMOVE_DEVICE"}));
  for (wdmsim::DeviceNodeId id : {bus, children[0], children[1]}) {
    EXPECT_EQ(wdmsim::GetDeviceNode(id)->state, DeviceNodeState::Started);
  }
  EXPECT_EQ(Names(bus).back(), "QUERY_DEVICE_RELATIONS BusRelations");  // the bus was never asked

  drivers.Behaviour(u"pnpother").refuse.clear();
  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::QueryRemove, bus), STATUS_SUCCESS);
  EXPECT_EQ(drivers.TakeLog(),
            std::vector<std::string>({"pnpfunc QUERY_REMOVE_DEVICE", "pnpother QUERY_REMOVE_DEVICE",
                                      "pnpbus QUERY_REMOVE_DEVICE", "pnpfunc REMOVE_DEVICE",
                                      "pnpother REMOVE_DEVICE", "pnpbus REMOVE_DEVICE", "pnpbus Unload",
                                      "pnpfunc Unload", "pnpother Unload"}));
  auto node = wdmsim::GetDeviceNode(bus);
  EXPECT_EQ(node->state, DeviceNodeState::Removed);
  EXPECT_TRUE(node->children.empty());
  EXPECT_EQ(wdmsim::GetDeviceNode(children[0])->state, DeviceNodeState::Deleted);
  EXPECT_EQ(wdmsim::RootDeviceNodes(), std::vector<wdmsim::DeviceNodeId>({bus}));
  // A removed device cannot be removed again; when it finally vanishes it gets its last
  // remove and no surprise removal.
  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::QueryRemove, bus), STATUS_INVALID_DEVICE_STATE);
  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::SurpriseRemoval, bus), STATUS_SUCCESS);
  std::vector<std::string> names = Names(bus);
  EXPECT_EQ(std::vector<std::string>(names.end() - 3, names.end()),
            std::vector<std::string>({"QUERY_REMOVE_DEVICE", "REMOVE_DEVICE", "REMOVE_DEVICE"}));
}

TEST_F(PnpQueryRemove, EjectFollowsTheRemoval) {
  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::Eject, bus), STATUS_SUCCESS);
  std::vector<std::string> names = Names(bus);
  EXPECT_EQ(std::vector<std::string>(names.end() - 3, names.end()),
            std::vector<std::string>({"QUERY_REMOVE_DEVICE", "REMOVE_DEVICE", "EJECT"}));
  // The raw bus cannot eject: the request keeps the status the PnP manager preset.
  EXPECT_EQ(wdmsim::GetDeviceNode(bus)->requests.back().status, STATUS_NOT_SUPPORTED);
  auto raw = wdmsim::TakeRawPdoRequests(busPdo);
  ASSERT_FALSE(raw.empty());
  EXPECT_EQ(raw.back().minorFunction, IRP_MN_EJECT);
}

}  // namespace
