// KnSpinLock and KnMutex: IRQL handling, the traces of a misused spin lock, mutual
// exclusion between threads, and the recursion of the mutex.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <atomic>
#include <string>

#include <wdmsim/debugout.h>
#include <wdmsim/kernel.h>

#include "expect_violation.h"
#include "knmutex.h"
#include "knspinlock.h"
#include "knsystemthread.h"
#include "kntrace.h"

namespace {

class LockTest : public testing::Test {
 protected:
  void SetUp() override {
    KnTraceSetPrefix("kntest");
    gKnTraceMask = 3;
    wdmsim::TakeDebugOutput();
  }

  wdmsim::Kernel mKernel;
};

TEST_F(LockTest, SpinLockRaisesToDispatchAndGivesBackTheCallersIrql) {
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

TEST_F(LockTest, SpinLockReportsAnUnlockWithoutLockAndTheCountItLeavesBehind) {
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
  EXPECT_EQ(
      "KnSpinLock::Lock:FATAL: mLockCounter=-1\n"
      "KnSpinLock::Unlock:FATAL: mLockCounter=0\n",
      wdmsim::TakeDebugOutput());
}

TEST_F(LockTest, SpinLockUnlockAtPassiveLevelIsAnIrqlAssertion) {
  KnSpinLock lock;
  wdmsim_test::ExpectViolations expected;
  lock.Unlock(PASSIVE_LEVEL);
  std::string out = wdmsim::TakeDebugOutput();
  EXPECT_NE(std::string::npos, out.find("kntest:ASSERTION FAILED: (IRQL_EQ_DISPATCH())")) << out;
}

TEST_F(LockTest, SpinLockExcludesOtherThreads) {
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

TEST_F(LockTest, MutexIsRecursiveForItsOwnerAndExcludesOthersUntilFullyReleased) {
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
