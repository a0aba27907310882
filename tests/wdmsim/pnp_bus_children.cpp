// A bus's children come and go through its bus relations: new ones are brought up in the
// order the bus reports them, missing ones are surprise-removed when they had started and
// removed in any case, and a vanished bus takes its children down first.
#include <gtest/gtest.h>

#include <algorithm>

#include <wdmsim/pnp.h>

#include "expect_violation.h"
#include "pnp_test_drivers.h"

namespace {

using pnptest::Names;
using wdmsim::DeviceNodeState;

class PnpBusChildren : public pnptest::BusTest {
 protected:
  PDEVICE_OBJECT Child(const char16_t* instance, bool withDriver = true) {
    PDEVICE_OBJECT pdo = withDriver ? pnptest::CreateDevice(u"WDMSIM\\FUNC", {u"WDMSIM\\FUNC"}, {}, instance)
                                    : pnptest::CreateDevice(u"WDMSIM\\ORPHAN", {u"WDMSIM\\ORPHAN"}, {}, instance);
    created.push_back(pdo);
    return pdo;
  }

  void Report(const std::vector<PDEVICE_OBJECT>& children) {
    drivers.Behaviour(u"pnpbus").children = children;
    IoInvalidateDeviceRelations(busPdo, BusRelations);
    wdmsim::WaitForPnpIdle();
  }

  std::vector<wdmsim::DeviceNodeId> ChildNodes(wdmsim::DeviceNodeId bus) { return wdmsim::GetDeviceNode(bus)->children; }

  void TearDown() override {
    for (PDEVICE_OBJECT pdo : created) wdmsim::DeleteRawPdo(pdo);
  }

  std::vector<PDEVICE_OBJECT> created;
};

TEST_F(PnpBusChildren, ChildrenComeAndGoWithTheBusRelations) {
  PDEVICE_OBJECT a = Child(u"A");
  PDEVICE_OBJECT orphan = Child(u"O", false);
  PDEVICE_OBJECT b = Child(u"B");
  drivers.Behaviour(u"pnpbus").children = {a, orphan, b};
  wdmsim::DeviceNodeId bus = wdmsim::ReportRootDevice(busPdo);
  wdmsim::WaitForPnpIdle();

  std::vector<wdmsim::DeviceNodeId> children = ChildNodes(bus);
  ASSERT_EQ(children.size(), 3u);
  wdmsim::DeviceNodeId aId = children[0], orphanId = children[1], bId = children[2];
  EXPECT_EQ(wdmsim::GetDeviceNode(aId)->pdo, a);
  EXPECT_EQ(wdmsim::GetDeviceNode(aId)->parent, bus);
  EXPECT_EQ(wdmsim::GetDeviceNode(aId)->state, DeviceNodeState::Started);
  EXPECT_EQ(wdmsim::GetDeviceNode(orphanId)->state, DeviceNodeState::DriverNotFound);
  EXPECT_EQ(wdmsim::GetDeviceNode(bId)->state, DeviceNodeState::Started);
  // Below a bus the prefix comes from the bus's depth and instance path (CRC-32 of
  // "WDMSIM\BUS\0&f6986f3e&0&1" in UTF-16LE, computed with python's zlib.crc32).
  EXPECT_EQ(wdmsim::GetDeviceNode(aId)->instancePath, u"WDMSIM\\FUNC\\1&a22adb1b&0&A");
  EXPECT_EQ(drivers.LiveFdos(u"pnpfunc"), 2);
  // Each node holds one reference on its PDO; the bus's answer references were consumed.
  EXPECT_EQ(wdmsim::DeviceObjectReferences(a), 1);

  // An unchanged answer changes nothing: the children are neither asked nor re-created.
  size_t aRequests = Names(aId).size();
  drivers.TakeLog();
  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::Reenumerate, bus), STATUS_SUCCESS);
  EXPECT_EQ(drivers.TakeLog(), std::vector<std::string>({"pnpbus QUERY_DEVICE_RELATIONS"}));
  EXPECT_EQ(Names(aId).size(), aRequests);
  EXPECT_EQ(ChildNodes(bus), children);
  EXPECT_EQ(wdmsim::DeviceObjectReferences(a), 1);  // the answer's extra reference was dropped

  // a (started) and the orphan (never started) are unplugged, c is plugged in.
  PDEVICE_OBJECT c = Child(u"C");
  drivers.TakeLog();
  Report({b, c});
  std::vector<std::string> aNames = Names(aId);
  EXPECT_EQ(std::vector<std::string>(aNames.end() - 2, aNames.end()),
            std::vector<std::string>({"SURPRISE_REMOVAL", "REMOVE_DEVICE"}));
  std::vector<std::string> orphanNames = Names(orphanId);
  EXPECT_EQ(orphanNames.back(), "REMOVE_DEVICE");
  EXPECT_EQ(std::count(orphanNames.begin(), orphanNames.end(), "SURPRISE_REMOVAL"), 0);
  EXPECT_EQ(wdmsim::GetDeviceNode(aId)->state, DeviceNodeState::Deleted);
  EXPECT_EQ(wdmsim::GetDeviceNode(orphanId)->state, DeviceNodeState::Deleted);
  EXPECT_EQ(wdmsim::DeviceObjectReferences(a), 0);
  children = ChildNodes(bus);
  ASSERT_EQ(children.size(), 2u);
  EXPECT_EQ(children[0], bId);
  EXPECT_EQ(wdmsim::GetDeviceNode(children[1])->pdo, c);
  EXPECT_EQ(wdmsim::GetDeviceNode(children[1])->state, DeviceNodeState::Started);
  // The missing ones went before the new one arrived; the bus itself saw only the query.
  EXPECT_EQ(drivers.TakeLog(),
            std::vector<std::string>({"pnpbus QUERY_DEVICE_RELATIONS", "pnpfunc SURPRISE_REMOVAL",
                                      "pnpfunc REMOVE_DEVICE", "pnpfunc AddDevice",
                                      "pnpfunc FILTER_RESOURCE_REQUIREMENTS", "pnpfunc START_DEVICE",
                                      "pnpfunc QUERY_CAPABILITIES", "pnpfunc QUERY_PNP_DEVICE_STATE",
                                      "pnpfunc QUERY_DEVICE_RELATIONS"}));

  // The bus vanishes with started children: children first, surprise removal before any
  // remove, then every driver unloads.
  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::SurpriseRemoval, bus), STATUS_SUCCESS);
  EXPECT_EQ(drivers.TakeLog(),
            std::vector<std::string>({"pnpfunc SURPRISE_REMOVAL", "pnpfunc SURPRISE_REMOVAL",
                                      "pnpbus SURPRISE_REMOVAL", "pnpfunc REMOVE_DEVICE", "pnpfunc REMOVE_DEVICE",
                                      "pnpbus REMOVE_DEVICE", "pnpbus Unload", "pnpfunc Unload"}));
  EXPECT_TRUE(wdmsim::DeviceTree().empty());
  EXPECT_EQ(wdmsim::DeviceObjectReferences(busPdo), 0);
}

TEST_F(PnpBusChildren, AnswersThatBreakTheContractAreReported) {
  PDEVICE_OBJECT a = Child(u"A");
  wdmsim::DeviceNodeId bus;
  {
    wdmsim_test::ExpectViolations expect;
    drivers.Behaviour(u"pnpbus").children = {a};
    drivers.Behaviour(u"pnpbus").forgetReferences = true;
    bus = wdmsim::ReportRootDevice(busPdo);
    wdmsim::WaitForPnpIdle();
    EXPECT_EQ(expect.Count("PNP_DETECTED_FATAL_ERROR"), 1);
    EXPECT_EQ(wdmsim::GetDeviceNode(ChildNodes(bus)[0])->state, DeviceNodeState::Started);
  }
  {
    // The same PDO twice in one answer.
    wdmsim_test::ExpectViolations expect;
    drivers.Behaviour(u"pnpbus").forgetReferences = false;
    Report({a, a});
    EXPECT_EQ(expect.Count("PNP_DETECTED_FATAL_ERROR"), 1);
    EXPECT_EQ(ChildNodes(bus).size(), 1u);
    EXPECT_EQ(wdmsim::DeviceObjectReferences(a), 1);
  }
  {
    // Two children claiming one instance path: the second is refused.
    wdmsim_test::ExpectViolations expect;
    PDEVICE_OBJECT twin = Child(u"A");
    Report({a, twin});
    EXPECT_EQ(expect.Count("PNP_DETECTED_FATAL_ERROR"), 1);
    EXPECT_EQ(wdmsim::GetDeviceNode(ChildNodes(bus)[1])->state, DeviceNodeState::EnumerationFailed);
  }
  wdmsim::RunPnpOperation(wdmsim::PnpOperation::SurpriseRemoval, bus);
}

TEST_F(PnpBusChildren, StacksLeftAfterRemoveAndDeletedPdosStillReportedAreReported) {
  PDEVICE_OBJECT a = Child(u"A");
  drivers.Behaviour(u"pnpbus").children = {a};
  wdmsim::DeviceNodeId bus = wdmsim::ReportRootDevice(busPdo);
  wdmsim::WaitForPnpIdle();
  {
    // The child's driver keeps its device object on remove.
    wdmsim_test::ExpectViolations expect;
    drivers.Behaviour(u"pnpfunc").keepDeviceOnRemove = true;
    PDEVICE_OBJECT kept = a->AttachedDevice;
    ASSERT_NE(kept, nullptr);
    Report({});
    EXPECT_EQ(expect.Count("DRIVER_VERIFIER_IOMANAGER_VIOLATION"), 1);
    EXPECT_EQ(a->AttachedDevice, kept);
    drivers.DeleteKeptFdo(kept);
  }
  {
    // The bus deletes a PDO it goes on reporting.
    wdmsim_test::ExpectViolations expect;
    PDEVICE_OBJECT b = pnptest::CreateDevice(u"WDMSIM\\ORPHAN", {u"WDMSIM\\ORPHAN"}, {}, u"B");
    Report({b});
    wdmsim::DeleteRawPdo(b);  // the node's reference keeps the object readable
    Report({b});
    EXPECT_EQ(expect.Count("PNP_DETECTED_FATAL_ERROR"), 1);
    Report({});  // its remove now reaches a PDO whose bus forgot it: reported as well
  }
  wdmsim::RunPnpOperation(wdmsim::PnpOperation::SurpriseRemoval, bus);
}

}  // namespace
