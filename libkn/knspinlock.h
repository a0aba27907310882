// KnSpinLock: a kernel spin lock that counts its holders and remembers the holding
// thread, so that a misuse (a second Lock, an Unlock without Lock) shows in the trace.
#pragma once
#include <ntddk.h>

class KnSpinLock {
 public:
  KnSpinLock();

  // Raises to DISPATCH_LEVEL and returns the IRQL to hand back to Unlock.
  // Callable up to DISPATCH_LEVEL; not recursive.
  KIRQL Lock();
  // Called at DISPATCH_LEVEL by the holder with what Lock returned.
  void Unlock(KIRQL oldIrql);

 private:
  KSPIN_LOCK mSpinLock;
  LONG mLockCounter;        // 0 or 1 in correct use
  ULONG mLockedAtDpcLevel;  // never set: every holder went through Lock
  ULONGLONG mOwnerThread;   // thread ID of the holder, kNoOwner when free
};
