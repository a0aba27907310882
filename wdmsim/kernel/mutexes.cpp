// Kernel mutexes: owned by a thread, recursive for their owner, released as often as
// acquired. Acquisition is a wait (KeWaitForSingleObject); ownership passes directly to
// the first waiter on the last release.
#include <wdm.h>

#include <algorithm>

#include <wdmsim/verifier.h>

#include "kernel/dispatcher.h"
#include "kernel/irql.h"
#include "kernel/threads.h"

using namespace wdmsim::kernel;

extern "C" void KeInitializeMutex(PRKMUTEX Mutex, ULONG Level) {
  CurrentThread();
  RequireIrqlExactly(PASSIVE_LEVEL, "KeInitializeMutex", Mutex);
  sched::Guard guard = sched::Lock();
  dispatcher::InitializeHeader(&Mutex->Header, dispatcher::kMutant, sizeof(KMUTEX), 1);
  InitializeListHead(&Mutex->MutantListEntry);
  Mutex->OwnerThread = nullptr;
  Mutex->Abandoned = FALSE;
  Mutex->ApcDisable = 1;
}

extern "C" LONG KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait) {
  ThreadRecord* self = CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, "KeReleaseMutex", Mutex);
  sched::Guard guard = sched::Lock();
  LONG previous = dispatcher::SignalState(&Mutex->Header);
  if (Mutex->Header.Type != dispatcher::kMutant || Mutex->OwnerThread != self->object) {
    std::string owner = Mutex->OwnerThread == nullptr ? "nobody" : DescribeObject(Mutex);
    guard.unlock();
    // Windows raises STATUS_MUTANT_NOT_OWNED, which no kernel caller handles.
    wdmsim::ReportViolation("MUTEX_NOT_OWNED", Mutex,
                            "KeReleaseMutex(%p) by %s, which does not own it (%s): STATUS_MUTANT_NOT_OWNED",
                            static_cast<void*>(Mutex), self->name.c_str(), owner.c_str());
    return previous;
  }
  dispatcher::SetSignalState(&Mutex->Header, previous + 1);
  if (previous + 1 == 1) {
    Mutex->OwnerThread = nullptr;
    auto& owned = self->ownedMutexes;
    owned.erase(std::remove(owned.begin(), owned.end(), Mutex), owned.end());
    dispatcher::WaitTest(guard, Mutex);
  }
  return previous;
}

extern "C" LONG KeReadStateMutex(PRKMUTEX Mutex) {
  CurrentThread();
  return dispatcher::SignalState(&Mutex->Header);
}
