#include "kernel/timers.h"

#include <set>
#include <unordered_map>

#include <wdmsim/verifier.h>

#include "kernel/dispatcher.h"
#include "kernel/dpcs.h"
#include "kernel/irql.h"

namespace wdmsim {
namespace kernel {
namespace timers {
namespace {

struct Earlier {
  bool operator()(const ArmedTimer& a, const ArmedTimer& b) const {
    return a.deadline != b.deadline ? a.deadline < b.deadline : a.sequence < b.sequence;
  }
};

struct Queue {
  std::set<ArmedTimer, Earlier> byDeadline;
  std::unordered_map<PKTIMER, ArmedTimer> armed;
};

Queue& queue() {
  static Queue* q = new Queue;
  return *q;
}

void Arm(sched::Guard& guard, PKTIMER timer, int64_t deadline) {
  ArmedTimer entry{deadline, sched::NextSequence(guard), timer};
  queue().byDeadline.insert(entry);
  queue().armed[timer] = entry;
  timer->DueTime.QuadPart = static_cast<ULONGLONG>(deadline);
  timer->Header.Inserted = TRUE;
}

// True when the timer was armed.
bool Disarm(sched::Guard& guard, PKTIMER timer) {
  Queue& q = queue();
  auto it = q.armed.find(timer);
  if (it == q.armed.end()) return false;
  q.byDeadline.erase(it->second);
  q.armed.erase(it);
  timer->Header.Inserted = FALSE;
  return true;
}

}  // namespace

bool Earliest(sched::Guard& guard, ArmedTimer* next) {
  Queue& q = queue();
  if (q.byDeadline.empty()) return false;
  *next = *q.byDeadline.begin();
  return true;
}

int64_t EarliestDeadline(sched::Guard& guard) {
  ArmedTimer next;
  return Earliest(guard, &next) ? next.deadline : kNoDeadline;
}

void Expire(sched::Guard& guard, PKTIMER timer) {
  auto it = queue().armed.find(timer);
  if (it == queue().armed.end()) return;
  int64_t deadline = it->second.deadline;
  Disarm(guard, timer);

  dispatcher::SetSignalState(&timer->Header, 1);
  dispatcher::WaitTest(guard, timer);
  if (timer->Dpc != nullptr) {
    // As on Windows, the DPC's system arguments are the system time of the expiry.
    LARGE_INTEGER now;
    now.QuadPart = clock::SystemTime();
    dpcs::Insert(guard, timer->Dpc, reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(now.LowPart)),
                 reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(static_cast<ULONG>(now.HighPart))));
  }
  if (timer->Period > 0) {
    int64_t period = static_cast<int64_t>(timer->Period) * kUnitsPerMs;
    int64_t next = deadline + period;
    int64_t now = clock::InterruptTime();
    if (next <= now) next = now + period;  // a late wall clock skips missed periods
    Arm(guard, timer, next);
  }
}

void ExpireDue(sched::Guard& guard, int64_t now) {
  ArmedTimer next;
  while (Earliest(guard, &next) && next.deadline <= now) Expire(guard, next.timer);
}

void ReportArmedAndReset(sched::Guard& guard) {
  Queue& q = queue();
  int64_t now = clock::InterruptTime();
  for (const ArmedTimer& entry : q.byDeadline) {
    ReportViolation("DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS", entry.timer,
                    "timer %p is still armed at the end of the run (due in %lld ms, DPC %p)",
                    static_cast<void*>(entry.timer), static_cast<long long>((entry.deadline - now) / kUnitsPerMs),
                    static_cast<void*>(entry.timer->Dpc));
  }
  q.byDeadline.clear();
  q.armed.clear();
}

}  // namespace timers
}  // namespace kernel
}  // namespace wdmsim

using namespace wdmsim::kernel;

extern "C" void KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type) {
  CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, "KeInitializeTimerEx", Timer);
  sched::Guard guard = sched::Lock();
  if (timers::Disarm(guard, Timer)) {
    guard.unlock();
    wdmsim::ReportViolation("TIMER_OR_DPC_INVALID", Timer, "KeInitializeTimer(%p) on a timer that is still armed",
                            static_cast<void*>(Timer));
    guard.lock();
  }
  dispatcher::InitializeHeader(&Timer->Header,
                               Type == SynchronizationTimer ? dispatcher::kSynchronizationTimer
                                                            : dispatcher::kNotificationTimer,
                               sizeof(KTIMER), 0);
  Timer->DueTime.QuadPart = 0;
  InitializeListHead(&Timer->TimerListEntry);
  Timer->Dpc = nullptr;
  Timer->Processor = 0;
  Timer->Period = 0;
}

extern "C" void KeInitializeTimer(PKTIMER Timer) { KeInitializeTimerEx(Timer, NotificationTimer); }

extern "C" BOOLEAN KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc) {
  CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, "KeSetTimerEx", Timer);
  if (Timer->Header.Type != dispatcher::kNotificationTimer && Timer->Header.Type != dispatcher::kSynchronizationTimer) {
    wdmsim::ReportViolation("INVALID_DISPATCHER_OBJECT", Timer, "KeSetTimer(%p): not an initialised timer",
                            static_cast<void*>(Timer));
    return FALSE;
  }
  if (Period < 0) {
    wdmsim::ReportViolation("INVALID_PARAMETER", Timer, "KeSetTimerEx(%p) with period %d", static_cast<void*>(Timer),
                            Period);
    Period = 0;
  }
  sched::Guard guard = sched::Lock();
  BOOLEAN wasArmed = timers::Disarm(guard, Timer);
  // Setting a timer makes it non-signalled until it expires again.
  dispatcher::SetSignalState(&Timer->Header, 0);
  Timer->Dpc = Dpc;
  Timer->Period = static_cast<ULONG>(Period);
  int64_t deadline = clock::DeadlineFromDueTime(DueTime.QuadPart);
  timers::Arm(guard, Timer, deadline);
  if (deadline <= clock::InterruptTime()) {
    timers::Expire(guard, Timer);  // a due time already past expires at once
  } else {
    dpcs::DeadlinesChanged(guard);
  }
  return wasArmed;
}

extern "C" BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc) {
  return KeSetTimerEx(Timer, DueTime, 0, Dpc);
}

extern "C" BOOLEAN KeCancelTimer(PKTIMER Timer) {
  CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, "KeCancelTimer", Timer);
  sched::Guard guard = sched::Lock();
  return timers::Disarm(guard, Timer);
}

extern "C" BOOLEAN KeReadStateTimer(PKTIMER Timer) {
  CurrentThread();
  return dispatcher::SignalState(&Timer->Header) != 0;
}
