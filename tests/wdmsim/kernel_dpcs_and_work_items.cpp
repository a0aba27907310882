// DPCs run at DISPATCH_LEVEL on the DPC thread, work items at PASSIVE_LEVEL on system
// worker threads; both check what their routines leave behind.
#include <gtest/gtest.h>

#include <atomic>

#include <wdmsim/kernel.h>

#include "expect_violation.h"
#include "kernel_test_helpers.h"

namespace {

struct DpcProbe {
  KDPC dpc;
  std::atomic<int> runs{0};
  KIRQL irql = PASSIVE_LEVEL;
  HANDLE thread = nullptr;
  PVOID argument1 = nullptr;
  std::atomic<bool> hold{false};  // while set, the routine keeps the DPC thread busy
  std::atomic<bool> running{false};
  KIRQL leaveAt = DISPATCH_LEVEL;
};

void NTAPI ProbeDpc(PKDPC, PVOID context, PVOID argument1, PVOID) {
  auto* p = static_cast<DpcProbe*>(context);
  p->irql = KeGetCurrentIrql();
  p->thread = PsGetCurrentThreadId();
  p->argument1 = argument1;
  p->running = true;
  while (p->hold) {
  }
  p->runs++;
  if (p->leaveAt != DISPATCH_LEVEL) KeLowerIrql(p->leaveAt);
}

}  // namespace

TEST(KernelDpcs, RunAtDispatchLevelOnTheDpcThreadWithTheirArgumentsAndMustReturnThere) {
  wdmsim::Kernel kernel;
  DpcProbe probe;
  KeInitializeDpc(&probe.dpc, ProbeDpc, &probe);
  EXPECT_TRUE(KeInsertQueueDpc(&probe.dpc, reinterpret_cast<PVOID>(0x5EED), nullptr));
  kernel.RunUntilIdle();
  EXPECT_EQ(probe.runs, 1);
  EXPECT_EQ(probe.irql, DISPATCH_LEVEL);
  EXPECT_NE(probe.thread, PsGetCurrentThreadId());
  EXPECT_EQ(probe.argument1, reinterpret_cast<PVOID>(0x5EED));
  EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

  // A routine must return at DISPATCH_LEVEL.
  wdmsim_test::ExpectViolations expect;
  probe.leaveAt = PASSIVE_LEVEL;
  KeInsertQueueDpc(&probe.dpc, nullptr, nullptr);
  KeFlushQueuedDpcs();
  EXPECT_EQ(probe.runs, 2);
  EXPECT_EQ(expect.Count("IRQL_UNEXPECTED_VALUE"), 1);
  EXPECT_EQ(expect.Total(), 1);
}

TEST(KernelDpcs, ADpcIsQueuedOnceUntilItStartsAndCanBeRemovedOrFlushed) {
  wdmsim::Kernel kernel;
  DpcProbe busy, probe;
  busy.hold = true;
  KeInitializeDpc(&busy.dpc, ProbeDpc, &busy);
  KeInitializeDpc(&probe.dpc, ProbeDpc, &probe);
  KeInsertQueueDpc(&busy.dpc, nullptr, nullptr);
  while (!busy.running) {
  }
  // The DPC thread is held up by the first DPC: the second stays queued.
  EXPECT_TRUE(KeInsertQueueDpc(&probe.dpc, reinterpret_cast<PVOID>(1), nullptr));
  EXPECT_FALSE(KeInsertQueueDpc(&probe.dpc, reinterpret_cast<PVOID>(2), nullptr));
  EXPECT_TRUE(KeRemoveQueueDpc(&probe.dpc));
  EXPECT_FALSE(KeRemoveQueueDpc(&probe.dpc));
  EXPECT_TRUE(KeInsertQueueDpc(&probe.dpc, reinterpret_cast<PVOID>(3), nullptr));
  busy.hold = false;
  KeFlushQueuedDpcs();
  EXPECT_EQ(busy.runs, 1);
  EXPECT_EQ(probe.runs, 1);
  EXPECT_EQ(probe.argument1, reinterpret_cast<PVOID>(3));
}

namespace {

struct WorkProbe {
  PIO_WORKITEM item = nullptr;
  KEVENT done;
  PDEVICE_OBJECT device = nullptr;
  PVOID context = nullptr;
  KIRQL irql = HIGH_LEVEL;
  HANDLE thread = nullptr;
  KPRIORITY priority = 0;
  bool raiseAndReturn = false;
};

void NTAPI ProbeWork(PDEVICE_OBJECT device, PVOID context) {
  auto* p = static_cast<WorkProbe*>(context);
  p->device = device;
  p->context = context;
  p->irql = KeGetCurrentIrql();
  p->thread = PsGetCurrentThreadId();
  p->priority = KeQueryPriorityThread(KeGetCurrentThread());
  // The routine may free its own item, as drivers routinely do.
  IoFreeWorkItem(p->item);
  KeSetEvent(&p->done, IO_NO_INCREMENT, FALSE);
  if (p->raiseAndReturn) {
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
  }
}

}  // namespace

TEST(KernelWorkItems, RunAtPassiveLevelOnAWorkerOfTheirQueue) {
  wdmsim::Kernel kernel;
  PDEVICE_OBJECT sentinelDevice = reinterpret_cast<PDEVICE_OBJECT>(0xD0D0);
  for (WORK_QUEUE_TYPE type : {CriticalWorkQueue, DelayedWorkQueue}) {
    WorkProbe probe;
    KeInitializeEvent(&probe.done, NotificationEvent, FALSE);
    probe.item = IoAllocateWorkItem(sentinelDevice);
    ASSERT_NE(probe.item, nullptr);
    IoQueueWorkItem(probe.item, ProbeWork, type, &probe);
    KeWaitForSingleObject(&probe.done, Executive, KernelMode, FALSE, nullptr);
    kernel.RunUntilIdle();
    EXPECT_EQ(probe.device, sentinelDevice);
    EXPECT_EQ(probe.context, &probe);
    EXPECT_EQ(probe.irql, PASSIVE_LEVEL);
    EXPECT_NE(probe.thread, PsGetCurrentThreadId());
    EXPECT_EQ(probe.priority, type == CriticalWorkQueue ? 13 : 12);
  }
}

void NTAPI WaitAtGate(PDEVICE_OBJECT, PVOID context) {
  KeWaitForSingleObject(context, Executive, KernelMode, FALSE, nullptr);
}

TEST(KernelWorkItems, MisuseIsReported) {
  wdmsim_test::ExpectViolations expect;
  {
    wdmsim::KernelOptions options;
    options.criticalWorkerThreads = 1;
    wdmsim::Kernel kernel(options);
    // The only critical worker is held at a gate, so the probe stays queued behind it.
    KEVENT gate;
    KeInitializeEvent(&gate, NotificationEvent, FALSE);
    PIO_WORKITEM blocker = IoAllocateWorkItem(nullptr);
    IoQueueWorkItem(blocker, WaitAtGate, CriticalWorkQueue, &gate);
    WorkProbe probe;
    KeInitializeEvent(&probe.done, NotificationEvent, FALSE);
    probe.raiseAndReturn = true;
    probe.item = IoAllocateWorkItem(nullptr);
    IoQueueWorkItem(probe.item, ProbeWork, CriticalWorkQueue, &probe);
    IoQueueWorkItem(probe.item, ProbeWork, CriticalWorkQueue, &probe);
    EXPECT_EQ(expect.Count("WORKER_INVALID"), 1);
    IoFreeWorkItem(probe.item);  // still queued: refused too
    EXPECT_EQ(expect.Count("WORKER_INVALID"), 2);

    KeSetEvent(&gate, IO_NO_INCREMENT, FALSE);
    kernel.RunUntilIdle();
    EXPECT_EQ(KeReadStateEvent(&probe.done), 1);
    EXPECT_EQ(expect.Count("WORKER_THREAD_RETURNED_AT_BAD_IRQL"), 1);
    IoFreeWorkItem(blocker);
    EXPECT_EQ(expect.Total(), 3);

    PIO_WORKITEM leaked = IoAllocateWorkItem(nullptr);
    ASSERT_NE(leaked, nullptr);
  }
  EXPECT_EQ(expect.Count("DRIVER_VERIFIER_DETECTED_VIOLATION"), 1);  // the item never freed
  EXPECT_EQ(expect.Total(), 4);
}
