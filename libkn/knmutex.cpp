#include "knmutex.h"

#include "kntrace.h"

KnMutex::KnMutex() { KeInitializeMutex(&mMutex, 0); }

NTSTATUS KnMutex::Lock() {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  return KeWaitForSingleObject(&mMutex, Executive, KernelMode, FALSE, NULL);
}

void KnMutex::Unlock() {
  KN_ASSERT_IRQL_LTEQ_DISPATCH();
  KeReleaseMutex(&mMutex, FALSE);
}

KnMutexGuard::KnMutexGuard(KnMutex* mutex) : mMutex(mutex) { mMutex->Lock(); }

KnMutexGuard::~KnMutexGuard() { mMutex->Unlock(); }
