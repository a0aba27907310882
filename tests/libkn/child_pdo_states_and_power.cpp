// The bus child's PnP states per (state, request) with the hook that runs under the
// parent's lock and the status it completes with; its capabilities answer; and its power
// answers, each with exactly one PoStartNextPowerIrp and no lock.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>
#include <vector>

#include <wdmsim/io.h>
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

}  // namespace
