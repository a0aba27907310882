// Kernel semaphores: a count between 0 and the limit; each satisfied wait takes one.
#include <wdm.h>

#include <wdmsim/verifier.h>

#include "kernel/dispatcher.h"
#include "kernel/irql.h"
#include "kernel/threads.h"

using namespace wdmsim::kernel;

extern "C" void KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit) {
  CurrentThread();
  RequireIrqlExactly(PASSIVE_LEVEL, "KeInitializeSemaphore", Semaphore);
  if (Count < 0 || Limit <= 0 || Count > Limit) {
    wdmsim::ReportViolation("INVALID_PARAMETER", Semaphore, "KeInitializeSemaphore(%p, count %d, limit %d)",
                            static_cast<void*>(Semaphore), Count, Limit);
  }
  sched::Guard guard = sched::Lock();
  dispatcher::InitializeHeader(&Semaphore->Header, dispatcher::kSemaphore, sizeof(KSEMAPHORE), Count);
  Semaphore->Limit = Limit;
}

extern "C" LONG KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY Increment, LONG Adjustment, BOOLEAN Wait) {
  CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, "KeReleaseSemaphore", Semaphore);
  sched::Guard guard = sched::Lock();
  LONG previous = dispatcher::SignalState(&Semaphore->Header);
  if (Adjustment <= 0 || previous > Semaphore->Limit - Adjustment) {
    LONG limit = Semaphore->Limit;
    guard.unlock();
    // Windows raises STATUS_SEMAPHORE_LIMIT_EXCEEDED and leaves the count as it was.
    wdmsim::ReportViolation("SEMAPHORE_LIMIT_EXCEEDED", Semaphore,
                            "KeReleaseSemaphore(%p) by %d with count %d and limit %d",
                            static_cast<void*>(Semaphore), Adjustment, previous, limit);
    return previous;
  }
  dispatcher::SetSignalState(&Semaphore->Header, previous + Adjustment);
  if (previous == 0) dispatcher::WaitTest(guard, Semaphore);
  return previous;
}
