// KnIrpQueue: order of removal, and every way a queued IRP can be cancelled - by its
// sender before or after it was queued, while a remover already holds it, or through
// CancelAllIrps - each ending in exactly one completion.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>
#include <vector>

#include <wdmsim/debugout.h>
#include <wdmsim/kernel.h>

#include "irp_queue_test_irp.h"
#include "kntrace.h"

namespace {

using irp_queue_test::Cancelled;
using irp_queue_test::Completed;
using irp_queue_test::Entry;
using irp_queue_test::EventLog;
using irp_queue_test::RecordingQueue;
using irp_queue_test::TestIrp;

class IrpQueueTest : public testing::Test {
 protected:
  void SetUp() override {
    KnTraceSetPrefix("kntest");
    gKnTraceMask = 3;
    wdmsim::TakeDebugOutput();
  }

  // Plays the I/O manager half-way through IoCancelIrp: the Cancel flag is set and the
  // cancel routine has been taken out of the IRP, but not called yet.
  static PDRIVER_CANCEL BeginCancel(PIRP irp) {
    irp->Cancel = TRUE;
    return IoSetCancelRoutine(irp, nullptr);
  }
  // ... and the rest of it: the routine is entered holding the cancel spin lock.
  static void FinishCancel(PDRIVER_CANCEL routine, PIRP irp) {
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    irp->CancelIrql = irql;
    routine(nullptr, irp);
  }

  wdmsim::Kernel mKernel;
  EventLog mLog;
  RecordingQueue mQueue{&mLog};
};

TEST_F(IrpQueueTest, RemovesOldestFirstAndHeadInsertionsNext) {
  TestIrp a(&mLog), b(&mLog), c(&mLog);
  EXPECT_TRUE(mQueue.IsEmpty());
  EXPECT_EQ(STATUS_PENDING, mQueue.InsertTail(a.irp()));
  EXPECT_EQ(STATUS_PENDING, mQueue.InsertIrp(b.irp(), FALSE));
  EXPECT_EQ(STATUS_PENDING, mQueue.InsertIrp(c.irp(), TRUE));
  EXPECT_TRUE(a.markedPending());
  EXPECT_TRUE(c.markedPending());
  EXPECT_FALSE(mQueue.IsEmpty());

  for (TestIrp* expected : {&c, &a, &b}) {
    PIRP removed = mQueue.RemoveIrp();
    ASSERT_EQ(expected->irp(), removed);
    // Handed out: no longer cancellable through the queue.
    EXPECT_EQ(nullptr, removed->CancelRoutine);
  }
  EXPECT_EQ(nullptr, mQueue.RemoveIrp());
  EXPECT_TRUE(mQueue.IsEmpty());

  // The queue never completes what it handed out; the owner does, once.
  EXPECT_TRUE(mLog.Take().empty());
  for (TestIrp* irp : {&a, &b, &c}) irp->Complete(STATUS_SUCCESS);
  EXPECT_EQ(1, a.completions());
}

TEST_F(IrpQueueTest, CancelOfAQueuedIrpTellsTheQueueThenCompletesIt) {
  TestIrp a(&mLog), b(&mLog);
  mQueue.InsertTail(a.irp());
  mQueue.InsertTail(b.irp());

  EXPECT_TRUE(IoCancelIrp(a.irp()));
  EXPECT_EQ((std::vector<Entry>{Cancelled(a.irp()), Completed(a.irp())}), mLog.Take());
  EXPECT_EQ(STATUS_CANCELLED, a.status());
  EXPECT_EQ(0u, a.information());
  EXPECT_TRUE(a.pendingReturned());

  EXPECT_EQ(b.irp(), mQueue.RemoveIrp());
  EXPECT_EQ(nullptr, mQueue.RemoveIrp());
  // Cancelling a handed-out IRP finds no routine: the owner's completion stands.
  EXPECT_FALSE(IoCancelIrp(b.irp()));
  b.Complete(STATUS_SUCCESS);
  EXPECT_EQ((std::vector<Entry>{Completed(b.irp())}), mLog.Take());
  EXPECT_EQ(1, a.completions());
}

TEST_F(IrpQueueTest, IrpCancelledBeforeInsertIsCompletedAtOnceWithoutIrpCancelled) {
  TestIrp a(&mLog);
  EXPECT_FALSE(IoCancelIrp(a.irp()));  // nothing to call yet
  EXPECT_EQ(STATUS_PENDING, mQueue.InsertTail(a.irp()));

  EXPECT_EQ((std::vector<Entry>{Completed(a.irp())}), mLog.Take());
  EXPECT_EQ(STATUS_CANCELLED, a.status());
  EXPECT_EQ(0u, a.information());
  EXPECT_TRUE(a.pendingReturned());
  EXPECT_TRUE(mQueue.IsEmpty());
  EXPECT_EQ(nullptr, mQueue.RemoveIrp());
}

TEST_F(IrpQueueTest, CancelAllIrpsOfOneFileObjectKeepsTheOthersInOrder) {
  FILE_OBJECT mine = {}, other = {};
  TestIrp a(&mLog, &mine), b(&mLog, &other), c(&mLog, &mine), d(&mLog, &other), e(&mLog, &mine);
  for (TestIrp* irp : {&a, &b, &c, &d, &e}) mQueue.InsertTail(irp->irp());

  mQueue.CancelAllIrps(&mine);
  // Completed in queue order, and not reported as cancellations by their sender.
  EXPECT_EQ((std::vector<Entry>{Completed(a.irp()), Completed(c.irp()), Completed(e.irp())}), mLog.Take());
  for (TestIrp* irp : {&a, &c, &e}) {
    EXPECT_EQ(STATUS_CANCELLED, irp->status());
    EXPECT_EQ(0u, irp->information());
  }
  EXPECT_EQ(0, b.completions());

  // A file object with nothing queued changes nothing.
  FILE_OBJECT unrelated = {};
  mQueue.CancelAllIrps(&unrelated);
  EXPECT_TRUE(mLog.Take().empty());

  // The rest is still cancellable by its sender, and in order.
  TestIrp f(&mLog, &other);
  mQueue.InsertIrp(f.irp(), TRUE);
  EXPECT_EQ(f.irp(), mQueue.RemoveIrp());
  EXPECT_EQ(b.irp(), mQueue.RemoveIrp());
  EXPECT_TRUE(IoCancelIrp(d.irp()));
  EXPECT_EQ((std::vector<Entry>{Cancelled(d.irp()), Completed(d.irp())}), mLog.Take());
  EXPECT_TRUE(mQueue.IsEmpty());
  f.Complete(STATUS_SUCCESS);
  b.Complete(STATUS_SUCCESS);
}

TEST_F(IrpQueueTest, CancelAllIrpsWithoutFileObjectTakesEverything) {
  FILE_OBJECT fileObject = {};
  TestIrp a(&mLog), b(&mLog, &fileObject);
  mQueue.InsertTail(a.irp());
  mQueue.InsertTail(b.irp());
  mQueue.CancelAllIrps(nullptr);
  EXPECT_EQ((std::vector<Entry>{Completed(a.irp()), Completed(b.irp())}), mLog.Take());
  EXPECT_TRUE(mQueue.IsEmpty());
  // Their cancel routines were withdrawn before completion.
  EXPECT_FALSE(IoCancelIrp(a.irp()));
}

TEST_F(IrpQueueTest, RemoverThatLosesToARunningCancelLeavesTheIrpToTheCancelRoutine) {
  TestIrp a(&mLog), b(&mLog);
  mQueue.InsertTail(a.irp());
  mQueue.InsertTail(b.irp());

  PDRIVER_CANCEL routine = BeginCancel(a.irp());
  ASSERT_NE(nullptr, routine);
  // The remover skips the IRP whose cancellation is under way and hands out the next.
  EXPECT_EQ(b.irp(), mQueue.RemoveIrp());
  EXPECT_EQ(nullptr, mQueue.RemoveIrp());
  EXPECT_TRUE(mQueue.IsEmpty());
  EXPECT_TRUE(mLog.Take().empty());

  FinishCancel(routine, a.irp());
  EXPECT_EQ((std::vector<Entry>{Cancelled(a.irp()), Completed(a.irp())}), mLog.Take());
  EXPECT_EQ(STATUS_CANCELLED, a.status());
  b.Complete(STATUS_SUCCESS);
}

TEST_F(IrpQueueTest, CancelAllIrpsThatLosesToARunningCancelLeavesTheIrpToTheCancelRoutine) {
  TestIrp a(&mLog), b(&mLog);
  mQueue.InsertTail(a.irp());
  mQueue.InsertTail(b.irp());

  PDRIVER_CANCEL routine = BeginCancel(b.irp());
  mQueue.CancelAllIrps(nullptr);
  EXPECT_EQ((std::vector<Entry>{Completed(a.irp())}), mLog.Take());
  EXPECT_TRUE(mQueue.IsEmpty());

  FinishCancel(routine, b.irp());
  EXPECT_EQ((std::vector<Entry>{Cancelled(b.irp()), Completed(b.irp())}), mLog.Take());
}

TEST_F(IrpQueueTest, IrpBeingCancelledCountsAsQueuedUntilItsCancelRoutineUnlinksIt) {
  TestIrp a(&mLog);
  mQueue.InsertTail(a.irp());
  PDRIVER_CANCEL routine = BeginCancel(a.irp());
  // No remover moved it aside: it is still on the queue proper.
  EXPECT_FALSE(mQueue.IsEmpty());
  FinishCancel(routine, a.irp());
  EXPECT_EQ((std::vector<Entry>{Cancelled(a.irp()), Completed(a.irp())}), mLog.Take());
  EXPECT_TRUE(mQueue.IsEmpty());
}

TEST_F(IrpQueueTest, IrpThatAlreadyCarriesACancelRoutineIsReportedAndQueuedAnyway) {
  TestIrp a(&mLog);
  IoSetCancelRoutine(a.irp(), [](PDEVICE_OBJECT, PIRP) {});
  EXPECT_EQ(STATUS_PENDING, mQueue.InsertTail(a.irp()));
  std::string out = wdmsim::TakeDebugOutput();
  EXPECT_NE(std::string::npos, out.find("kntest:ASSERTION FAILED: (OldCancel==NULL)")) << out;

  EXPECT_EQ(a.irp(), mQueue.RemoveIrp());
  a.Complete(STATUS_SUCCESS);
  EXPECT_EQ(1, a.completions());
}

}  // namespace
