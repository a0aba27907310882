// IRQL: each thread has its own, spin locks raise it, and every service checks its rule.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>

#include <wdmsim/kernel.h>

#include "expect_violation.h"
#include "kernel_test_helpers.h"

TEST(KernelIrql, RaiseLowerAndSpinLocksMoveTheCallingThreadsIrqlOnly) {
  wdmsim::Kernel kernel;
  EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
  KIRQL old;
  KeRaiseIrql(APC_LEVEL, &old);
  EXPECT_EQ(old, PASSIVE_LEVEL);
  EXPECT_EQ(KeRaiseIrqlToDpcLevel(), APC_LEVEL);
  KIRQL otherThreadsIrql = HIGH_LEVEL;
  wdmsim::RunOnKernelThread([&] { otherThreadsIrql = KeGetCurrentIrql(); });
  EXPECT_EQ(otherThreadsIrql, PASSIVE_LEVEL);
  KeLowerIrql(PASSIVE_LEVEL);

  KSPIN_LOCK lock;
  KeInitializeSpinLock(&lock);
  KIRQL before = KeAcquireSpinLockRaiseToDpc(&lock);
  EXPECT_EQ(before, PASSIVE_LEVEL);
  EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
  EXPECT_NE(lock, 0u);
  KeReleaseSpinLock(&lock, before);
  EXPECT_EQ(lock, 0u);
  EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

  KIRQL cancelIrql;
  IoAcquireCancelSpinLock(&cancelIrql);
  EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
  IoReleaseCancelSpinLock(cancelIrql);
  EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

namespace {

struct IrqlRule {
  const char* name;
  KIRQL irql;                     // the IRQL the call is made at
  std::function<void()> call;
  const char* expectedBugcheck;   // NULL: the call is legal there
};

KSPIN_LOCK gLock;
HANDLE gThread;
KEVENT gEvent;
KTIMER gTimer;
LARGE_INTEGER gPoll;

void NTAPI Nothing(PVOID) {}

}  // namespace

TEST(KernelIrql, ServicesCheckTheirIrqlRule) {
  wdmsim::Kernel kernel;
  KeInitializeEvent(&gEvent, NotificationEvent, TRUE);
  KeInitializeTimer(&gTimer);
  gPoll.QuadPart = 0;
  const IrqlRule rules[] = {
      {"infinite wait at DISPATCH", DISPATCH_LEVEL,
       [] { KeWaitForSingleObject(&gEvent, Executive, KernelMode, FALSE, nullptr); }, "IRQL_NOT_LESS_OR_EQUAL"},
      {"infinite wait at APC", APC_LEVEL,
       [] { KeWaitForSingleObject(&gEvent, Executive, KernelMode, FALSE, nullptr); }, nullptr},
      {"timed wait at DISPATCH", DISPATCH_LEVEL,
       [] {
         LARGE_INTEGER timeout = kernel_test::RelativeMs(10);
         KeWaitForSingleObject(&gEvent, Executive, KernelMode, FALSE, &timeout);
       },
       "IRQL_NOT_LESS_OR_EQUAL"},
      {"poll at DISPATCH", DISPATCH_LEVEL,
       [] { KeWaitForSingleObject(&gEvent, Executive, KernelMode, FALSE, &gPoll); }, nullptr},
      {"poll above DISPATCH", DISPATCH_LEVEL + 1,
       [] { KeWaitForSingleObject(&gEvent, Executive, KernelMode, FALSE, &gPoll); }, "IRQL_NOT_LESS_OR_EQUAL"},
      {"KeSetEvent at DISPATCH", DISPATCH_LEVEL, [] { KeSetEvent(&gEvent, 0, FALSE); }, nullptr},
      {"KeSetEvent above DISPATCH", DISPATCH_LEVEL + 1, [] { KeSetEvent(&gEvent, 0, FALSE); },
       "IRQL_NOT_LESS_OR_EQUAL"},
      {"KeSetTimer at DISPATCH", DISPATCH_LEVEL, [] { KeSetTimer(&gTimer, kernel_test::RelativeMs(1), nullptr); },
       nullptr},
      {"KeCancelTimer above DISPATCH", DISPATCH_LEVEL + 1, [] { KeCancelTimer(&gTimer); }, "IRQL_NOT_LESS_OR_EQUAL"},
      {"spin lock acquired above DISPATCH", DISPATCH_LEVEL + 1,
       [] {
         KeAcquireSpinLockAtDpcLevel(&gLock);
         KeReleaseSpinLockFromDpcLevel(&gLock);
       },
       nullptr},
      {"spin lock at DPC level from PASSIVE", PASSIVE_LEVEL,
       [] {
         KeAcquireSpinLockAtDpcLevel(&gLock);
         KIRQL old;
         KeRaiseIrql(DISPATCH_LEVEL, &old);
         KeReleaseSpinLockFromDpcLevel(&gLock);
         KeLowerIrql(old);
       },
       "IRQL_NOT_GREATER_OR_EQUAL"},
      {"KeDelayExecutionThread at DISPATCH", DISPATCH_LEVEL,
       [] {
         LARGE_INTEGER interval = kernel_test::RelativeMs(1);
         KeDelayExecutionThread(KernelMode, FALSE, &interval);
       },
       "IRQL_NOT_LESS_OR_EQUAL"},
      {"KeFlushQueuedDpcs at APC", APC_LEVEL, [] { KeFlushQueuedDpcs(); }, "IRQL_NOT_LESS_OR_EQUAL"},
      {"PsCreateSystemThread at APC", APC_LEVEL,
       [] { PsCreateSystemThread(&gThread, 0, nullptr, nullptr, nullptr, Nothing, nullptr); },
       "IRQL_NOT_LESS_OR_EQUAL"},
      {"IoAllocateWorkItem at DISPATCH", DISPATCH_LEVEL, [] { IoFreeWorkItem(IoAllocateWorkItem(nullptr)); },
       nullptr},
      {"KeRaiseIrql to a lower level", DISPATCH_LEVEL,
       [] {
         KIRQL old;
         KeRaiseIrql(PASSIVE_LEVEL, &old);
       },
       "IRQL_NOT_GREATER_OR_EQUAL"},
      {"KeLowerIrql to a higher level", APC_LEVEL, [] { KeLowerIrql(DISPATCH_LEVEL); }, "IRQL_NOT_LESS_OR_EQUAL"},
  };
  for (const IrqlRule& rule : rules) {
    SCOPED_TRACE(rule.name);
    KeInitializeSpinLock(&gLock);
    wdmsim_test::ExpectViolations expect;
    KIRQL old;
    KeRaiseIrql(rule.irql, &old);
    rule.call();
    EXPECT_EQ(KeGetCurrentIrql(), rule.irql);
    KeLowerIrql(old);
    if (gThread != nullptr) ZwClose(gThread);
    gThread = nullptr;
    if (rule.expectedBugcheck != nullptr) {
      EXPECT_EQ(expect.Count(rule.expectedBugcheck), 1);
      EXPECT_EQ(expect.Total(), 1);
    } else {
      EXPECT_EQ(expect.Total(), 0);
    }
    kernel.RunUntilIdle();
  }
  KeCancelTimer(&gTimer);
}

TEST(KernelIrql, SpinLockMisuseIsReported) {
  wdmsim::Kernel kernel;
  KSPIN_LOCK lock, other;
  KeInitializeSpinLock(&lock);
  KeInitializeSpinLock(&other);
  wdmsim_test::ExpectViolations expect;

  KIRQL old = KeAcquireSpinLockRaiseToDpc(&lock);
  KeAcquireSpinLockAtDpcLevel(&lock);  // a second acquisition would spin for ever on Windows
  EXPECT_EQ(expect.Count("SPIN_LOCK_ALREADY_OWNED"), 1);
  KeReleaseSpinLockFromDpcLevel(&lock);
  KeReleaseSpinLockFromDpcLevel(&lock);
  EXPECT_EQ(expect.Count("SPIN_LOCK_NOT_OWNED"), 1);
  KeLowerIrql(old);
  EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

  // Out of order release must keep DISPATCH_LEVEL until the last lock goes.
  KIRQL oldLock = KeAcquireSpinLockRaiseToDpc(&lock);
  KIRQL oldOther = KeAcquireSpinLockRaiseToDpc(&other);
  EXPECT_EQ(oldOther, DISPATCH_LEVEL);
  KeReleaseSpinLock(&lock, oldLock);
  EXPECT_EQ(expect.Count("DRIVER_VERIFIER_DETECTED_VIOLATION"), 1);
  KeRaiseIrql(DISPATCH_LEVEL, &old);
  KeReleaseSpinLock(&other, oldOther);
  KeLowerIrql(PASSIVE_LEVEL);
  EXPECT_EQ(expect.Total(), 3);

  // Only the owner may release a lock.
  old = KeAcquireSpinLockRaiseToDpc(&lock);
  wdmsim::RunOnKernelThread([&] {
    KIRQL irql;
    KeRaiseIrql(DISPATCH_LEVEL, &irql);
    KeReleaseSpinLockFromDpcLevel(&lock);
    KeLowerIrql(irql);
  });
  EXPECT_EQ(expect.Count("SPIN_LOCK_NOT_OWNED"), 2);
  EXPECT_NE(lock, 0u) << "the owner's lock was released by another thread";
  KeReleaseSpinLock(&lock, old);
  EXPECT_EQ(expect.Total(), 4);
}

TEST(KernelIrql, ServicesCalledFromAForeignHostThreadAreReported) {
  wdmsim::Kernel kernel;
  wdmsim_test::ExpectViolations expect;
  KIRQL irql = HIGH_LEVEL;
  std::thread foreign([&] { irql = KeGetCurrentIrql(); });
  foreign.join();
  EXPECT_EQ(irql, PASSIVE_LEVEL);
  EXPECT_EQ(expect.Count("WDMSIM_UNREGISTERED_THREAD"), 1);
  EXPECT_EQ(expect.Total(), 1);
}
