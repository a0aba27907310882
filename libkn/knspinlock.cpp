#include "knspinlock.h"

#include "kntrace.h"

// The 32-bit all-ones ID marks a free lock (not -1 in 64 bits).
static const ULONGLONG kNoOwner = 0xFFFFFFFF;

KnSpinLock::KnSpinLock() : mSpinLock(0), mLockCounter(0), mLockedAtDpcLevel(0), mOwnerThread(kNoOwner) {
  KeInitializeSpinLock(&mSpinLock);
}

KIRQL KnSpinLock::Lock() {
  KN_ASSERT_IRQL_LTEQ_DISPATCH();
  KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&mSpinLock);
  // Only reachable with a corrupted count (an Unlock without Lock): a second holder
  // would have spun above.
  if (mLockCounter != 0) {
    KN_TRACE(0x1, "KnSpinLock::Lock:FATAL: mLockCounter=%d\n", mLockCounter);
  }
  mLockCounter++;
  mOwnerThread = (ULONGLONG)PsGetCurrentThreadId();
  return oldIrql;
}

void KnSpinLock::Unlock(KIRQL oldIrql) {
  KN_ASSERT_IRQL_EQ_DISPATCH();
  KN_ASSERT(!mLockedAtDpcLevel);
  if (mLockCounter != 1) {
    KN_TRACE(0x1, "KnSpinLock::Unlock:FATAL: mLockCounter=%d\n", mLockCounter);
  }
  mLockCounter--;
  mOwnerThread = kNoOwner;
  // Nothing of this object may be touched after the release: the lock may guard
  // its own owner's lifetime.
  KeReleaseSpinLock(&mSpinLock, oldIrql);
}
