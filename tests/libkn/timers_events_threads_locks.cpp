// The framework's kernel objects in virtual time: one-shot timers that fire exactly at their
// due time, events that poll or time out, system threads (one per object, a timed-out wait
// keeps the thread, SetPriority acts on the caller), spin locks with their IRQL handling and
// misuse reports, and the recursive mutex.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <atomic>
#include <string>

#include <wdmsim/debugout.h>
#include <wdmsim/kernel.h>

#include "expect_violation.h"
#include "knevent.h"
#include "knmutex.h"
#include "knspinlock.h"
#include "knsystemthread.h"
#include "kntimer.h"
#include "kntrace.h"

namespace {

const int64_t kTicksPerMs = 10000;

// What the timer's DPC saw, each time it ran.
struct DpcRecord {
  std::atomic<int> fired{0};
  std::atomic<int64_t> time{0};  // system time of the last run
  std::atomic<int> irql{-1};
  std::atomic<PVOID> context{nullptr};
  KnEvent* eventToSet = nullptr;

  static void Routine(PKDPC, PVOID context, PVOID, PVOID) {
    DpcRecord* self = static_cast<DpcRecord*>(context);
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    self->time = now.QuadPart;
    self->irql = KeGetCurrentIrql();
    self->context = context;
    self->fired++;
    if (self->eventToSet != nullptr) self->eventToSet->Set(0, FALSE);
  }
};

class KernelObjectTest : public testing::Test {
 protected:
  void SetUp() override {
    KnTraceSetPrefix("kntest");
    gKnTraceMask = 3;
    wdmsim::TakeDebugOutput();
  }
  // Advances to one tick before dueMs from now, then to it: the timer fires only then.
  void ExpectFiresAfter(const DpcRecord& record, ULONG dueMs) {
    const int fired = record.fired;
    const int64_t now = mKernel.SystemTime();
    mKernel.Advance(dueMs - 1);
    EXPECT_EQ(fired, record.fired);
    mKernel.Advance(1);
    EXPECT_EQ(fired + 1, record.fired);
    EXPECT_EQ(now + dueMs * kTicksPerMs, record.time);
  }

  wdmsim::Kernel mKernel;
};

TEST_F(KernelObjectTest, TimerFiresOnceAtItsDueTimeAndKeepsTheStoredPeriod) {
  struct Case {
    ULONG periodMs;    // given to Init
    ULONG explicitMs;  // given to Start, 0 for none
  } cases[] = {{250, 0}, {100, 500}, {3000000, 0}};  // 3e10 units of 100 ns: far beyond 32 bits
  for (const Case& c : cases) {
    SCOPED_TRACE(c.periodMs);
    DpcRecord record;
    KnTimer timer;
    timer.Init(DpcRecord::Routine, &record, c.periodMs);
    EXPECT_FALSE(c.explicitMs ? timer.Start(c.explicitMs) : timer.Start());
    ExpectFiresAfter(record, c.explicitMs ? c.explicitMs : c.periodMs);
    EXPECT_EQ(DISPATCH_LEVEL, record.irql);
    EXPECT_EQ(&record, record.context);
    // One-shot: nothing re-arms it.
    mKernel.Advance(1000);
    EXPECT_EQ(1, record.fired);
    EXPECT_FALSE(timer.Cancel());
    // Start() uses the period given to Init, whatever an explicit start used.
    timer.Start();
    ExpectFiresAfter(record, c.periodMs);
  }
}

TEST_F(KernelObjectTest, TimerRestartReArmsAndCancelDisarms) {
  DpcRecord record;
  KnTimer timer;
  timer.Init(DpcRecord::Routine, &record, 100);
  EXPECT_FALSE(timer.Start());
  EXPECT_TRUE(timer.Start(300));  // already armed: re-armed, not doubled
  ExpectFiresAfter(record, 300);

  timer.Start();
  mKernel.Advance(50);
  EXPECT_TRUE(timer.Cancel());
  mKernel.Advance(100);
  EXPECT_EQ(1, record.fired);
  EXPECT_FALSE(timer.Cancel());
}

TEST_F(KernelObjectTest, EventStatesAndPollsWithoutBlocking) {
  KnEvent event;  // notification, not signalled
  int64_t start = mKernel.SystemTime();
  EXPECT_EQ(STATUS_TIMEOUT, event.Wait(0));
  EXPECT_EQ(start, mKernel.SystemTime());
  EXPECT_EQ(0, event.Set());
  EXPECT_EQ(STATUS_SUCCESS, event.Wait(0));
  EXPECT_EQ(STATUS_SUCCESS, event.Wait(0));  // manual reset: stays signalled
  EXPECT_EQ(1, event.Reset());
  EXPECT_EQ(0, event.ReadState());
  event.Set();
  event.Clear();
  // A poll is allowed at DISPATCH_LEVEL, where a real wait is not.
  KIRQL old;
  KeRaiseIrql(DISPATCH_LEVEL, &old);
  EXPECT_EQ(STATUS_TIMEOUT, event.Wait(0));
  KeLowerIrql(old);

  KnEvent synchronization(SynchronizationEvent, TRUE);
  EXPECT_EQ(STATUS_SUCCESS, synchronization.Wait(0));
  EXPECT_EQ(STATUS_TIMEOUT, synchronization.Wait(0));  // a satisfied wait resets it
  EXPECT_EQ(0, synchronization.Set());
  EXPECT_EQ(STATUS_SUCCESS, synchronization.WaitInfinite());
  EXPECT_EQ(0, synchronization.ReadState());
}

TEST_F(KernelObjectTest, TimedWaitEndsAtItsTimeoutOrWhenSignalledJustBefore) {
  const ULONG kInfinite = 0xFFFFFFFF;
  struct Case {
    ULONG timeoutMs;
    ULONG signalAfterMs;
    NTSTATUS status;
    ULONG returnsAfterMs;
  } cases[] = {
      {300, 299, STATUS_SUCCESS, 299}, {300, 301, STATUS_TIMEOUT, 300}, {kInfinite, 5000, STATUS_SUCCESS, 5000}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.signalAfterMs);
    KnEvent event;
    DpcRecord record;
    record.eventToSet = &event;
    KnTimer timer;
    timer.Init(DpcRecord::Routine, &record, c.signalAfterMs);
    int64_t start = mKernel.SystemTime();
    timer.Start();
    EXPECT_EQ(c.status, c.timeoutMs == kInfinite ? event.WaitInfinite() : event.Wait(c.timeoutMs));
    EXPECT_EQ(start + c.returnsAfterMs * kTicksPerMs, mKernel.SystemTime());
    mKernel.Advance(5);  // let a late timer fire before its event goes away
    timer.Cancel();
  }
}

struct Work {
  KnEvent release;  // the routine returns once this is set
  std::atomic<int> runs{0};
  std::atomic<PVOID> context{nullptr};
  std::atomic<PKTHREAD> thread{nullptr};
  std::atomic<KPRIORITY> priority{-1};
  KnSystemThread* self = nullptr;  // SetPriority is called through the object, from inside

  static void Routine(PVOID context) {
    Work* work = static_cast<Work*>(context);
    work->context = context;
    work->thread = KeGetCurrentThread();
    if (work->self != nullptr) {
      work->self->SetPriority(16);
      work->priority = KeQueryPriorityThread(KeGetCurrentThread());
    }
    work->runs++;
    work->release.WaitInfinite();
  }
};

TEST_F(KernelObjectTest, SystemThreadRunsTheRoutineWithItsContextAndSetsItsOwnPriority) {
  KnSystemThread thread;
  KPRIORITY mine = KeQueryPriorityThread(KeGetCurrentThread());
  ASSERT_NE(16, mine);
  Work work;
  work.self = &thread;
  work.release.Set();
  ASSERT_EQ(STATUS_SUCCESS, thread.CreateSystemThread(Work::Routine, &work));
  EXPECT_EQ(STATUS_SUCCESS, thread.WaitForThreadToTerminate(-1));
  EXPECT_EQ(1, work.runs);
  EXPECT_EQ(&work, work.context);
  EXPECT_NE(KeGetCurrentThread(), work.thread.load());
  EXPECT_EQ(16, work.priority);
  EXPECT_EQ(mine, KeQueryPriorityThread(KeGetCurrentThread()));

  // Empty again: a wait returns at once, and a new thread can be made.
  int64_t now = mKernel.SystemTime();
  EXPECT_EQ(STATUS_SUCCESS, thread.WaitForThreadToTerminate(100));
  EXPECT_EQ(now, mKernel.SystemTime());
  ASSERT_EQ(STATUS_SUCCESS, thread.CreateSystemThread(Work::Routine, &work));
  EXPECT_EQ(STATUS_SUCCESS, thread.WaitForThreadToTerminate(-1));
  EXPECT_EQ(2, work.runs);
  EXPECT_EQ("", wdmsim::TakeDebugOutput());
}

TEST_F(KernelObjectTest, SystemThreadStillRunningAfterATimedOutWaitRefusesASecondOne) {
  KnSystemThread thread;
  Work first, second;
  second.release.Set();
  ASSERT_EQ(STATUS_SUCCESS, thread.CreateSystemThread(Work::Routine, &first));
  int64_t start = mKernel.SystemTime();
  EXPECT_EQ(STATUS_TIMEOUT, thread.WaitForThreadToTerminate(50));
  EXPECT_EQ(start + 50 * kTicksPerMs, mKernel.SystemTime());
  EXPECT_EQ(
      "kntest:KnSystemThread::WaitForThreadToTerminate: KeWaitForSingleObject failed, st=0x00000102 "
      "(STATUS_TIMEOUT)\n",
      wdmsim::TakeDebugOutput());
  EXPECT_EQ(STATUS_TIMEOUT, thread.WaitForThreadToTerminate(0));  // polls
  EXPECT_EQ(start + 50 * kTicksPerMs, mKernel.SystemTime());
  wdmsim::TakeDebugOutput();

  EXPECT_EQ(STATUS_UNSUCCESSFUL, thread.CreateSystemThread(Work::Routine, &second));
  EXPECT_EQ("kntest:KnSystemThread::CreateSystemThread: FATAL: thread already created\n", wdmsim::TakeDebugOutput());
  first.release.Set();
  EXPECT_EQ(STATUS_SUCCESS, thread.WaitForThreadToTerminate(-1));
  EXPECT_EQ(1, first.runs);
  EXPECT_EQ(&first, first.context);  // the running thread kept its own context
  EXPECT_EQ(0, second.runs);
}

TEST_F(KernelObjectTest, SpinLockRaisesToDispatchAndGivesBackTheCallersIrql) {
  KnSpinLock lock;
  KIRQL old = lock.Lock();
  EXPECT_EQ(PASSIVE_LEVEL, old);
  EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
  lock.Unlock(old);
  EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());

  // Taken at DISPATCH_LEVEL (from a DPC, say) it stays there.
  KIRQL passive;
  KeRaiseIrql(DISPATCH_LEVEL, &passive);
  old = lock.Lock();
  EXPECT_EQ(DISPATCH_LEVEL, old);
  lock.Unlock(old);
  EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
  KeLowerIrql(passive);
  EXPECT_EQ("", wdmsim::TakeDebugOutput());
}

TEST_F(KernelObjectTest, SpinLockReportsAnUnlockWithoutLockAtEitherIrql) {
  KnSpinLock lock;
  {
    wdmsim_test::ExpectViolations expected;
    KIRQL passive;
    KeRaiseIrql(DISPATCH_LEVEL, &passive);
    lock.Unlock(passive);
    EXPECT_EQ(1, expected.Total());  // the kernel sees a release of a free lock, too
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) KeLowerIrql(passive);
  }
  EXPECT_EQ("KnSpinLock::Unlock:FATAL: mLockCounter=0\n", wdmsim::TakeDebugOutput());

  // The count stays off by one: the next rightful holder is reported as well.
  KIRQL old = lock.Lock();
  lock.Unlock(old);
  EXPECT_EQ("KnSpinLock::Lock:FATAL: mLockCounter=-1\nKnSpinLock::Unlock:FATAL: mLockCounter=0\n",
            wdmsim::TakeDebugOutput());

  KnSpinLock other;
  wdmsim_test::ExpectViolations expected;
  other.Unlock(PASSIVE_LEVEL);
  EXPECT_NE(std::string::npos, wdmsim::TakeDebugOutput().find("kntest:ASSERTION FAILED: (IRQL_EQ_DISPATCH())"));
}

TEST_F(KernelObjectTest, SpinLockExcludesOtherThreads) {
  struct Shared {
    KnSpinLock lock;
    long counter = 0;  // deliberately not atomic: only the lock protects it
    bool overlap = false;
    bool inside = false;
  } shared;
  const int kThreads = 4, kRounds = 20000;
  auto worker = [](PVOID context) {
    Shared* s = static_cast<Shared*>(context);
    for (int i = 0; i < kRounds; i++) {
      KIRQL old = s->lock.Lock();
      if (s->inside) s->overlap = true;
      s->inside = true;
      s->counter++;
      s->inside = false;
      s->lock.Unlock(old);
    }
  };
  KnSystemThread threads[kThreads];
  for (KnSystemThread& t : threads) ASSERT_EQ(STATUS_SUCCESS, t.CreateSystemThread(worker, &shared));
  for (KnSystemThread& t : threads) ASSERT_EQ(STATUS_SUCCESS, t.WaitForThreadToTerminate(-1));
  EXPECT_EQ(kThreads * kRounds, shared.counter);
  EXPECT_FALSE(shared.overlap);
  EXPECT_EQ("", wdmsim::TakeDebugOutput());
}

TEST_F(KernelObjectTest, MutexIsRecursiveForItsOwnerAndExcludesOthersUntilFullyReleased) {
  struct Shared {
    KnMutex mutex;
    std::atomic<bool> acquired{false};
  } shared;
  EXPECT_EQ(STATUS_SUCCESS, shared.mutex.Lock());
  EXPECT_EQ(STATUS_SUCCESS, shared.mutex.Lock());
  shared.mutex.Unlock();

  KnSystemThread other;
  ASSERT_EQ(STATUS_SUCCESS, other.CreateSystemThread(
                                [](PVOID context) {
                                  Shared* s = static_cast<Shared*>(context);
                                  KnMutexGuard guard(&s->mutex);
                                  s->acquired = true;
                                },
                                &shared));
  // Still held once by this thread: the other one waits.
  EXPECT_EQ(STATUS_TIMEOUT, other.WaitForThreadToTerminate(10));
  EXPECT_FALSE(shared.acquired);
  shared.mutex.Unlock();
  EXPECT_EQ(STATUS_SUCCESS, other.WaitForThreadToTerminate(-1));
  EXPECT_TRUE(shared.acquired);

  // The guard let go when the other thread's scope ended: the mutex is free again
  // (not abandoned by a thread that ended holding it).
  EXPECT_EQ(STATUS_SUCCESS, shared.mutex.Lock());
  shared.mutex.Unlock();
  wdmsim::TakeDebugOutput();
}

}  // namespace
