// System threads: created through handles, waitable, ended by returning or by
// PsTerminateSystemThread; and what a run leaves behind when it ends.
#include <gtest/gtest.h>

#include <atomic>

#include <wdmsim/kernel.h>

#include "expect_violation.h"
#include "kernel_test_helpers.h"

using kernel_test::JoinSystemThread;
using kernel_test::StartSystemThread;

namespace {

struct ThreadProbe {
  KIRQL irql = HIGH_LEVEL;
  HANDLE id = nullptr;
  KPRIORITY initialPriority = -1;
  KPRIORITY previousPriority = -1;
  std::atomic<bool> afterTerminate{false};
  KEVENT go;
};

void NTAPI Probe(PVOID context) {
  auto* p = static_cast<ThreadProbe*>(context);
  p->irql = KeGetCurrentIrql();
  p->id = PsGetCurrentThreadId();
  p->initialPriority = KeQueryPriorityThread(KeGetCurrentThread());
  p->previousPriority = KeSetPriorityThread(KeGetCurrentThread(), LOW_REALTIME_PRIORITY);
  KeWaitForSingleObject(&p->go, Executive, KernelMode, FALSE, nullptr);
  PsTerminateSystemThread(STATUS_SUCCESS);
  p->afterTerminate = true;
}

}  // namespace

TEST(KernelSystemThreads, RunAtPassiveLevelWithTheirOwnIdAndEndOnPsTerminateSystemThread) {
  wdmsim::Kernel kernel;
  ThreadProbe probe;
  KeInitializeEvent(&probe.go, NotificationEvent, FALSE);
  HANDLE handle = nullptr;
  CLIENT_ID client = {};
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
  ASSERT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, &attributes, nullptr, &client, Probe, &probe),
            STATUS_SUCCESS);
  PVOID thread = nullptr;
  ASSERT_EQ(ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, *PsThreadType, KernelMode, &thread, nullptr),
            STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(handle), STATUS_INVALID_HANDLE);

  LARGE_INTEGER poll = kernel_test::RelativeMs(0);
  kernel.RunUntilIdle();
  EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, &poll), STATUS_TIMEOUT);
  KeSetEvent(&probe.go, IO_NO_INCREMENT, FALSE);
  EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
  // An ended thread stays signalled for every later wait.
  EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, &poll), STATUS_SUCCESS);
  ObDereferenceObject(thread);

  EXPECT_FALSE(probe.afterTerminate);
  EXPECT_EQ(probe.irql, PASSIVE_LEVEL);
  EXPECT_EQ(client.UniqueThread, probe.id);
  EXPECT_NE(probe.id, PsGetCurrentThreadId());
  EXPECT_NE(reinterpret_cast<ULONG_PTR>(probe.id), 0xFFFFFFFFu);
  EXPECT_NE(probe.id, nullptr);
  EXPECT_EQ(probe.initialPriority, 8);
  EXPECT_EQ(probe.previousPriority, 8);
}

TEST(KernelSystemThreads, HandlesAndReferencesAreChecked) {
  wdmsim::Kernel kernel;
  PVOID object = reinterpret_cast<PVOID>(0x1);
  EXPECT_EQ(ObReferenceObjectByHandle(reinterpret_cast<HANDLE>(0x80001234), 0, *PsThreadType, KernelMode, &object,
                                      nullptr),
            STATUS_INVALID_HANDLE);
  EXPECT_EQ(object, nullptr);
  // NtCurrentThread() names the caller.
  ASSERT_EQ(ObReferenceObjectByHandle(NtCurrentThread(), 0, *PsThreadType, KernelMode, &object, nullptr),
            STATUS_SUCCESS);
  EXPECT_EQ(object, KeGetCurrentThread());
  ObDereferenceObject(object);

  wdmsim_test::ExpectViolations expect;
  EXPECT_EQ(PsTerminateSystemThread(STATUS_SUCCESS), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(expect.Count("INVALID_PARAMETER"), 1);
  int local = 0;
  ObDereferenceObject(&local);
  EXPECT_EQ(expect.Count("REFERENCE_BY_POINTER"), 1);
}

TEST(KernelSystemThreads, RunOnKernelThreadBlocksTheCallerSoTimeCanMove) {
  wdmsim::Kernel kernel;
  HANDLE id = nullptr;
  int64_t start = kernel_test::Now();
  wdmsim::RunOnKernelThread([&] {
    id = PsGetCurrentThreadId();
    LARGE_INTEGER interval = kernel_test::RelativeMs(250);
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
  });
  EXPECT_EQ(kernel_test::Now() - start, 250 * 10000);
  EXPECT_NE(id, PsGetCurrentThreadId());
}

namespace {

void NTAPI WaitForever(PVOID context) { KeWaitForSingleObject(context, Executive, KernelMode, FALSE, nullptr); }

}  // namespace

TEST(KernelEndOfRun, ThreadsTimersAndReferencesLeftBehindAreReportedAndTheRunStillEnds) {
  wdmsim_test::ExpectViolations expect;
  KEVENT never;
  KTIMER timer;
  {
    wdmsim::Kernel kernel;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    KeInitializeTimer(&timer);
    KeSetTimer(&timer, kernel_test::RelativeMs(5000), nullptr);
    PVOID stuck = StartSystemThread(WaitForever, &never);
    ASSERT_NE(stuck, nullptr);  // and never dereferenced
  }
  EXPECT_EQ(expect.Count("DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS"), 2);  // thread and timer
  EXPECT_EQ(expect.Count("OBJECT_REFERENCE_LEAK"), 1);
  EXPECT_EQ(expect.Total(), 3);
}

TEST(KernelEndOfRun, EachKernelStartsClean) {
  HANDLE firstId = nullptr;
  int64_t firstTime = 0;
  for (int run = 0; run < 3; ++run) {
    wdmsim::Kernel kernel;
    EXPECT_EQ(wdmsim::Kernel::Current(), &kernel);
    if (run == 0) {
      firstId = PsGetCurrentThreadId();
      firstTime = kernel.SystemTime();
    }
    EXPECT_EQ(PsGetCurrentThreadId(), firstId);
    EXPECT_EQ(kernel.SystemTime(), firstTime);
    kernel.Advance(1000);
  }
  EXPECT_EQ(wdmsim::Kernel::Current(), nullptr);

  wdmsim::Kernel kernel;
  wdmsim_test::ExpectViolations expect;
  {
    wdmsim::Kernel second;
    EXPECT_EQ(wdmsim::Kernel::Current(), &kernel);
  }
  EXPECT_EQ(expect.Count("WDMSIM_KERNEL_ALREADY_RUNNING"), 1);
  EXPECT_EQ(wdmsim::Kernel::Current(), &kernel);
}
