// Virtual time: it moves only when every kernel thread is blocked, straight to the next
// deadline, and timers and timed waits expire exactly at their due time.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <utility>

#include <wdmsim/kernel.h>

#include "kernel_test_helpers.h"

using kernel_test::Log;
using kernel_test::Now;
using kernel_test::RelativeMs;
using kernel_test::Units;

namespace {

struct TimerProbe {
  KTIMER timer;
  KDPC dpc;
  std::string name;
  Log<std::pair<std::string, int64_t>>* fired;
};

void NTAPI RecordExpiry(PKDPC, PVOID context, PVOID, PVOID) {
  auto* probe = static_cast<TimerProbe*>(context);
  probe->fired->Add({probe->name, Now()});
}

void Arm(TimerProbe& probe, const char* name, int64_t dueMs, Log<std::pair<std::string, int64_t>>* fired) {
  probe.name = name;
  probe.fired = fired;
  KeInitializeTimer(&probe.timer);
  KeInitializeDpc(&probe.dpc, RecordExpiry, &probe);
  KeSetTimer(&probe.timer, RelativeMs(dueMs), &probe.dpc);
}

}  // namespace

TEST(KernelVirtualTime, TimersFireInDeadlineOrderAndEqualDeadlinesInSetOrder) {
  wdmsim::Kernel kernel;
  Log<std::pair<std::string, int64_t>> fired;
  TimerProbe late, early, middle, earlyToo;
  int64_t start = Now();
  Arm(late, "late", 30, &fired);
  Arm(early, "early", 10, &fired);
  Arm(middle, "middle", 20, &fired);
  Arm(earlyToo, "early-too", 10, &fired);

  kernel.Advance(30);

  std::vector<std::pair<std::string, int64_t>> expected = {
      {"early", start + 10 * 10000}, {"early-too", start + 10 * 10000}, {"middle", start + 20 * 10000},
      {"late", start + 30 * 10000}};
  EXPECT_EQ(fired.Entries(), expected);
  EXPECT_EQ(Now(), start + 30 * 10000);
}

TEST(KernelVirtualTime, AdvanceStopsExactlyAtTheTargetAndLeavesLaterTimersArmed) {
  wdmsim::Kernel kernel;
  Log<std::pair<std::string, int64_t>> fired;
  TimerProbe probe;
  Arm(probe, "at-50ms", 50, &fired);
  int64_t start = Now();
  LARGE_INTEGER systemStart;
  KeQuerySystemTime(&systemStart);

  kernel.RunUntilIdle();  // runs what can run, but does not move time
  EXPECT_EQ(Now(), start);
  EXPECT_EQ(kernel.SystemTime(), systemStart.QuadPart);
  kernel.Advance(49);
  EXPECT_TRUE(fired.Entries().empty());
  EXPECT_FALSE(KeReadStateTimer(&probe.timer));
  kernel.Advance(1);
  ASSERT_EQ(fired.Entries().size(), 1u);
  EXPECT_TRUE(KeReadStateTimer(&probe.timer));
  // Setting it again makes it non-signalled until it expires again.
  EXPECT_FALSE(KeSetTimer(&probe.timer, RelativeMs(5), &probe.dpc));
  EXPECT_FALSE(KeReadStateTimer(&probe.timer));
  EXPECT_TRUE(KeSetTimer(&probe.timer, RelativeMs(5), &probe.dpc));
  EXPECT_TRUE(KeCancelTimer(&probe.timer));
  EXPECT_FALSE(KeCancelTimer(&probe.timer));
  kernel.Advance(10);
  EXPECT_EQ(fired.Entries().size(), 1u);
}

TEST(KernelVirtualTime, TimedWaitExpiresAtItsDueTimeToThe100ns) {
  wdmsim::Kernel kernel;
  KEVENT never;
  KeInitializeEvent(&never, NotificationEvent, FALSE);
  int64_t start = Now();
  LARGE_INTEGER timeout = Units(-(50 * 10000 + 3));
  EXPECT_EQ(KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, &timeout), STATUS_TIMEOUT);
  EXPECT_EQ(Now(), start + 50 * 10000 + 3);

  // An absolute time-out is system time.
  LARGE_INTEGER at;
  KeQuerySystemTime(&at);
  at.QuadPart += 7 * 10000;
  start = Now();
  EXPECT_EQ(KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, &at), STATUS_TIMEOUT);
  EXPECT_EQ(Now(), start + 7 * 10000);

  // A 20-second delay is a jump of the clock, not 20 seconds of the host's time.
  auto realStart = std::chrono::steady_clock::now();
  start = Now();
  LARGE_INTEGER interval = RelativeMs(20000);
  EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);
  EXPECT_EQ(Now() - start, 20000LL * 10000);
  EXPECT_LT(std::chrono::steady_clock::now() - realStart, std::chrono::seconds(5));
}

namespace {

struct SetAtDeadline {
  KTIMER timer;
  KDPC dpc;
  KEVENT event;
};

void NTAPI SetEventDpc(PKDPC, PVOID context, PVOID, PVOID) {
  KeSetEvent(&static_cast<SetAtDeadline*>(context)->event, IO_NO_INCREMENT, FALSE);
}

NTSTATUS WaitWithTimerAt(int64_t timerOffsetUnits) {
  SetAtDeadline s;
  KeInitializeEvent(&s.event, SynchronizationEvent, FALSE);
  KeInitializeTimer(&s.timer);
  KeInitializeDpc(&s.dpc, SetEventDpc, &s);
  const int64_t waitUnits = 20 * 10000;
  KeSetTimer(&s.timer, Units(-(waitUnits + timerOffsetUnits)), &s.dpc);
  LARGE_INTEGER timeout = Units(-waitUnits);
  NTSTATUS status = KeWaitForSingleObject(&s.event, Executive, KernelMode, FALSE, &timeout);
  KeCancelTimer(&s.timer);
  KeFlushQueuedDpcs();
  return status;
}

}  // namespace

TEST(KernelVirtualTime, TimedWaitIsSatisfiedOneUnitBeforeItsDeadlineButNotOneAfter) {
  wdmsim::Kernel kernel;
  EXPECT_EQ(WaitWithTimerAt(-1), STATUS_SUCCESS);
  EXPECT_EQ(WaitWithTimerAt(+1), STATUS_TIMEOUT);
}

TEST(KernelVirtualTime, PeriodicTimerFiresOncePerPeriodUntilCancelled) {
  wdmsim::Kernel kernel;
  Log<std::pair<std::string, int64_t>> fired;
  TimerProbe probe;
  probe.name = "periodic";
  probe.fired = &fired;
  KeInitializeTimerEx(&probe.timer, SynchronizationTimer);
  KeInitializeDpc(&probe.dpc, RecordExpiry, &probe);
  int64_t start = Now();
  KeSetTimerEx(&probe.timer, RelativeMs(100), 100, &probe.dpc);

  kernel.Advance(1000);
  auto entries = fired.Entries();
  ASSERT_EQ(entries.size(), 10u);
  for (size_t i = 0; i < entries.size(); ++i) EXPECT_EQ(entries[i].second, start + (i + 1) * 100 * 10000);
  EXPECT_TRUE(KeCancelTimer(&probe.timer));
  kernel.Advance(1000);
  EXPECT_EQ(fired.Entries().size(), 10u);
}

TEST(KernelVirtualTime, ClockServicesAgreeWithEachOther) {
  wdmsim::Kernel kernel;
  LARGE_INTEGER system, frequency, ticks;
  KeQuerySystemTime(&system);
  // The virtual machine boots at a fixed date: 2023-11-14 22:13:20 UTC.
  EXPECT_EQ(system.QuadPart, 133444736000000000LL + Now());
  EXPECT_EQ(KeQueryTimeIncrement(), 156250u);

  kernel.Advance(1000);
  LARGE_INTEGER counter = KeQueryPerformanceCounter(&frequency);
  EXPECT_EQ(frequency.QuadPart, 10000000);
  EXPECT_EQ(counter.QuadPart, Now());
  KeQueryTickCount(&ticks);
  EXPECT_EQ(ticks.QuadPart, Now() / 156250);
  EXPECT_EQ(kernel.SystemTime(), 133444736000000000LL + Now());
}
