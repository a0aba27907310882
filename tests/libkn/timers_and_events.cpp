// KnTimer and KnEvent in virtual time: one-shot timers that fire exactly at their due
// time, the stored period versus an explicit one, and waits that poll or time out.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <atomic>
#include <string>

#include <wdmsim/debugout.h>
#include <wdmsim/kernel.h>

#include "knevent.h"
#include "knsystemtime.h"
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

class TimerTest : public testing::Test {
 protected:
  wdmsim::Kernel mKernel;
  DpcRecord mRecord;
  KnTimer mTimer;
};

TEST_F(TimerTest, FiresOnceAtExactlyTheStoredDueTime) {
  mTimer.Init(DpcRecord::Routine, &mRecord, 250);
  int64_t start = mKernel.SystemTime();
  EXPECT_FALSE(mTimer.Start());

  mKernel.Advance(249);
  EXPECT_EQ(0, mRecord.fired);
  mKernel.Advance(1);
  EXPECT_EQ(1, mRecord.fired);
  EXPECT_EQ(start + 250 * kTicksPerMs, mRecord.time);
  EXPECT_EQ(DISPATCH_LEVEL, mRecord.irql);
  EXPECT_EQ(&mRecord, mRecord.context);

  // One-shot: nothing re-arms it.
  mKernel.Advance(1000);
  EXPECT_EQ(1, mRecord.fired);
  EXPECT_FALSE(mTimer.Cancel());
}

TEST_F(TimerTest, ExplicitTimeDoesNotChangeTheStoredPeriod) {
  mTimer.Init(DpcRecord::Routine, &mRecord, 100);
  int64_t start = mKernel.SystemTime();
  EXPECT_FALSE(mTimer.Start(500));
  mKernel.Advance(499);
  EXPECT_EQ(0, mRecord.fired);
  mKernel.Advance(1);
  EXPECT_EQ(1, mRecord.fired);
  EXPECT_EQ(start + 500 * kTicksPerMs, mRecord.time);

  // Start() still uses the 100 ms given to Init.
  start = mKernel.SystemTime();
  mTimer.Start();
  mKernel.Advance(99);
  EXPECT_EQ(1, mRecord.fired);
  mKernel.Advance(1);
  EXPECT_EQ(2, mRecord.fired);
  EXPECT_EQ(start + 100 * kTicksPerMs, mRecord.time);
}

TEST_F(TimerTest, RestartReArmsAndCancelDisarms) {
  mTimer.Init(DpcRecord::Routine, &mRecord, 100);
  int64_t start = mKernel.SystemTime();
  EXPECT_FALSE(mTimer.Start());
  EXPECT_TRUE(mTimer.Start(300));  // already armed: re-armed, not doubled
  mKernel.Advance(299);
  EXPECT_EQ(0, mRecord.fired);
  mKernel.Advance(1);
  EXPECT_EQ(1, mRecord.fired);
  EXPECT_EQ(start + 300 * kTicksPerMs, mRecord.time);

  mTimer.Start();
  mKernel.Advance(50);
  EXPECT_TRUE(mTimer.Cancel());
  mKernel.Advance(100);
  EXPECT_EQ(1, mRecord.fired);
  EXPECT_FALSE(mTimer.Cancel());
}

TEST_F(TimerTest, LongPeriodsDoNotOverflowTheConversion) {
  // 3,000,000 ms is 3e10 units of 100 ns: far beyond 32 bits.
  mTimer.Init(DpcRecord::Routine, &mRecord, 3000000);
  int64_t start = mKernel.SystemTime();
  mTimer.Start();
  mKernel.Advance(2999999);
  EXPECT_EQ(0, mRecord.fired);
  mKernel.Advance(1);
  EXPECT_EQ(1, mRecord.fired);
  EXPECT_EQ(start + 3000000 * kTicksPerMs, mRecord.time);
}

class EventTest : public testing::Test {
 protected:
  wdmsim::Kernel mKernel;
};

TEST_F(EventTest, WaitOfZeroPollsWithoutBlocking) {
  KnEvent event;  // notification, not signalled
  int64_t start = mKernel.SystemTime();
  EXPECT_EQ(STATUS_TIMEOUT, event.Wait(0));
  EXPECT_EQ(start, mKernel.SystemTime());

  EXPECT_EQ(0, event.Set());
  EXPECT_EQ(STATUS_SUCCESS, event.Wait(0));
  EXPECT_EQ(STATUS_SUCCESS, event.Wait(0));  // manual reset: stays signalled
  EXPECT_EQ(1, event.ReadState());
  EXPECT_EQ(1, event.Reset());
  EXPECT_EQ(0, event.ReadState());
  event.Set();
  event.Clear();
  EXPECT_EQ(STATUS_TIMEOUT, event.Wait(0));

  // A poll is allowed at DISPATCH_LEVEL, where a real wait is not.
  KIRQL old;
  KeRaiseIrql(DISPATCH_LEVEL, &old);
  EXPECT_EQ(STATUS_TIMEOUT, event.Wait(0));
  KeLowerIrql(old);
}

TEST_F(EventTest, SynchronizationEventResetsOnASatisfiedWait) {
  KnEvent event(SynchronizationEvent, TRUE);
  EXPECT_EQ(STATUS_SUCCESS, event.Wait(0));
  EXPECT_EQ(STATUS_TIMEOUT, event.Wait(0));
  EXPECT_EQ(0, event.Set());
  EXPECT_EQ(STATUS_SUCCESS, event.WaitInfinite());
  EXPECT_EQ(0, event.ReadState());
}

TEST_F(EventTest, TimedWaitEndsAtItsTimeoutOrWhenSignalledJustBefore) {
  struct Case {
    ULONG timeoutMs;
    ULONG signalAfterMs;
    NTSTATUS status;
    ULONG returnsAfterMs;
  } cases[] = {
      {300, 299, STATUS_SUCCESS, 299},
      {300, 301, STATUS_TIMEOUT, 300},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.signalAfterMs);
    KnEvent event;
    DpcRecord record;
    record.eventToSet = &event;
    KnTimer timer;
    timer.Init(DpcRecord::Routine, &record, c.signalAfterMs);
    int64_t start = mKernel.SystemTime();
    timer.Start();
    EXPECT_EQ(c.status, event.Wait(c.timeoutMs));
    EXPECT_EQ(start + c.returnsAfterMs * kTicksPerMs, mKernel.SystemTime());
    mKernel.Advance(5);  // let a late timer fire before its event goes away
    timer.Cancel();
  }
}

TEST_F(EventTest, InfiniteWaitLastsAsLongAsItTakes) {
  KnEvent event;
  DpcRecord record;
  record.eventToSet = &event;
  KnTimer timer;
  timer.Init(DpcRecord::Routine, &record, 5000);
  int64_t start = mKernel.SystemTime();
  timer.Start();
  EXPECT_EQ(STATUS_SUCCESS, event.WaitInfinite());
  EXPECT_EQ(start + 5000 * kTicksPerMs, mKernel.SystemTime());
}

TEST(SystemTimeTest, MillisecondsFollowTheSystemTime) {
  wdmsim::Kernel kernel;
  EXPECT_EQ(kernel.SystemTime() / 10000, KnGetSystemTimeMs());
  LONGLONG before = KnGetSystemTimeMs();
  kernel.Advance(1234);
  EXPECT_EQ(before + 1234, KnGetSystemTimeMs());
}

}  // namespace
