// Rebalance stops a running device and starts it again, then asks it what a started device
// is asked; a refused query-stop is cancelled and the device keeps running.
#include <gtest/gtest.h>

#include "pnp_test_drivers.h"

namespace {

using pnptest::Names;

class PnpRebalance : public pnptest::BusTest {
 protected:
  void SetUp() override {
    childPdo = pnptest::CreateDevice(u"WDMSIM\\FUNC", {u"WDMSIM\\FUNC"}, {}, u"1");
    drivers.Behaviour(u"pnpbus").children = {childPdo};
    bus = wdmsim::ReportRootDevice(busPdo);
    wdmsim::WaitForPnpIdle();
    child = wdmsim::GetDeviceNode(bus)->children.at(0);
    drivers.TakeLog();
  }

  void TearDown() override {
    wdmsim::RunPnpOperation(wdmsim::PnpOperation::SurpriseRemoval, bus);
    wdmsim::DeleteRawPdo(childPdo);
  }

  PDEVICE_OBJECT childPdo = nullptr;
  wdmsim::DeviceNodeId bus = 0;
  wdmsim::DeviceNodeId child = 0;
};

TEST_F(PnpRebalance, StopsAndRestartsThenEnumeratesAgain) {
  size_t childRequests = Names(child).size();
  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::Rebalance, bus), STATUS_SUCCESS);
  EXPECT_EQ(drivers.TakeLog(),
            std::vector<std::string>({"pnpbus QUERY_STOP_DEVICE", "pnpbus STOP_DEVICE", "pnpbus START_DEVICE",
                                      "pnpbus QUERY_CAPABILITIES", "pnpbus QUERY_PNP_DEVICE_STATE",
                                      "pnpbus QUERY_DEVICE_RELATIONS"}));
  EXPECT_EQ(wdmsim::GetDeviceNode(bus)->state, wdmsim::DeviceNodeState::Started);
  // The child is still reported: it is neither asked nor re-created.
  EXPECT_EQ(Names(child).size(), childRequests);
  EXPECT_EQ(wdmsim::GetDeviceNode(bus)->children, std::vector<wdmsim::DeviceNodeId>({child}));
}

TEST_F(PnpRebalance, RefusedQueryStopIsCancelled) {
  drivers.Behaviour(u"pnpbus").refuse = {{IRP_MN_QUERY_STOP_DEVICE, STATUS_DEVICE_BUSY}};
  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::Rebalance, bus), STATUS_DEVICE_BUSY);
  EXPECT_EQ(drivers.TakeLog(), std::vector<std::string>({"pnpbus QUERY_STOP_DEVICE", "pnpbus CANCEL_STOP_DEVICE"}));
  std::vector<std::string> names = Names(bus);
  EXPECT_EQ(std::vector<std::string>(names.end() - 2, names.end()),
            std::vector<std::string>({"QUERY_STOP_DEVICE", "CANCEL_STOP_DEVICE"}));
  EXPECT_EQ(wdmsim::GetDeviceNode(bus)->state, wdmsim::DeviceNodeState::Started);
}

TEST_F(PnpRebalance, FailedRestartTakesTheChildrenDownFirst) {
  drivers.Behaviour(u"pnpbus").refuse = {{IRP_MN_START_DEVICE, STATUS_INSUFFICIENT_RESOURCES}};
  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::Rebalance, bus), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(drivers.TakeLog(),
            std::vector<std::string>({"pnpbus QUERY_STOP_DEVICE", "pnpbus STOP_DEVICE", "pnpbus START_DEVICE",
                                      "pnpfunc SURPRISE_REMOVAL", "pnpfunc REMOVE_DEVICE", "pnpfunc Unload",
                                      "pnpbus REMOVE_DEVICE", "pnpbus Unload"}));
  auto node = wdmsim::GetDeviceNode(bus);
  EXPECT_EQ(node->state, wdmsim::DeviceNodeState::StartFailed);
  EXPECT_EQ(node->problemStatus, STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_TRUE(node->children.empty());
  // Nothing to rebalance in a device that is not running.
  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::Rebalance, bus), STATUS_INVALID_DEVICE_STATE);
}

}  // namespace
