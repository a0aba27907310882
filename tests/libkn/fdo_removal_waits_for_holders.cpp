// The FDO's removal on real threads: it does not reach the lower stack, nor delete the
// object, while a routed request still runs inside the object or a power work item is
// still scheduled; requests that arrive meanwhile are refused.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <wdmsim/io.h>

#include "knevent.h"
#include "knsystemthread.h"
#include "knutils.h"
#include "support_pnp_devices.h"
#include "support_test_driver.h"

namespace {

using kntest::PnpJournal;
using kntest::TestFdo;

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
