// A device without a driver is published with its bus's text; one whose driver cannot be
// loaded, added or started is left with the status that failed, its stack torn down and its
// driver unloaded. When either vanishes it gets a remove and no surprise removal.
#include <gtest/gtest.h>

#include <algorithm>

#include "pnp_test_drivers.h"

namespace {

using pnptest::Names;
using wdmsim::DeviceNodeState;

class PnpStartFailure : public ::testing::Test {
 protected:
  wdmsim::Kernel kernel;
  pnptest::TestDrivers drivers;
};

struct FailureCase {
  const char* what;
  const char16_t* deviceId;
  bool registerImage;
  NTSTATUS addDevice;
  NTSTATUS start;
  DeviceNodeState state;
  NTSTATUS problem;
  std::vector<std::string> lastRequests;  // the node's requests from AddDevice on
  std::vector<std::string> driverLog;
  const char16_t* description;  // what the node and the device property show
};

TEST_F(PnpStartFailure, EachFailurePointLeavesItsStatusAndNothingBehind) {
  const FailureCase cases[] = {
      {"no INF for the device", u"WDMSIM\\ORPHAN", false, STATUS_SUCCESS, STATUS_SUCCESS,
       DeviceNodeState::DriverNotFound, STATUS_SUCCESS, {}, {}, u"bus text of WDMSIM\\ORPHAN"},
      {"no driver image", u"WDMSIM\\GADGET", false, STATUS_SUCCESS, STATUS_SUCCESS, DeviceNodeState::AddFailed,
       STATUS_OBJECT_NAME_NOT_FOUND, {}, {}, u"gadget"},
      {"AddDevice fails", u"WDMSIM\\GADGET", true, STATUS_INSUFFICIENT_RESOURCES, STATUS_SUCCESS,
       DeviceNodeState::AddFailed, STATUS_INSUFFICIENT_RESOURCES, {"AddDevice pnpfunc"},
       {"pnpfunc AddDevice", "pnpfunc Unload"}, u"gadget"},
      {"start fails", u"WDMSIM\\GADGET", true, STATUS_SUCCESS, STATUS_DEVICE_CONFIGURATION_ERROR,
       DeviceNodeState::StartFailed, STATUS_DEVICE_CONFIGURATION_ERROR,
       {"AddDevice pnpfunc", "FILTER_RESOURCE_REQUIREMENTS", "START_DEVICE", "REMOVE_DEVICE"},
       {"pnpfunc AddDevice", "pnpfunc FILTER_RESOURCE_REQUIREMENTS", "pnpfunc START_DEVICE", "pnpfunc REMOVE_DEVICE",
        "pnpfunc Unload"},
       u"gadget"},
  };
  pnptest::Install("pnpfunc", {{"gadget", {"WDMSIM\\GADGET"}}});
  for (const FailureCase& c : cases) {
    if (c.registerImage) {
      pnptest::DriverBehaviour& behaviour = drivers.Add(u"pnpfunc");
      behaviour.addDevice = c.addDevice;
      behaviour.refuse = {{IRP_MN_START_DEVICE, c.start}};
    }
    PDEVICE_OBJECT pdo = pnptest::CreateDevice(c.deviceId, {c.deviceId}, {}, u"1", true);
    wdmsim::DeviceNodeId id = wdmsim::ReportRootDevice(pdo);
    wdmsim::WaitForPnpIdle();

    auto node = wdmsim::GetDeviceNode(id);
    EXPECT_EQ(node->state, c.state) << c.what;
    EXPECT_EQ(node->problemStatus, c.problem) << c.what;
    EXPECT_EQ(node->description, c.description) << c.what;
    WCHAR text[64];
    ULONG length = 0;
    ASSERT_EQ(IoGetDeviceProperty(pdo, DevicePropertyDeviceDescription, sizeof text, text, &length), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(text)), c.description) << c.what;
    std::vector<std::string> names = Names(id);
    auto added = std::find(names.begin(), names.end(), "QUERY_RESOURCE_REQUIREMENTS") + 1;
    EXPECT_EQ(std::vector<std::string>(added, names.end()), c.lastRequests) << c.what;
    EXPECT_EQ(drivers.TakeLog(), c.driverLog) << c.what;
    EXPECT_EQ(drivers.LiveFdos(u"pnpfunc"), 0) << c.what;
    EXPECT_EQ(wdmsim::AttachedToDevice(pdo), nullptr) << c.what;
    EXPECT_EQ(pdo->AttachedDevice, nullptr) << c.what;

    EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::SurpriseRemoval, id), STATUS_SUCCESS) << c.what;
    names = Names(id);
    EXPECT_EQ(names.back(), "REMOVE_DEVICE") << c.what;
    EXPECT_EQ(std::count(names.begin(), names.end(), "SURPRISE_REMOVAL"), 0) << c.what;
    EXPECT_EQ(wdmsim::GetDeviceNode(id)->state, DeviceNodeState::Deleted) << c.what;
    EXPECT_TRUE(wdmsim::RootDeviceNodes().empty()) << c.what;
    wdmsim::DeleteRawPdo(pdo);
  }
  // Every device object and driver is gone: the end of the run finds nothing to report.
}

}  // namespace
