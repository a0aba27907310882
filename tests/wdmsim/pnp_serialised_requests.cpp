// The PnP manager works one action at a time: requests to a device never overlap, work
// queued meanwhile waits its turn, and invalidations made before a bus relations query
// are answered by that one query.
#include <gtest/gtest.h>

#include <algorithm>

#include "pnp_test_drivers.h"

namespace {

class PnpSerialisedRequests : public ::testing::Test {
 protected:
  wdmsim::Kernel kernel;
  pnptest::TestDrivers drivers;
};

TEST_F(PnpSerialisedRequests, WorkQueuedDuringAStartWaitsAndInvalidationsCoalesce) {
  drivers.Add(u"pnpfunc").startDelayMs = 100;
  drivers.TraceEntries(true);
  pnptest::Install("pnpfunc", {{"gadget", {"WDMSIM\\GADGET"}}});
  PDEVICE_OBJECT pdo = pnptest::CreateDevice(u"WDMSIM\\GADGET", {u"WDMSIM\\GADGET"}, {}, u"1", true);
  wdmsim::DeviceNodeId id = wdmsim::ReportRootDevice(pdo);
  // While the start is still to come (it takes 100 ms of virtual time), a rebalance is
  // asked for and the stack invalidates its relations three times.
  wdmsim::QueuePnpOperation(wdmsim::PnpOperation::Rebalance, id);
  for (int i = 0; i < 3; ++i) IoInvalidateDeviceRelations(pdo, BusRelations);
  wdmsim::WaitForPnpIdle();

  std::vector<std::string> log = drivers.TakeLog();
  // Every request ends before the next one begins.
  std::string open;
  for (const std::string& entry : log) {
    if (entry.back() == '+') {
      EXPECT_TRUE(open.empty()) << entry << " began while " << open << " ran";
      open = entry;
    } else if (entry.back() == '-') {
      EXPECT_EQ(entry.substr(0, entry.size() - 1), open.substr(0, open.size() - 1));
      open.clear();
    }
  }
  std::vector<std::string> expected = {"pnpfunc AddDevice"};
  for (const char* request : {"FILTER_RESOURCE_REQUIREMENTS", "START_DEVICE", "QUERY_CAPABILITIES",
                              "QUERY_PNP_DEVICE_STATE", "QUERY_DEVICE_RELATIONS",
                              // the rebalance, only after the arrival is complete
                              "QUERY_STOP_DEVICE", "STOP_DEVICE", "START_DEVICE", "QUERY_CAPABILITIES",
                              "QUERY_PNP_DEVICE_STATE", "QUERY_DEVICE_RELATIONS"}) {
    expected.push_back(std::string("pnpfunc ") + request + " +");
    expected.push_back(std::string("pnpfunc ") + request + " -");
  }
  EXPECT_EQ(log, expected);

  // An invalidation after the last query is answered by a query of its own.
  IoInvalidateDeviceRelations(pdo, BusRelations);
  IoInvalidateDeviceRelations(pdo, RemovalRelations);  // not a bus change: no query
  wdmsim::WaitForPnpIdle();
  EXPECT_EQ(drivers.TakeLog(),
            std::vector<std::string>({"pnpfunc QUERY_DEVICE_RELATIONS +", "pnpfunc QUERY_DEVICE_RELATIONS -"}));

  wdmsim::RunPnpOperation(wdmsim::PnpOperation::SurpriseRemoval, id);
  wdmsim::DeleteRawPdo(pdo);
}

}  // namespace
