// A run in which nothing can ever happen again is reported as a DEADLOCK naming every
// wait, and ends instead of hanging.
#include <gtest/gtest.h>

#include <atomic>

#include <wdmsim/kernel.h>
#include <wdmsim/verifier.h>

#include "expect_violation.h"
#include "kernel_test_helpers.h"

using kernel_test::JoinSystemThread;
using kernel_test::StartSystemThread;

namespace {

std::string OnlyViolationMessage() {
  auto violations = wdmsim::TakeViolations();
  return violations.size() == 1 ? violations[0].message : "";
}

}  // namespace

TEST(KernelDeadlock, WaitForAnEventNobodySetsIsReportedAndEnds) {
  wdmsim::Kernel kernel;
  KEVENT never;
  KeInitializeEvent(&never, NotificationEvent, FALSE);
  wdmsim_test::ExpectViolations expect;
  wdmsim::TakeViolations();
  int64_t start = kernel_test::Now();

  EXPECT_EQ(KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, nullptr), STATUS_TIMEOUT);

  EXPECT_EQ(expect.Count("DEADLOCK"), 1);
  std::string message = OnlyViolationMessage();
  EXPECT_NE(message.find("test thread"), std::string::npos) << message;
  EXPECT_NE(message.find("notification event"), std::string::npos) << message;
  EXPECT_EQ(kernel_test::Now(), start);
}

namespace {

struct CrossedWaits {
  KEVENT a;
  KEVENT b;
};

void NTAPI WaitForAThenSetB(PVOID context) {
  auto* w = static_cast<CrossedWaits*>(context);
  KeWaitForSingleObject(&w->a, Executive, KernelMode, FALSE, nullptr);
  KeSetEvent(&w->b, IO_NO_INCREMENT, FALSE);
}

void NTAPI WaitForBThenSetA(PVOID context) {
  auto* w = static_cast<CrossedWaits*>(context);
  KeWaitForSingleObject(&w->b, Executive, KernelMode, FALSE, nullptr);
  KeSetEvent(&w->a, IO_NO_INCREMENT, FALSE);
}

}  // namespace

TEST(KernelDeadlock, EveryWaitInTheCycleIsNamed) {
  wdmsim::Kernel kernel;
  CrossedWaits waits;
  KeInitializeEvent(&waits.a, SynchronizationEvent, FALSE);
  KeInitializeEvent(&waits.b, SynchronizationEvent, FALSE);
  PVOID first = StartSystemThread(WaitForAThenSetB, &waits);
  kernel.RunUntilIdle();  // a thread waiting while the test can still act is no deadlock
  PVOID second = StartSystemThread(WaitForBThenSetA, &waits);
  {
    wdmsim_test::ExpectViolations expect;
    wdmsim::TakeViolations();
    EXPECT_EQ(KeWaitForSingleObject(first, Executive, KernelMode, FALSE, nullptr), STATUS_TIMEOUT);
    EXPECT_EQ(expect.Count("DEADLOCK"), 1);
    std::string message = OnlyViolationMessage();
    EXPECT_NE(message.find("the end of system thread"), std::string::npos) << message;
    EXPECT_EQ(std::count(message.begin(), message.end(), ';'), 3) << message;  // three waits named
  }
  // Breaking the cycle from outside lets both threads end.
  KeSetEvent(&waits.a, IO_NO_INCREMENT, FALSE);
  EXPECT_EQ(JoinSystemThread(first), STATUS_SUCCESS);
  EXPECT_EQ(JoinSystemThread(second), STATUS_SUCCESS);
}

namespace {

struct SelfRearming {
  KTIMER timer;
  KDPC dpc;
  std::atomic<int> expiries{0};
};

void NTAPI Rearm(PKDPC, PVOID context, PVOID, PVOID) {
  auto* s = static_cast<SelfRearming*>(context);
  s->expiries++;
  KeSetTimer(&s->timer, kernel_test::RelativeMs(60000), &s->dpc);
}

}  // namespace

TEST(KernelDeadlock, ATimerThatOnlyReArmsItselfDoesNotKeepADeadlockAlive) {
  wdmsim::Kernel kernel;
  SelfRearming s;
  KeInitializeTimer(&s.timer);
  KeInitializeDpc(&s.dpc, Rearm, &s);
  KeSetTimer(&s.timer, kernel_test::RelativeMs(60000), &s.dpc);
  KEVENT never;
  KeInitializeEvent(&never, NotificationEvent, FALSE);
  {
    wdmsim_test::ExpectViolations expect;
    EXPECT_EQ(KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, nullptr), STATUS_TIMEOUT);
    EXPECT_EQ(expect.Count("DEADLOCK"), 1);
  }
  // A day of virtual minutes went by first: no report before the horizon.
  EXPECT_GE(s.expiries, 24 * 60);
  KeCancelTimer(&s.timer);
  KeFlushQueuedDpcs();
  KeCancelTimer(&s.timer);
}

namespace {

struct Starved {
  KEVENT release;
  std::atomic<int> finished{0};
};

void NTAPI WaitForRelease(PDEVICE_OBJECT, PVOID context) {
  auto* s = static_cast<Starved*>(context);
  KeWaitForSingleObject(&s->release, Executive, KernelMode, FALSE, nullptr);
  s->finished++;
}

void NTAPI Release(PDEVICE_OBJECT, PVOID context) {
  auto* s = static_cast<Starved*>(context);
  KeSetEvent(&s->release, IO_NO_INCREMENT, FALSE);
  s->finished++;
}

}  // namespace

TEST(KernelDeadlock, WorkItemsBehindBlockedWorkersGetAnotherWorkerAfterASecond) {
  wdmsim::KernelOptions options;
  options.criticalWorkerThreads = 2;
  wdmsim::Kernel kernel(options);
  Starved s;
  KeInitializeEvent(&s.release, NotificationEvent, FALSE);
  PIO_WORKITEM items[3] = {IoAllocateWorkItem(nullptr), IoAllocateWorkItem(nullptr), IoAllocateWorkItem(nullptr)};
  IoQueueWorkItem(items[0], WaitForRelease, CriticalWorkQueue, &s);
  IoQueueWorkItem(items[1], WaitForRelease, CriticalWorkQueue, &s);
  IoQueueWorkItem(items[2], Release, CriticalWorkQueue, &s);
  // Both workers wait for the item queued behind them. Windows' balance manager adds a
  // worker once the queue made no progress for a second; so does the simulation.
  kernel.Advance(999);
  EXPECT_EQ(s.finished, 0);
  kernel.Advance(1);
  EXPECT_EQ(s.finished, 3);
  for (PIO_WORKITEM item : items) IoFreeWorkItem(item);
}
