// Dispatcher objects (events, mutexes, semaphores, timers, threads) and the wait engine.
//
// An object's state lives in the driver's own structure, as on Windows (Header.Type,
// Header.SignalState, OwnerThread), so objects may live in any memory and be initialised
// again. The wait lists live in a side table keyed by the object's address. Everything is
// guarded by the dispatcher lock (scheduler.h).
#pragma once
#include <wdm.h>

#include "kernel/scheduler.h"

namespace wdmsim {
namespace kernel {
namespace dispatcher {

// DISPATCHER_HEADER.Type values, numbered as NT numbers them.
enum ObjectType : UCHAR {
  kNotificationEvent = 0,
  kSynchronizationEvent = 1,
  kMutant = 2,
  kSemaphore = 5,
  kThread = 6,
  kNotificationTimer = 8,
  kSynchronizationTimer = 9,
};

void InitializeHeader(DISPATCHER_HEADER* header, ObjectType type, size_t objectSize, LONG signalState);
bool IsDispatcherObject(const void* object);

// SignalState is read without the dispatcher lock (KeReadStateEvent); every access is atomic.
LONG SignalState(const DISPATCHER_HEADER* header);
void SetSignalState(DISPATCHER_HEADER* header, LONG state);

// After an object became signalled: satisfies as many of its waiters as its state allows,
// in the order they started waiting.
void WaitTest(sched::Guard& guard, void* object);

// The wait behind KeWaitForSingleObject/KeWaitForMultipleObjects. timeout: NULL waits
// without limit, 0 polls, negative is relative, positive absolute (100 ns units). A wait
// broken out of a deadlock ends with STATUS_TIMEOUT after the DEADLOCK report.
NTSTATUS Wait(ThreadRecord* self, ULONG count, PVOID const objects[], WAIT_TYPE waitType, const LARGE_INTEGER* timeout);

// A thread that ends while owning mutexes abandons them (the next owner's wait returns
// STATUS_ABANDONED).
void AbandonMutexes(sched::Guard& guard, ThreadRecord* thread);

// Wait lists of objects nobody waits on any more are dropped between runs.
void Reset();

}  // namespace dispatcher
}  // namespace kernel
}  // namespace wdmsim
