// IoCancelIrp: the Cancel flag, the cancel routine under the cancel spin lock, and a
// cancel-safe queue racing cancellation against completion.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "io_test_driver.h"

namespace {

// The queue discipline drivers use: whoever exchanges the cancel routine back to NULL first
// owns the IRP.
class CancelSafeQueue {
 public:
  CancelSafeQueue() {
    KeInitializeSpinLock(&mLock);
    InitializeListHead(&mList);
  }

  void Insert(PIRP irp) {
    IoMarkIrpPending(irp);
    irp->Tail.Overlay.DriverContext[0] = this;
    KIRQL irql;
    KeAcquireSpinLock(&mLock, &irql);
    IoSetCancelRoutine(irp, OnCancel);
    if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) {
      KeReleaseSpinLock(&mLock, irql);
      Complete(irp, STATUS_CANCELLED);
      return;
    }
    InsertTailList(&mList, &irp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&mLock, irql);
  }

  PIRP Remove() {
    KIRQL irql;
    KeAcquireSpinLock(&mLock, &irql);
    while (!IsListEmpty(&mList)) {
      PIRP irp = CONTAINING_RECORD(RemoveHeadList(&mList), IRP, Tail.Overlay.ListEntry);
      if (IoSetCancelRoutine(irp, nullptr) != nullptr) {
        KeReleaseSpinLock(&mLock, irql);
        return irp;
      }
      // Its cancel routine is running and will unlink nothing but itself.
      InitializeListHead(&irp->Tail.Overlay.ListEntry);
    }
    KeReleaseSpinLock(&mLock, irql);
    return nullptr;
  }

  static void Complete(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
  }

 private:
  static void NTAPI OnCancel(PDEVICE_OBJECT, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    auto queue = static_cast<CancelSafeQueue*>(irp->Tail.Overlay.DriverContext[0]);
    KIRQL irql;
    KeAcquireSpinLock(&queue->mLock, &irql);
    RemoveEntryList(&irp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&queue->mLock, irql);
    Complete(irp, STATUS_CANCELLED);
  }

  KSPIN_LOCK mLock;
  LIST_ENTRY mList;
};

using Cancel = iotest::IoTest;

// What a cancel routine saw when it ran.
struct CancelSeen {
  int calls = 0;
  PDEVICE_OBJECT device = nullptr;
  KIRQL irqlInside = 0;
  KIRQL cancelIrql = 0;
  bool routineCleared = false;
  bool cancelFlag = false;
};
CancelSeen gSeen;

void NTAPI RecordingCancel(PDEVICE_OBJECT device, PIRP irp) {
  ++gSeen.calls;
  gSeen.device = device;
  gSeen.irqlInside = KeGetCurrentIrql();
  gSeen.cancelIrql = irp->CancelIrql;
  gSeen.routineCleared = irp->CancelRoutine == nullptr;
  gSeen.cancelFlag = irp->Cancel != FALSE;
  IoReleaseCancelSpinLock(irp->CancelIrql);
  CancelSafeQueue::Complete(irp, STATUS_CANCELLED);
}

TEST_F(Cancel, RoutineRunsUnderTheCancelLockAndReleasesItAtCancelIrql) {
  PDEVICE_OBJECT device = driver.AddDevice([](PDEVICE_OBJECT, PIRP irp) {
    IoMarkIrpPending(irp);
    IoSetCancelRoutine(irp, RecordingCancel);
    return STATUS_PENDING;
  });
  for (KIRQL caller : {KIRQL(PASSIVE_LEVEL), KIRQL(DISPATCH_LEVEL)}) {
    SCOPED_TRACE(caller);
    gSeen = CancelSeen();
    PIRP irp = OwnIrp(device);
    EXPECT_EQ(IoCallDriver(device, irp), STATUS_PENDING);
    KIRQL old;
    KeRaiseIrql(caller, &old);
    EXPECT_TRUE(IoCancelIrp(irp));
    EXPECT_EQ(KeGetCurrentIrql(), caller);
    KeLowerIrql(old);
    EXPECT_EQ(gSeen.calls, 1);
    EXPECT_EQ(gSeen.device, device);
    EXPECT_EQ(gSeen.irqlInside, DISPATCH_LEVEL);
    EXPECT_EQ(gSeen.cancelIrql, caller);
    EXPECT_TRUE(gSeen.routineCleared);
    EXPECT_TRUE(gSeen.cancelFlag);
    EXPECT_EQ(irp->IoStatus.Status, STATUS_CANCELLED);
    // Back with its owner: nothing left to cancel.
    EXPECT_FALSE(IoCancelIrp(irp));
    EXPECT_EQ(gSeen.calls, 1);
    IoFreeIrp(irp);
  }
}

TEST_F(Cancel, CancelBeforeAnyRoutineIsSetOnlyMarksTheIrp) {
  CancelSafeQueue queue;
  PIRP held = nullptr;
  PDEVICE_OBJECT device = driver.AddDevice([&](PDEVICE_OBJECT, PIRP irp) {
    IoMarkIrpPending(irp);
    held = irp;  // not queued yet: no cancel routine
    return STATUS_PENDING;
  });
  PIRP irp = OwnIrp(device);
  IoCallDriver(device, irp);
  EXPECT_FALSE(IoCancelIrp(irp));
  EXPECT_TRUE(irp->Cancel);
  EXPECT_EQ(takeBacks, 0);
  // The queue sees the flag when it publishes its routine and completes the IRP itself.
  queue.Insert(held);
  EXPECT_EQ(takeBacks, 1);
  EXPECT_EQ(irp->IoStatus.Status, STATUS_CANCELLED);
  EXPECT_EQ(queue.Remove(), nullptr);
  IoFreeIrp(irp);
}

TEST_F(Cancel, QueuedIrpIsCancelledOutOfTheQueue) {
  CancelSafeQueue queue;
  PDEVICE_OBJECT device = driver.AddDevice([&](PDEVICE_OBJECT, PIRP irp) {
    queue.Insert(irp);
    return STATUS_PENDING;
  });
  PIRP first = OwnIrp(device);
  PIRP second = OwnIrp(device);
  IoCallDriver(device, first);
  IoCallDriver(device, second);
  EXPECT_TRUE(IoCancelIrp(first));
  EXPECT_EQ(takeBacks, 1);
  EXPECT_EQ(first->IoStatus.Status, STATUS_CANCELLED);
  EXPECT_EQ(queue.Remove(), second);
  EXPECT_EQ(queue.Remove(), nullptr);
  CancelSafeQueue::Complete(second, STATUS_SUCCESS);
  EXPECT_EQ(takeBacks, 2);
  EXPECT_EQ(second->IoStatus.Status, STATUS_SUCCESS);
  IoFreeIrp(first);
  IoFreeIrp(second);
}

// Every round queues one IRP, then cancels it while a system thread dequeues and completes
// it: exactly one of them must finish it (a second completion is reported as a violation
// and fails the test), and its status says who.
TEST_F(Cancel, CancelAgainstCompletionRace) {
  constexpr int kRounds = 2000;
  CancelSafeQueue queue;
  PDEVICE_OBJECT device = driver.AddDevice([&](PDEVICE_OBJECT, PIRP irp) {
    queue.Insert(irp);
    return STATUS_PENDING;
  });
  std::atomic<int> round{0};
  std::atomic<int> finishedRound{-1};
  std::atomic<bool> stop{false};
  std::atomic<int> completedByWorker{0};
  iotest::SystemThread worker([&] {
    int seen = 0;
    while (!stop.load()) {
      int now = round.load();
      if (now == seen) {
        std::this_thread::yield();
        continue;
      }
      seen = now;
      if (PIRP irp = queue.Remove()) {
        CancelSafeQueue::Complete(irp, STATUS_SUCCESS);
        completedByWorker++;
      }
      finishedRound.store(seen);
    }
  });
  int succeeded = 0;
  for (int i = 1; i <= kRounds; ++i) {
    PIRP irp = OwnIrp(device);
    ASSERT_EQ(IoCallDriver(device, irp), STATUS_PENDING);
    round.store(i);
    if (i % 2) std::this_thread::yield();
    IoCancelIrp(irp);
    while (finishedRound.load() != i || takeBacks.load() < i) std::this_thread::yield();
    NTSTATUS status = irp->IoStatus.Status;
    ASSERT_TRUE(status == STATUS_SUCCESS || status == STATUS_CANCELLED) << std::hex << status;
    succeeded += status == STATUS_SUCCESS;
    IoFreeIrp(irp);
  }
  stop = true;
  worker.Join();
  EXPECT_EQ(takeBacks.load(), kRounds);
  EXPECT_EQ(completedByWorker.load(), succeeded);
  EXPECT_EQ(queue.Remove(), nullptr);
}

}  // namespace
