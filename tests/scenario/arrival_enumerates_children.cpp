// A composite device plugged into the root hub: the PnP manager binds usbmi through the
// shipped INF, starts it, and the children that the start creates become device nodes of
// their own, each with a function driver bound by its identifiers and started.
#include "composite_device_under_pnp.h"

#include <algorithm>

namespace scenario {
namespace {

// What a node saw from its AddDevice on (before it: the bus's answers about the device),
// against what a started node must have seen.
void ExpectStartedFromAddDevice(const std::vector<std::string>& requests, const std::string& service) {
  auto add = std::find(requests.begin(), requests.end(), "AddDevice " + service);
  std::vector<std::string> expected = {"AddDevice " + service, "FILTER_RESOURCE_REQUIREMENTS", "START_DEVICE"};
  for (const std::string& request : AfterStartRequests()) expected.push_back(request);
  EXPECT_EQ(expected, std::vector<std::string>(add, requests.end()));
}

TEST_F(CompositeDeviceUnderPnp, ArrivalStartsTheParentAndEveryChildGetsANodeAndADriver) {
  Plug();

  DeviceNodeInfo parent = Node(ParentNode());
  EXPECT_EQ(u"usbmi", parent.service);
  EXPECT_EQ(DeviceNodeState::Started, parent.state);
  // The start invalidates the bus relations itself; the PnP manager folds that into the one
  // query that follows every start.
  ExpectStartedFromAddDevice(NewRequests(ParentNode()), "usbmi");
  for (const wdmsim::PnpRequestRecord& request : parent.requests) {
    if (request.name == "START_DEVICE" || request.name == "QUERY_DEVICE_RELATIONS BusRelations" ||
        request.name == "QUERY_CAPABILITIES") {
      EXPECT_EQ(STATUS_SUCCESS, request.status) << request.name;
    }
  }
  // The hub's capabilities with the parent's changes on top.
  EXPECT_TRUE(parent.capabilities.SurpriseRemovalOK);
  EXPECT_EQ(0xFFFFFFFFu, parent.capabilities.UINumber);
  EXPECT_EQ(1, Selections(TakeUrbs()));
  EXPECT_EQ(1, mFirmware->Configuration());

  // The RNDIS, ACM and vendor functions in child-list order; the notification interface is
  // the parent's own.
  std::vector<DeviceNodeInfo> children = Children();
  ASSERT_EQ(3u, children.size());
  const char16_t* deviceIds[] = {u"USB\\VID_4A9B&PID_0042&MI_00", u"USB\\VID_4A9B&PID_0042&MI_02",
                                 u"USB\\VID_4A9B&PID_0042&MI_04"};
  for (size_t i = 0; i < children.size(); ++i) {
    const DeviceNodeInfo& child = children[i];
    SCOPED_TRACE(i);
    EXPECT_EQ(deviceIds[i], child.deviceId);
    EXPECT_EQ(std::u16string(deviceIds[i]) + u"\\" + parent.busInstanceId, child.instancePath);
    EXPECT_EQ(DeviceNodeState::Started, child.state);
    EXPECT_EQ(u"wdmgeneric", child.service);
    ExpectStartedFromAddDevice(NewRequests(child.id), "wdmgeneric");
    for (const wdmsim::PnpRequestRecord& request : child.requests) {
      // Every identity answer and state request succeeds; a child has no bus of its own, so
      // its bus relations query keeps the status it was sent with.
      const bool answered = request.name.rfind("QUERY_ID", 0) == 0 || request.name.rfind("QUERY_DEVICE_TEXT", 0) == 0 ||
                            request.name == "QUERY_CAPABILITIES" || request.name == "START_DEVICE";
      if (answered) {
        EXPECT_EQ(STATUS_SUCCESS, request.status) << request.name;
      } else if (request.name == "QUERY_DEVICE_RELATIONS BusRelations") {
        EXPECT_EQ(STATUS_NOT_SUPPORTED, request.status);
      }
    }
    // The parent's capabilities, not removable on their own.
    EXPECT_FALSE(child.capabilities.Removable);
    EXPECT_TRUE(child.capabilities.SurpriseRemovalOK);
    EXPECT_EQ(0xFFFFFFFFu, child.capabilities.UINumber);
  }
  std::vector<PDEVICE_OBJECT> pdos = UsbmiChildPdos();
  EXPECT_EQ(3u, pdos.size());
  for (const DeviceNodeInfo& child : children) {
    EXPECT_NE(pdos.end(), std::find(pdos.begin(), pdos.end(), child.pdo));
  }
}

}  // namespace
}  // namespace scenario
