// KnMutex: a recursive kernel mutex for code at PASSIVE_LEVEL; KnMutexGuard holds
// one for the lifetime of a scope.
#pragma once
#include <ntddk.h>

class KnMutex {
 public:
  KnMutex();

  // Waits without time-out; the owning thread may lock again and must unlock as often.
  // PASSIVE_LEVEL only. Returns the wait status.
  NTSTATUS Lock();
  // Up to DISPATCH_LEVEL, by the owning thread.
  void Unlock();

 private:
  KMUTEX mMutex;
};

class KnMutexGuard {
 public:
  explicit KnMutexGuard(KnMutex* mutex);
  ~KnMutexGuard();

 private:
  KnMutexGuard(const KnMutexGuard&);
  KnMutexGuard& operator=(const KnMutexGuard&);

  KnMutex* mMutex;
};
