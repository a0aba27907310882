// KnIrpQueue: order of removal, and every way a queued IRP can be cancelled - by its
// sender before or after it was queued, while a remover already holds it, or through
// CancelAllIrps - each ending in exactly one completion.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>
#include <vector>

#include "irp_queue_test_irp.h"

namespace {

using irp_queue_test::Cancelled;
using irp_queue_test::Completed;
using irp_queue_test::Entry;
using irp_queue_test::TestIrp;

class IrpQueueTest : public irp_queue_test::QueueTest {
 protected:
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

TEST_F(IrpQueueTest, CancelAllIrpsOfOneFileObjectKeepsTheOthersInOrderAndWithoutOneTakesEverything) {
  FILE_OBJECT mine = {}, other = {}, unrelated = {};
  TestIrp a(&mLog, &mine), b(&mLog, &other), c(&mLog, &mine), d(&mLog, &other), e(&mLog, &mine), f(&mLog);
  for (TestIrp* irp : {&a, &b, &c, &d, &e}) mQueue.InsertTail(irp->irp());

  mQueue.CancelAllIrps(&mine);
  // Completed in queue order, and not reported as cancellations by their sender.
  EXPECT_EQ((std::vector<Entry>{Completed(a.irp()), Completed(c.irp()), Completed(e.irp())}), mLog.Take());
  for (TestIrp* irp : {&a, &c, &e}) {
    EXPECT_EQ(STATUS_CANCELLED, irp->status());
    EXPECT_EQ(0u, irp->information());
  }
  // A file object with nothing queued changes nothing.
  mQueue.CancelAllIrps(&unrelated);
  EXPECT_TRUE(mLog.Take().empty());

  // The rest is still in order, and cancellable by its sender.
  mQueue.InsertIrp(f.irp(), TRUE);
  EXPECT_EQ(f.irp(), mQueue.RemoveIrp());
  mQueue.InsertIrp(f.irp(), TRUE);
  EXPECT_TRUE(IoCancelIrp(d.irp()));
  EXPECT_EQ((std::vector<Entry>{Cancelled(d.irp()), Completed(d.irp())}), mLog.Take());

  mQueue.CancelAllIrps(nullptr);
  EXPECT_EQ((std::vector<Entry>{Completed(f.irp()), Completed(b.irp())}), mLog.Take());
  EXPECT_TRUE(mQueue.IsEmpty());
  // Their cancel routines were withdrawn before completion.
  EXPECT_FALSE(IoCancelIrp(b.irp()));
  EXPECT_EQ(1, f.completions());
}

// The sender's IoCancelIrp has taken the cancel routine but not yet run it when a remover,
// CancelAllIrps or nobody comes along: the IRP under cancellation stays on the queue proper
// (the queue is not empty), is skipped by the others, and its routine completes it exactly once.
TEST_F(IrpQueueTest, IrpWhoseCancelIsUnderWayIsLeftToTheCancelRoutine) {
  enum class Meanwhile { Nobody, Remover, CancelAll };
  for (Meanwhile meanwhile : {Meanwhile::Nobody, Meanwhile::Remover, Meanwhile::CancelAll}) {
    SCOPED_TRACE(int(meanwhile));
    TestIrp a(&mLog), b(&mLog);
    mQueue.InsertTail(a.irp());
    if (meanwhile == Meanwhile::Nobody) b.Complete(STATUS_SUCCESS);  // never queued
    if (meanwhile != Meanwhile::Nobody) mQueue.InsertTail(b.irp());
    mLog.Take();
    PDRIVER_CANCEL routine = BeginCancel(a.irp());
    ASSERT_NE(nullptr, routine);
    if (meanwhile == Meanwhile::Nobody) {
      EXPECT_FALSE(mQueue.IsEmpty());
    } else if (meanwhile == Meanwhile::Remover) {
      EXPECT_EQ(b.irp(), mQueue.RemoveIrp());
      EXPECT_EQ(nullptr, mQueue.RemoveIrp());
      EXPECT_TRUE(mQueue.IsEmpty());
      EXPECT_TRUE(mLog.Take().empty());
      b.Complete(STATUS_SUCCESS);
      mLog.Take();
    } else {
      mQueue.CancelAllIrps(nullptr);
      EXPECT_EQ((std::vector<Entry>{Completed(b.irp())}), mLog.Take());
      EXPECT_TRUE(mQueue.IsEmpty());
    }
    FinishCancel(routine, a.irp());
    EXPECT_EQ((std::vector<Entry>{Cancelled(a.irp()), Completed(a.irp())}), mLog.Take());
    EXPECT_EQ(STATUS_CANCELLED, a.status());
    EXPECT_TRUE(mQueue.IsEmpty());
  }
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
