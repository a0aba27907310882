// The FDO's PnP state machine: for each (state, request) which side of the stack sees the
// request first, which hook runs under the lock, the state afterwards and the status;
// failures below and refusals of the hooks; the capabilities that are recorded; and the
// removal on real threads, which neither reaches the lower stack nor deletes the object
// while a routed request still runs inside it or a power work item is still scheduled,
// refusing requests that arrive meanwhile.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>
#include <vector>

#include <wdmsim/io.h>

#include "knevent.h"
#include "knnametables.h"
#include "knsystemthread.h"
#include "kntrace.h"
#include "knutils.h"
#include "support_pnp_devices.h"
#include "support_test_driver.h"

namespace {

using kntest::Has;
using kntest::HasIf;
using kntest::PnpJournal;
using kntest::TestFdo;
using Events = std::vector<std::string>;

class FdoPnpTest : public kntest::FdoStackTest<TestFdo> {
 protected:
  void SetUp() override {
    FdoStackTest::SetUp();
    gKnTraceMask = 0x7;
    TakeTrace();
  }
  IO_STATUS_BLOCK Send(UCHAR minor) { return wdmsim::SendPnpIrp(mPdo, minor); }
  IO_STATUS_BLOCK Remove() { return Send(IRP_MN_REMOVE_DEVICE); }
  void Enter(KnPnPState previous, KnPnPState state) {
    mFdo->SetPnPState(previous);
    mFdo->SetPnPState(state);
  }
};

struct Transition {
  KnPnPState previous;
  KnPnPState state;
  UCHAR minor;
  Events order;  // hooks and what reached the PDO, in the order they happened
  KnPnPState after;
  NTSTATUS status;
  bool sourceStateAsserted;
};

const char kPdoStart[] = "pdo IRP_MN_START_DEVICE";

const Transition kTransitions[] = {
    {KnPnPState_Initializing, KnPnPState_Added, IRP_MN_START_DEVICE, {kPdoStart, "hook OnPnpStartDevice"},
     KnPnPState_Started, STATUS_SUCCESS, false},
    {KnPnPState_StopPending, KnPnPState_Stopped, IRP_MN_START_DEVICE, {kPdoStart, "hook OnPnpStartDevice"},
     KnPnPState_Started, STATUS_SUCCESS, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_QUERY_STOP_DEVICE,
     {"hook OnPnpQueryStopDevice", "pdo IRP_MN_QUERY_STOP_DEVICE"}, KnPnPState_StopPending, STATUS_SUCCESS, false},
    {KnPnPState_Started, KnPnPState_StopPending, IRP_MN_CANCEL_STOP_DEVICE,
     {"pdo IRP_MN_CANCEL_STOP_DEVICE", "hook OnPnpCancelStopDevice"}, KnPnPState_Started, STATUS_SUCCESS, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_CANCEL_STOP_DEVICE, {"pdo IRP_MN_CANCEL_STOP_DEVICE"},
     KnPnPState_Started, STATUS_SUCCESS, false},
    {KnPnPState_Started, KnPnPState_StopPending, IRP_MN_STOP_DEVICE,
     {"hook OnPnpStopDevice", "pdo IRP_MN_STOP_DEVICE"}, KnPnPState_Stopped, STATUS_SUCCESS, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_QUERY_REMOVE_DEVICE,
     {"hook OnPnpQueryRemoveDevice", "pdo IRP_MN_QUERY_REMOVE_DEVICE"}, KnPnPState_RemovePending, STATUS_SUCCESS,
     false},
    {KnPnPState_Started, KnPnPState_RemovePending, IRP_MN_CANCEL_REMOVE_DEVICE,
     {"pdo IRP_MN_CANCEL_REMOVE_DEVICE", "hook OnPnpCancelRemoveDevice"}, KnPnPState_Started, STATUS_SUCCESS, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_CANCEL_REMOVE_DEVICE, {"pdo IRP_MN_CANCEL_REMOVE_DEVICE"},
     KnPnPState_Started, STATUS_SUCCESS, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_SURPRISE_REMOVAL,
     {"hook OnPnpSurpriseRemoval", "pdo IRP_MN_SURPRISE_REMOVAL"}, KnPnPState_SurpriseRemoved, STATUS_SUCCESS, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_QUERY_DEVICE_RELATIONS,
     {"hook OnPnPQueryDeviceRelations", "pdo IRP_MN_QUERY_DEVICE_RELATIONS"}, KnPnPState_Started,
     STATUS_NOT_SUPPORTED, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_QUERY_CAPABILITIES, {}, KnPnPState_Started, STATUS_UNSUCCESSFUL,
     false},  // no capabilities structure: neither hook nor PDO
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_QUERY_INTERFACE, {"pdo IRP_MN_QUERY_INTERFACE"},
     KnPnPState_Started, STATUS_NOT_SUPPORTED, false},
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_QUERY_PNP_DEVICE_STATE, {"pdo IRP_MN_QUERY_PNP_DEVICE_STATE"},
     KnPnPState_Started, STATUS_NOT_SUPPORTED, false},
    {KnPnPState_Added, KnPnPState_Started, 0x18, {"pdo IRP_MN_QUERY_LEGACY_BUS_INFORMATION"}, KnPnPState_Started,
     STATUS_NOT_SUPPORTED, false},
    // Wrong source states are reported and handled all the same.
    {KnPnPState_Added, KnPnPState_Started, IRP_MN_STOP_DEVICE, {"hook OnPnpStopDevice", "pdo IRP_MN_STOP_DEVICE"},
     KnPnPState_Stopped, STATUS_SUCCESS, true},
    {KnPnPState_Added, KnPnPState_RemovePending, IRP_MN_START_DEVICE, {kPdoStart, "hook OnPnpStartDevice"},
     KnPnPState_Started, STATUS_SUCCESS, true},
    {KnPnPState_Added, KnPnPState_Stopped, IRP_MN_QUERY_REMOVE_DEVICE,
     {"hook OnPnpQueryRemoveDevice", "pdo IRP_MN_QUERY_REMOVE_DEVICE"}, KnPnPState_RemovePending, STATUS_SUCCESS,
     true},
};

TEST_F(FdoPnpTest, EachStateAndRequestGoesDownAndThroughItsHookInItsOrder) {
  for (const Transition& t : kTransitions) {
    SCOPED_TRACE(std::string(KnPnPStateName(t.state)) + " + " + KnPnpMinorFunctionName(t.minor));
    Enter(t.previous, t.state);
    mJournal.Take();
    IO_STATUS_BLOCK result = Send(t.minor);
    EXPECT_EQ(t.status, result.Status);
    EXPECT_EQ(t.order, mJournal.Take());
    EXPECT_EQ(t.after, mFdo->GetPnPState());
    EXPECT_FALSE(mJournal.downWhileLocked);
    EXPECT_EQ(0, mJournal.lockDepth);
    std::string trace = TakeTrace();
    EXPECT_TRUE(HasIf(t.sourceStateAsserted, trace, "ASSERTION FAILED"));
    EXPECT_TRUE(Has(trace, ":[KnFdo::OnDispatchPnp IRP "));
    EXPECT_EQ(0u, wdmsim::LiveIrpCount());
  }
}

TEST_F(FdoPnpTest, EntryAndExitTracesNameTheRequestTheStateAndTheStatus) {
  KnTraceSetPrefix("fw");
  Enter(KnPnPState_Initializing, KnPnPState_Added);
  Send(IRP_MN_QUERY_PNP_DEVICE_STATE);
  std::string trace = TakeTrace();
  EXPECT_TRUE(Has(trace, " 0x14 'IRP_MN_QUERY_PNP_DEVICE_STATE' at state 'KnPnPDeviceObject::KnPnPState_Added'\n"));
  EXPECT_TRUE(Has(trace, "fw:KnFdo::OnDispatchPnp: passing thru unsupported MinorFct 0x14 "
                         "(IRP_MN_QUERY_PNP_DEVICE_STATE)\n"));
  EXPECT_TRUE(Has(trace, "fw:]KnFdo::OnDispatchPnp 0xC00000BB (STATUS_NOT_SUPPORTED)\n"));
}

TEST_F(FdoPnpTest, StartFailuresBelowOrInTheHook) {
  // The lower stack refuses: no hook, no state change, but the device counts as in D0.
  Enter(KnPnPState_Initializing, KnPnPState_Added);
  mJournal.pdoFailures[IRP_MN_START_DEVICE] = STATUS_DEVICE_NOT_READY;
  EXPECT_EQ(STATUS_DEVICE_NOT_READY, Send(IRP_MN_START_DEVICE).Status);
  EXPECT_EQ(Events{kPdoStart}, mJournal.Take());
  EXPECT_EQ(KnPnPState_Added, mFdo->GetPnPState());
  EXPECT_EQ(PowerDeviceD0, mFdo->PowerState());
  EXPECT_TRUE(Has(TakeTrace(), "KnFdo::OnDispatchPnp: pass down IRP_MN_START_DEVICE failed, stat=0xC00000A3"));
  mJournal.pdoFailures.clear();

  // An informational status from the hook is no success: Stopped, and it completes the IRP.
  const NTSTATUS informational = STATUS_OBJECT_NAME_EXISTS;  // 0x40000000
  mFdo->startResult = informational;
  EXPECT_EQ(informational, Send(IRP_MN_START_DEVICE).Status);
  EXPECT_EQ(KnPnPState_Stopped, mFdo->GetPnPState());
  EXPECT_TRUE(Has(TakeTrace(), "KnFdo::OnDispatchPnp: OnPnpStartDevice failed, stat=0x40000000"));

  // A start after the failed one is allowed.
  mFdo->startResult = STATUS_SUCCESS;
  EXPECT_EQ(STATUS_SUCCESS, Send(IRP_MN_START_DEVICE).Status);
  EXPECT_EQ(KnPnPState_Started, mFdo->GetPnPState());
}

TEST_F(FdoPnpTest, RefusedQueriesStayLocalAndTheirCancelRestoresStarted) {
  struct Query {
    UCHAR query;
    UCHAR cancel;
    NTSTATUS TestFdo::*result;
    KnPnPState pending;
    const char* failedTrace;
  };
  const Query queries[] = {
      {IRP_MN_QUERY_STOP_DEVICE, IRP_MN_CANCEL_STOP_DEVICE, &TestFdo::queryStopResult, KnPnPState_StopPending,
       "KnFdo::OnDispatchPnp: OnPnpQueryStopDevice failed, stat=0x80000011"},
      {IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_CANCEL_REMOVE_DEVICE, &TestFdo::queryRemoveResult,
       KnPnPState_RemovePending, "KnFdo::OnDispatchPnp: OnPnpQueryRemoveDevice failed, stat=0x80000011"},
  };
  for (const Query& q : queries) {
    SCOPED_TRACE(KnPnpMinorFunctionName(q.query));
    Enter(KnPnPState_Added, KnPnPState_Started);
    mFdo->*q.result = STATUS_DEVICE_BUSY;
    mJournal.Take();
    EXPECT_EQ(STATUS_DEVICE_BUSY, Send(q.query).Status);
    EXPECT_EQ(1u, mJournal.Take().size());  // the hook only: the PDO never saw the query
    EXPECT_EQ(q.pending, mFdo->GetPnPState());
    EXPECT_TRUE(Has(TakeTrace(), q.failedTrace));
    mFdo->*q.result = STATUS_SUCCESS;

    // The lower stack failing the cancel is fatal for the cancel, not for the state.
    mJournal.pdoFailures[q.cancel] = STATUS_INVALID_DEVICE_STATE;
    EXPECT_EQ(STATUS_INVALID_DEVICE_STATE, Send(q.cancel).Status);
    EXPECT_EQ(q.pending, mFdo->GetPnPState());
    EXPECT_TRUE(Has(TakeTrace(), "KnFdo::OnDispatchPnp: FATAL: pass down IRP_MN_CANCEL_"));
    mJournal.pdoFailures.clear();

    EXPECT_EQ(STATUS_SUCCESS, Send(q.cancel).Status);
    EXPECT_EQ(KnPnPState_Started, mFdo->GetPnPState());
  }
}

TEST_F(FdoPnpTest, CapabilitiesAreRecordedAsTheHookAdjustedTheLowerAnswer) {
  Enter(KnPnPState_Initializing, KnPnPState_Added);
  DEVICE_CAPABILITIES caps = {};
  caps.Size = sizeof(caps);
  caps.Version = 1;
  caps.UINumber = 7;
  mFdo->uiNumberOnComplete = 0xFFFFFFFF;
  auto withCaps = [&caps](IO_STACK_LOCATION& stack) { stack.Parameters.DeviceCapabilities.Capabilities = &caps; };

  EXPECT_EQ(STATUS_SUCCESS, wdmsim::SendPnpIrp(mPdo, IRP_MN_QUERY_CAPABILITIES, withCaps).Status);
  EXPECT_EQ((Events{"hook OnPnpQueryCapabilities", "pdo IRP_MN_QUERY_CAPABILITIES",
                    "hook OnPnpQueryCapabilitiesComplete"}),
            mJournal.Take());
  // The raw PDO's answer (D0 in S0, D3 below, removable) with the hook's UI number.
  EXPECT_EQ(0xFFFFFFFFu, caps.UINumber);
  EXPECT_EQ(PowerDeviceD3, caps.DeviceState[PowerSystemSleeping3]);
  EXPECT_EQ(0, memcmp(&caps, &mFdo->RecordedCapabilities(), sizeof(caps)));
  std::string trace = TakeTrace();
  EXPECT_TRUE(Has(trace, "KnFdo::OnDispatchPnp: DEVICE_CAPABILITIES:\n  FLAGS:"));
  EXPECT_TRUE(Has(trace, "  Address:00000000  UINumber:FFFFFFFF\n"));
  EXPECT_TRUE(Has(trace, "  SystemWake:PowerSystemUnspecified  DeviceWake:PowerDeviceUnspecified\n"));
  EXPECT_TRUE(Has(trace, "  DeviceState[PowerSystemWorking] = PowerDeviceD0\n"));
  EXPECT_TRUE(Has(trace, "  DeviceState[PowerSystemShutdown] = PowerDeviceD3\n"));

  // A failure below leaves the record alone and skips the completion hook.
  DEVICE_CAPABILITIES recorded = mFdo->RecordedCapabilities();
  mJournal.pdoFailures[IRP_MN_QUERY_CAPABILITIES] = STATUS_DEVICE_NOT_CONNECTED;
  caps.UINumber = 3;
  EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, wdmsim::SendPnpIrp(mPdo, IRP_MN_QUERY_CAPABILITIES, withCaps).Status);
  EXPECT_EQ((Events{"hook OnPnpQueryCapabilities", "pdo IRP_MN_QUERY_CAPABILITIES"}), mJournal.Take());
  EXPECT_EQ(0, memcmp(&recorded, &mFdo->RecordedCapabilities(), sizeof(recorded)));
  EXPECT_TRUE(Has(TakeTrace(), "KnFdo::OnDispatchPnp: pass down IRP_MN_QUERY_CAPABILITIES failed, stat=0xC000009D"));

  // Without a structure nothing runs.
  EXPECT_EQ(STATUS_UNSUCCESSFUL, Send(IRP_MN_QUERY_CAPABILITIES).Status);
  EXPECT_TRUE(mJournal.Take().empty());
  EXPECT_TRUE(Has(TakeTrace(), "KnFdo::OnDispatchPnp: FATAL, IRP_MN_QUERY_CAPABILITIES Add cap==NULL\n"));
}

TEST_F(FdoPnpTest, RemovalRunsTheHookBeforeTheStackAndDeletesTheObjectBeforeTheExitTrace) {
  KnTraceSetPrefix("fw");
  Enter(KnPnPState_Added, KnPnPState_Started);
  PDEVICE_OBJECT fdo = mFdo->GetDeviceObject();
  IO_STATUS_BLOCK result = Remove();
  EXPECT_EQ(STATUS_SUCCESS, result.Status);
  EXPECT_EQ((Events{"hook OnPnpRemoveDevice", "pdo IRP_MN_REMOVE_DEVICE"}), mJournal.Take());
  EXPECT_TRUE(mDestroyed);
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(fdo));
  EXPECT_EQ(nullptr, mPdo->AttachedDevice);
  std::string trace = TakeTrace();
  size_t deleting = trace.find("fw:KnFdo::OnDispatchPnp: deleting KnFdo instance ");
  size_t deviceGone = trace.find("fw:KnDeviceObject::DeleteDevice: deleting DeviceObject ");
  size_t exit = trace.find("fw:]KnFdo::OnDispatchPnp ");
  ASSERT_NE(std::string::npos, deleting) << trace;
  EXPECT_LT(deleting, deviceGone);
  EXPECT_LT(deviceGone, exit);
  EXPECT_FALSE(Has(trace, "ASSERTION FAILED"));
}

// An FDO whose device-control handler waits at a gate before it answers.
class GatedFdo : public TestFdo {
 public:
  GatedFdo(PnpJournal* journal, bool* destroyed) : TestFdo(journal, destroyed), mGate(NotificationEvent, FALSE) {}
  NTSTATUS OnDispatchDeviceControl(PIRP irp) override {
    mEntered.Set();
    mGate.WaitInfinite();
    mJournal->Hook("device control answered");
    return CompleteRequest(irp, STATUS_SUCCESS, 0);
  }
  KnEvent mEntered;
  KnEvent mGate;
};

struct Sender {
  PDEVICE_OBJECT pdo;
  UCHAR major;
  UCHAR minor;
  NTSTATUS status = STATUS_PENDING;
  KnEvent done;
};

void NTAPI SendRequest(PVOID context) {
  Sender* sender = static_cast<Sender*>(context);
  sender->status = wdmsim::SendIrpToStack(sender->pdo, sender->major, sender->minor, nullptr, STATUS_NOT_SUPPORTED).Status;
  sender->done.Set();
}

void NTAPI WaitAtGate(PDEVICE_OBJECT, PVOID gate, PVOID journal) {
  static_cast<KnEvent*>(gate)->WaitInfinite();
  static_cast<PnpJournal*>(journal)->Hook("work item done");
}

const ULONG kLongMs = 60000;

class FdoRemovalTest : public kntest::FdoStackTest<GatedFdo> {
 protected:
  void SetUp() override {
    FdoStackTest::SetUp();
    mFdo->SetPnPState(KnPnPState_Started);
  }
  // Starts the removal on its own thread and shows that it is held up: the object still
  // exists and the lower stack has not seen the request.
  void StartHeldRemoval(KnSystemThread* thread, Sender* removal) {
    removal->pdo = mPdo;
    removal->major = IRP_MJ_PNP;
    removal->minor = IRP_MN_REMOVE_DEVICE;
    ASSERT_EQ(STATUS_SUCCESS, thread->CreateSystemThread(SendRequest, removal));
    EXPECT_EQ(STATUS_TIMEOUT, removal->done.Wait(kLongMs));
    EXPECT_FALSE(mDestroyed);
    EXPECT_EQ(std::vector<std::string>{"hook OnPnpRemoveDevice"}, mJournal.Take());
  }
  void FinishRemoval(KnSystemThread* thread, Sender* removal, const char* lastHolder) {
    EXPECT_EQ(STATUS_SUCCESS, removal->done.WaitInfinite());
    EXPECT_EQ(STATUS_SUCCESS, thread->WaitForThreadToTerminate(-1));
    EXPECT_EQ(STATUS_SUCCESS, removal->status);
    EXPECT_EQ((std::vector<std::string>{lastHolder, "pdo IRP_MN_REMOVE_DEVICE"}), mJournal.Take());
    EXPECT_TRUE(mDestroyed);
  }
};

TEST_F(FdoRemovalTest, RemovalWaitsForTheRequestStillInsideAndRefusesNewOnes) {
  Sender request;
  request.pdo = mPdo;
  request.major = IRP_MJ_DEVICE_CONTROL;
  request.minor = 0;
  KnSystemThread requestThread;
  ASSERT_EQ(STATUS_SUCCESS, requestThread.CreateSystemThread(SendRequest, &request));
  mFdo->mEntered.WaitInfinite();
  GatedFdo* fdo = mFdo;

  KnSystemThread removalThread;
  Sender removal;
  StartHeldRemoval(&removalThread, &removal);
  // Removal has begun: a new request is turned away before it reaches the object.
  EXPECT_EQ(STATUS_DELETE_PENDING,
            wdmsim::SendIrpToStack(mPdo, IRP_MJ_DEVICE_CONTROL, 0, nullptr, STATUS_NOT_SUPPORTED).Status);

  fdo->mGate.Set();
  FinishRemoval(&removalThread, &removal, "hook device control answered");
  EXPECT_EQ(STATUS_SUCCESS, requestThread.WaitForThreadToTerminate(-1));
  EXPECT_EQ(STATUS_SUCCESS, request.status);
}

TEST_F(FdoRemovalTest, RemovalWaitsForThePowerWorkItems) {
  KnEvent gate(NotificationEvent, FALSE);
  ASSERT_TRUE(mFdo->PowerWorkItem().ScheduleWorkItem(mFdo->GetDeviceObject(), WaitAtGate, &gate, &mJournal));
  KnSystemThread removalThread;
  Sender removal;
  StartHeldRemoval(&removalThread, &removal);
  gate.Set();
  FinishRemoval(&removalThread, &removal, "hook work item done");
}

}  // namespace
