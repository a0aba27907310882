#include "kernel/dpcs.h"

#include <algorithm>
#include <deque>
#include <unordered_map>

#include <wdmsim/verifier.h>

#include "kernel/irql.h"
#include "kernel/objects.h"
#include "kernel/spinlocks.h"
#include "kernel/timers.h"
#include "kernel/workitems.h"

namespace wdmsim {
namespace kernel {
namespace dpcs {
namespace {

struct Queue {
  std::deque<PRKDPC> dpcs;                      // in insertion order
  std::unordered_map<PRKDPC, uint64_t> queued;  // insertion number of each queued DPC
  uint64_t inserted = 0;
  uint64_t running = 0;  // insertion number of the DPC running now, 0 when none
  ThreadRecord* thread = nullptr;
  sched::WaitQueue flushWaiters;
};

Queue& queue() {
  static Queue* q = new Queue;
  return *q;
}

// A queued DPC's DpcData points here, as Windows points it at the processor's DPC data.
PVOID QueuedMarker() { return &queue(); }

bool NothingQueuedUpTo(uint64_t insertion) {
  Queue& q = queue();
  for (const auto& entry : q.queued) {
    if (entry.second <= insertion) return false;
  }
  return q.running == 0 || q.running > insertion;
}

// Waits for the next DPC; in real mode it also expires timers as the wall clock reaches
// them. Returns NULL when the machine stops.
PRKDPC NextDpc(sched::Guard& guard, ThreadRecord* self) {
  Queue& q = queue();
  const bool realTime = clock::Mode() == ClockMode::Real;
  WaitTarget target;
  target.what = "the DPC queue";
  for (;;) {
    if (realTime) {
      int64_t now = clock::InterruptTime();
      timers::ExpireDue(guard, now);
      workitems::StartStarvedWorkers(guard, now);
    }
    while (!q.dpcs.empty()) {
      PRKDPC dpc = q.dpcs.front();
      q.dpcs.pop_front();
      auto it = q.queued.find(dpc);
      // A DPC removed or initialised again while queued is no longer ours to run.
      if (it == q.queued.end() || dpc->DpcData != QueuedMarker()) continue;
      q.running = it->second;
      q.queued.erase(it);
      dpc->DpcData = nullptr;  // from here on the routine may queue it again
      return dpc;
    }
    if (sched::Stopping(guard)) return nullptr;
    int64_t deadline = realTime ? std::min(timers::EarliestDeadline(guard), workitems::StarvationDeadline(guard))
                                : kNoDeadline;
    sched::Block(guard, self, BlockKind::Idle, deadline, target);
  }
}

void RunDpcs() {
  ThreadRecord* self = CurrentThread();
  Queue& q = queue();
  sched::Guard guard = sched::Lock();
  q.thread = self;
  try {
    while (PRKDPC dpc = NextDpc(guard, self)) {
      PKDEFERRED_ROUTINE routine = dpc->DeferredRoutine;
      PVOID context = dpc->DeferredContext;
      PVOID argument1 = dpc->SystemArgument1;
      PVOID argument2 = dpc->SystemArgument2;
      guard.unlock();

      self->irql = DISPATCH_LEVEL;
      if (routine != nullptr) routine(dpc, context, argument1, argument2);
      if (self->irql != DISPATCH_LEVEL) {
        ReportViolation("IRQL_UNEXPECTED_VALUE", dpc,
                        "DPC %p (routine %p) returned at IRQL %u instead of DISPATCH_LEVEL", static_cast<void*>(dpc),
                        reinterpret_cast<void*>(routine), self->irql);
      }
      spinlocks::ReportHeld(self, "DRIVER_VERIFIER_DETECTED_VIOLATION", "after its DPC routine returned");
      self->heldSpinLocks.clear();
      self->irql = PASSIVE_LEVEL;

      guard.lock();
      q.running = 0;
      q.flushWaiters.WakeAll(guard);
    }
  } catch (const ThreadTermination&) {
    // The machine stops while a DPC routine blocks (itself a violation).
    if (!guard.owns_lock()) guard.lock();
    q.thread = nullptr;
    q.running = 0;
    throw;
  }
  q.thread = nullptr;
}

}  // namespace

void Start() {
  {
    sched::Guard guard = sched::Lock();
    Queue& q = queue();
    q.dpcs.clear();
    q.queued.clear();
    q.inserted = 0;
    q.running = 0;
  }
  objects::Dereference(StartKernelThread("DPC thread", ThreadRole::Dpc, &RunDpcs));
}

BOOLEAN Insert(sched::Guard& guard, PRKDPC dpc, PVOID argument1, PVOID argument2) {
  Queue& q = queue();
  if (dpc->DpcData != nullptr && q.queued.count(dpc)) return FALSE;
  dpc->DpcData = QueuedMarker();
  dpc->SystemArgument1 = argument1;
  dpc->SystemArgument2 = argument2;
  q.dpcs.push_back(dpc);
  q.queued[dpc] = ++q.inserted;
  if (q.thread != nullptr) sched::Wake(guard, q.thread);
  return TRUE;
}

void DeadlinesChanged(sched::Guard& guard) {
  Queue& q = queue();
  if (clock::Mode() == ClockMode::Real && q.thread != nullptr) sched::Wake(guard, q.thread);
}

void ReportQueuedAndReset(sched::Guard& guard) {
  Queue& q = queue();
  for (PRKDPC dpc : q.dpcs) {
    if (!q.queued.count(dpc)) continue;
    ReportViolation("DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS", dpc,
                    "DPC %p (routine %p) is still queued at the end of the run", static_cast<void*>(dpc),
                    reinterpret_cast<void*>(dpc->DeferredRoutine));
    dpc->DpcData = nullptr;
  }
  q.dpcs.clear();
  q.queued.clear();
}

}  // namespace dpcs
}  // namespace kernel
}  // namespace wdmsim

using namespace wdmsim::kernel;

extern "C" void KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext) {
  CurrentThread();
  {
    sched::Guard guard = sched::Lock();
    if (Dpc->DpcData == dpcs::QueuedMarker()) {
      guard.unlock();
      wdmsim::ReportViolation("TIMER_OR_DPC_INVALID", Dpc, "KeInitializeDpc(%p) on a DPC that is still queued",
                              static_cast<void*>(Dpc));
    }
  }
  Dpc->Type = 19;  // DpcObject
  Dpc->Importance = 1;  // MediumImportance
  Dpc->Number = 0;
  Dpc->DpcListEntry.Next = nullptr;
  Dpc->ProcessorHistory = 0;
  Dpc->DeferredRoutine = DeferredRoutine;
  Dpc->DeferredContext = DeferredContext;
  Dpc->SystemArgument1 = nullptr;
  Dpc->SystemArgument2 = nullptr;
  Dpc->DpcData = nullptr;
}

extern "C" BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2) {
  CurrentThread();
  sched::Guard guard = sched::Lock();
  return dpcs::Insert(guard, Dpc, SystemArgument1, SystemArgument2);
}

extern "C" BOOLEAN KeRemoveQueueDpc(PRKDPC Dpc) {
  CurrentThread();
  sched::Guard guard = sched::Lock();
  auto& q = dpcs::queue();
  auto it = q.queued.find(Dpc);
  if (it == q.queued.end() || Dpc->DpcData != dpcs::QueuedMarker()) return FALSE;
  q.queued.erase(it);
  q.dpcs.erase(std::find(q.dpcs.begin(), q.dpcs.end(), Dpc));
  Dpc->DpcData = nullptr;
  return TRUE;
}

extern "C" void KeFlushQueuedDpcs(void) {
  ThreadRecord* self = CurrentThread();
  RequireIrqlExactly(PASSIVE_LEVEL, "KeFlushQueuedDpcs", nullptr);
  sched::Guard guard = sched::Lock();
  auto& q = dpcs::queue();
  uint64_t last = q.inserted;
  q.flushWaiters.Wait(guard, self, BlockKind::Object, "KeFlushQueuedDpcs",
                      [last] { return dpcs::NothingQueuedUpTo(last); });
}
