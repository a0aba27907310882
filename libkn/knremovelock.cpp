#include "knremovelock.h"

#include "kntrace.h"

void KnRemoveLock::Initialize(ULONG AllocateTag, ULONG MaxLockedMinutes, ULONG HighWatermark) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  IoInitializeRemoveLockEx(&mLock, AllocateTag, MaxLockedMinutes, HighWatermark, sizeof(IO_REMOVE_LOCK));
}

NTSTATUS KnRemoveLock::Acquire(PIRP Irp) {
  return IoAcquireRemoveLockEx(&mLock, Irp, __FILE__, __LINE__, sizeof(IO_REMOVE_LOCK));
}

void KnRemoveLock::Release(PIRP Irp) {
  IoReleaseRemoveLockEx(&mLock, Irp, sizeof(IO_REMOVE_LOCK));
}

void KnRemoveLock::ReleaseAndWait(PIRP Irp) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  IoReleaseRemoveLockAndWaitEx(&mLock, Irp, sizeof(IO_REMOVE_LOCK));
}
