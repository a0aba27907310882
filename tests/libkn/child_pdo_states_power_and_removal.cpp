// The bus child's PnP states per (state, request) with the hook that runs under the
// parent's lock and the status it completes with; its capabilities answer; and its power
// answers, each with exactly one PoStartNextPowerIrp and no lock; and its removal.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>
#include <vector>

#include <wdmsim/io.h>
#include <wdmsim/pool.h>
#include <wdmsim/power.h>

#include "knnametables.h"
#include "kntrace.h"
#include "support_pnp_devices.h"

namespace {

using kntest::Has;
using kntest::HasIf;
using kntest::TestChildPdo;
using Events = std::vector<std::string>;

// The status a request arrives with, when nobody answered it on the way: a request the
// child does not handle must keep it.
const NTSTATUS kPreset = STATUS_BUFFER_OVERFLOW;

class ChildStatesTest : public kntest::BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    mChild = kntest::AddPresentChild(mBus, &mJournal);
    ASSERT_NE(nullptr, mChild);
    mChild->AddStrHardwareId(L"KN\\CHILD", NonPagedPool);
    gKnTraceMask = 0x7;
    TakeTrace();
  }
  IO_STATUS_BLOCK Send(UCHAR major, UCHAR minor, const std::function<void(IO_STACK_LOCATION&)>& setup = nullptr) {
    return wdmsim::SendIrpToStack(mChild->GetDeviceObject(), major, minor, setup, kPreset);
  }

  TestChildPdo* mChild = nullptr;
};

struct ChildTransition {
  KnPnPState previous;
  KnPnPState state;
  UCHAR minor;
  NTSTATUS hookResult;  // what the start and query hooks answer
  Events hooks;
  KnPnPState after;
  NTSTATUS status;
  bool sourceStateAsserted;
};

const ChildTransition kChildTransitions[] = {
    {KnPnPState_Initializing, KnPnPState_Added, IRP_MN_START_DEVICE, STATUS_SUCCESS, {"hook OnPnpStartDevice"},
     KnPnPState_Started, STATUS_SUCCESS, false},
    // Removed while still reported: the PnP manager may start it again.
    {KnPnPState_Started, KnPnPState_Removed, IRP_MN_START_DEVICE, STATUS_SUCCESS, {"hook OnPnpStartDevice"},
     KnPnPState_Started, STATUS_SUCCESS, false},
    {KnPnPState_Initializing, KnPnPState_Added, IRP_MN_START_DEVICE, STATUS_DEVICE_CONFIGURATION_ERROR,
     {"hook OnPnpStartDevice"}, KnPnPState_Stopped, STATUS_DEVICE_CONFIGURATION_ERROR, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_QUERY_STOP_DEVICE, STATUS_SUCCESS, {"hook OnPnpQueryStopDevice"},
     KnPnPState_StopPending, STATUS_SUCCESS, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_QUERY_STOP_DEVICE, STATUS_DEVICE_BUSY,
     {"hook OnPnpQueryStopDevice"}, KnPnPState_StopPending, STATUS_DEVICE_BUSY, false},
    {KnPnPState_Started, KnPnPState_StopPending, IRP_MN_CANCEL_STOP_DEVICE, STATUS_SUCCESS,
     {"hook OnPnpCancelStopDevice"}, KnPnPState_Started, STATUS_SUCCESS, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_CANCEL_STOP_DEVICE, STATUS_SUCCESS, {}, KnPnPState_Started,
     STATUS_SUCCESS, false},
    {KnPnPState_Started, KnPnPState_StopPending, IRP_MN_STOP_DEVICE, STATUS_SUCCESS, {"hook OnPnpStopDevice"},
     KnPnPState_Stopped, STATUS_SUCCESS, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_QUERY_REMOVE_DEVICE, STATUS_SUCCESS,
     {"hook OnPnpQueryRemoveDevice"}, KnPnPState_RemovePending, STATUS_SUCCESS, false},
    {KnPnPState_StopPending, KnPnPState_Stopped, IRP_MN_QUERY_REMOVE_DEVICE, STATUS_DEVICE_BUSY,
     {"hook OnPnpQueryRemoveDevice"}, KnPnPState_RemovePending, STATUS_DEVICE_BUSY, false},
    {KnPnPState_Started, KnPnPState_RemovePending, IRP_MN_CANCEL_REMOVE_DEVICE, STATUS_SUCCESS,
     {"hook OnPnpCancelRemoveDevice"}, KnPnPState_Started, STATUS_SUCCESS, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_CANCEL_REMOVE_DEVICE, STATUS_SUCCESS, {}, KnPnPState_Started,
     STATUS_SUCCESS, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_SURPRISE_REMOVAL, STATUS_SUCCESS, {"hook OnPnpSurpriseRemoval"},
     KnPnPState_SurpriseRemoved, STATUS_SUCCESS, false},
    // Nobody below the child: requests it does not answer keep the status they came with.
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_QUERY_PNP_DEVICE_STATE, STATUS_SUCCESS, {}, KnPnPState_Started,
     kPreset, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_EJECT, STATUS_SUCCESS, {}, KnPnPState_Started, kPreset, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_QUERY_RESOURCES, STATUS_SUCCESS, {}, KnPnPState_Started, kPreset,
     false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_QUERY_RESOURCE_REQUIREMENTS, STATUS_SUCCESS, {}, KnPnPState_Started,
     kPreset, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_QUERY_BUS_INFORMATION, STATUS_SUCCESS, {}, KnPnPState_Started,
     kPreset, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_QUERY_INTERFACE, STATUS_SUCCESS, {}, KnPnPState_Started, kPreset,
     false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_READ_CONFIG, STATUS_SUCCESS, {}, KnPnPState_Started, kPreset, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_WRITE_CONFIG, STATUS_SUCCESS, {}, KnPnPState_Started, kPreset,
     false},
    // Wrong source states are reported and handled all the same.
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_STOP_DEVICE, STATUS_SUCCESS, {"hook OnPnpStopDevice"},
     KnPnPState_Stopped, STATUS_SUCCESS, true},
    {KnPnPState_Added, KnPnPState_SurpriseRemoved, IRP_MN_START_DEVICE, STATUS_SUCCESS, {"hook OnPnpStartDevice"},
     KnPnPState_Started, STATUS_SUCCESS, true},
};

TEST_F(ChildStatesTest, EachStateAndRequestRunsItsHookUnderTheParentsLock) {
  for (const ChildTransition& t : kChildTransitions) {
    SCOPED_TRACE(std::string(KnPnPStateName(t.state)) + " + " + KnPnpMinorFunctionName(t.minor));
    mChild->SetPnPState(t.previous);
    mChild->SetPnPState(t.state);
    mChild->startResult = mChild->queryStopResult = mChild->queryRemoveResult = t.hookResult;
    mJournal.Take();
    EXPECT_EQ(t.status, Send(IRP_MJ_PNP, t.minor).Status);
    EXPECT_EQ(t.hooks, mJournal.Take());
    EXPECT_EQ(t.after, mChild->GetPnPState());
    EXPECT_EQ(0, mJournal.lockDepth);
    std::string trace = TakeTrace();
    EXPECT_TRUE(HasIf(t.sourceStateAsserted, trace, "ASSERTION FAILED"));
    EXPECT_TRUE(Has(trace, ":KN\\CHILD [KnBusChildPdo::OnDispatchPnp 0x"));
    EXPECT_TRUE(Has(trace, "]KnBusChildPdo::OnDispatchPnp "));
    EXPECT_EQ(0u, wdmsim::LiveIrpCount());
  }
}

TEST_F(ChildStatesTest, FailuresAndUnsupportedRequestsAreTracedWithTheChildsName) {
  KnTraceSetPrefix("fw");
  mChild->startResult = STATUS_DEVICE_CONFIGURATION_ERROR;
  Send(IRP_MJ_PNP, IRP_MN_START_DEVICE);
  Send(IRP_MJ_PNP, IRP_MN_QUERY_PNP_DEVICE_STATE);
  std::string trace = TakeTrace();
  EXPECT_TRUE(Has(trace, "fw:KN\\CHILD KnBusChildPdo::OnDispatchPnp: OnPnpStartDevice failed, stat=0xC0000182"));
  EXPECT_TRUE(Has(trace, "fw:KN\\CHILD KnBusChildPdo::OnDispatchPnp: unsupported MinorFunction: 0x14, pass thru\n"));
  EXPECT_TRUE(Has(trace, "fw]KnBusChildPdo::OnDispatchPnp 0x80000005 (STATUS_BUFFER_OVERFLOW)\n"));
}

TEST_F(ChildStatesTest, CapabilitiesAnswerIsTheRecordedStructure) {
  DEVICE_CAPABILITIES& recorded = mChild->Capabilities();
  recorded.Address = 0xA11CE;
  recorded.UINumber = 0x5EED;
  recorded.DeviceState[PowerSystemHibernate] = PowerDeviceD2;
  recorded.D3Latency = 0x7777;
  DEVICE_CAPABILITIES answer;
  memset(&answer, 0xCC, sizeof(answer));
  auto withAnswer = [&answer](IO_STACK_LOCATION& stack) { stack.Parameters.DeviceCapabilities.Capabilities = &answer; };
  EXPECT_EQ(STATUS_SUCCESS, Send(IRP_MJ_PNP, IRP_MN_QUERY_CAPABILITIES, withAnswer).Status);
  EXPECT_EQ(0, memcmp(&recorded, &answer, sizeof(answer)));
  std::string trace = TakeTrace();
  EXPECT_TRUE(Has(trace, ":KN\\CHILD KnBusChildPdo::OnDispatchPnp: DEVICE_CAPABILITIES:\n"));
  EXPECT_TRUE(Has(trace, "  Address:000A11CE  UINumber:00005EED\n"));
  EXPECT_TRUE(Has(trace, "  DeviceState[PowerSystemHibernate] = PowerDeviceD2\n"));

  EXPECT_EQ(STATUS_UNSUCCESSFUL, Send(IRP_MJ_PNP, IRP_MN_QUERY_CAPABILITIES).Status);
  EXPECT_TRUE(Has(TakeTrace(), "KnBusChildPdo::OnDispatchPnp: FATAL, IRP_MN_QUERY_CAPABILITIES cap==NULL\n"));
}

TEST_F(ChildStatesTest, PowerRequestsAreAnsweredAtOnceEachStartingTheNextOnce) {
  struct PowerCase {
    UCHAR minor;
    NTSTATUS status;
  };
  const PowerCase cases[] = {
      {IRP_MN_WAIT_WAKE, STATUS_SUCCESS},
      {IRP_MN_SET_POWER, STATUS_SUCCESS},
      {IRP_MN_QUERY_POWER, STATUS_SUCCESS},
      {IRP_MN_POWER_SEQUENCE, kPreset},
      {0x07, kPreset},
  };
  wdmsim::TakePoStartNextPowerIrpCalls();
  int locks = mJournal.lockCalls;
  for (const PowerCase& c : cases) {
    SCOPED_TRACE(int(c.minor));
    auto toD2 = [](IO_STACK_LOCATION& stack) {
      stack.Parameters.Power.Type = DevicePowerState;
      stack.Parameters.Power.State.DeviceState = PowerDeviceD2;
      stack.Parameters.Power.ShutdownType = PowerActionSleep;
    };
    EXPECT_EQ(c.status, Send(IRP_MJ_POWER, c.minor, toD2).Status);
    EXPECT_EQ(1u, wdmsim::TakePoStartNextPowerIrpCalls().size());
  }
  EXPECT_EQ(locks, mJournal.lockCalls);
  EXPECT_EQ(KnPnPState_Added, mChild->GetPnPState());
  std::string trace = TakeTrace();
  EXPECT_TRUE(Has(trace, "[KnBusChildPdo::OnDispatchPower: IRP=0x"));
  EXPECT_TRUE(Has(trace, "  Mn=0x02 'IRP_MN_SET_POWER' DevicePowerState PowerDeviceD2 Action:PowerActionSleep "
                         "IRQL=0\n"));
  EXPECT_TRUE(Has(trace, ":KN\\CHILD ]KnBusChildPdo::OnDispatchPower 0x00000000 (STATUS_SUCCESS)\n"));
}

// Removal: a child the bus still reports survives its remove request and can start again;
// one that a relations answer left out unlinks itself, completes the request and is
// destroyed with everything it stored.
class ChildRemovalTest : public kntest::BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    AddPresentChildren(mChildren, 2, &mDestructions);
    for (TestChildPdo* child : mChildren) {
      child->AddStrHardwareId(L"KN\\CHILD", NonPagedPool);
      child->SetStrDeviceDescription(L"Child", PagedPool);
    }
    gKnTraceMask = 0x7;
    KnTraceSetPrefix("fw");
    TakeTrace();
  }
  IO_STATUS_BLOCK Send(TestChildPdo* child, UCHAR minor) { return wdmsim::SendPnpIrp(child->GetDeviceObject(), minor); }
  std::vector<KnBusChildPdo*> Listed() const {
    std::vector<KnBusChildPdo*> listed;
    for (KnBusChildPdo* child = mBus->GetFirstChild(); child != NULL; child = mBus->GetNextChild(child)) {
      listed.push_back(child);
    }
    return listed;
  }

  TestChildPdo* mChildren[2] = {};
  int mDestructions = 0;
};

TEST_F(ChildRemovalTest, ChildStillReportedSurvivesRemovalAndStartsAgain) {
  EXPECT_EQ(STATUS_SUCCESS, Send(mChildren[0], IRP_MN_START_DEVICE).Status);
  EXPECT_EQ(STATUS_SUCCESS, Send(mChildren[0], IRP_MN_REMOVE_DEVICE).Status);
  EXPECT_EQ(0, mDestructions);
  EXPECT_TRUE(wdmsim::IsLiveDeviceObject(mChildren[0]->GetDeviceObject()));
  EXPECT_EQ(KnPnPState_Removed, mChildren[0]->GetPnPState());
  EXPECT_EQ((std::vector<KnBusChildPdo*>{mChildren[0], mChildren[1]}), Listed());
  // Its remove lock still lets requests in.
  EXPECT_EQ(STATUS_SUCCESS, Send(mChildren[0], IRP_MN_START_DEVICE).Status);
  EXPECT_EQ(KnPnPState_Started, mChildren[0]->GetPnPState());
  EXPECT_EQ(std::string::npos, TakeTrace().find("deleting KnBusChildPdo"));
}

TEST_F(ChildRemovalTest, ChildReportedMissingIsUnlinkedAndDestroyedOnItsRemoval) {
  size_t objects = wdmsim::LivePoolBlockCount(gKnDefaultPoolTag);
  size_t strings = wdmsim::LivePoolBlockCount(KN_CHILD_STRING_TAG);
  mChildren[0]->SetPresence(KnChildPresence_Absent);
  // Absent alone is not enough: only a relations answer that left it out makes it go.
  EXPECT_EQ(STATUS_SUCCESS, Send(mChildren[0], IRP_MN_REMOVE_DEVICE).Status);
  EXPECT_EQ(0, mDestructions);
  IO_STATUS_BLOCK relations = QueryRelations(BusRelations);
  EXPECT_EQ(std::vector<PDEVICE_OBJECT>{mChildren[1]->GetDeviceObject()}, kntest::TakeRelations(relations.Information));
  ASSERT_EQ(KnChildPresence_ReportedMissing, mChildren[0]->GetPresence());
  TakeTrace();

  PDEVICE_OBJECT gone = mChildren[0]->GetDeviceObject();
  EXPECT_EQ(STATUS_SUCCESS, Send(mChildren[0], IRP_MN_REMOVE_DEVICE).Status);
  EXPECT_EQ(1, mDestructions);
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(gone));
  EXPECT_EQ(std::vector<KnBusChildPdo*>{mChildren[1]}, Listed());
  EXPECT_EQ(objects - 1, wdmsim::LivePoolBlockCount(gKnDefaultPoolTag));
  EXPECT_EQ(strings - 2, wdmsim::LivePoolBlockCount(KN_CHILD_STRING_TAG));
  EXPECT_EQ(0, mJournal.lockDepth);
  // The hook ran under the lock; the exit trace comes after the object is gone.
  std::string trace = TakeTrace();
  size_t deleting = trace.find("fw:KN\\CHILD KnBusChildPdo::OnDispatchPnp: deleting KnBusChildPdo instance ");
  size_t destroyed = trace.find("fw:KnBusChildPdo::~KnBusChildPdo: instance ");
  size_t deviceGone = trace.find("fw:KnDeviceObject::DeleteDevice: deleting DeviceObject ");
  size_t exit = trace.find("fw]KnBusChildPdo::OnDispatchPnp 0x00000000 (STATUS_SUCCESS)\n", deleting);
  ASSERT_NE(std::string::npos, deleting) << trace;
  EXPECT_LT(deleting, destroyed);
  EXPECT_LT(destroyed, deviceGone);
  EXPECT_LT(deviceGone, exit);
  EXPECT_EQ(std::string::npos, trace.find("ASSERTION FAILED"));
  mChildren[0] = nullptr;
}

TEST_F(ChildRemovalTest, ChildAlreadyOutOfTheListIsDestroyedWithoutTouchingTheList) {
  mBus->RemoveChild(mChildren[1]);
  mChildren[1]->SetPresence(KnChildPresence_ReportedMissing);
  EXPECT_EQ(STATUS_SUCCESS, Send(mChildren[1], IRP_MN_REMOVE_DEVICE).Status);
  EXPECT_EQ(1, mDestructions);
  EXPECT_EQ(std::vector<KnBusChildPdo*>{mChildren[0]}, Listed());
}

}  // namespace
