// KnTimer: a one-shot kernel timer bound to its own DPC and a stored due time.
#pragma once
#include <ntddk.h>

class KnTimer {
 public:
  KnTimer();

  // Binds the DPC routine (run at DISPATCH_LEVEL when the timer expires) and stores
  // the period that Start() uses.
  void Init(PKDEFERRED_ROUTINE dpcRoutine, PVOID dpcContext, ULONG periodMs);

  // Arms the timer with the stored period; TRUE when it was already armed (re-armed).
  BOOLEAN Start();
  // Arms the timer once with another time; the stored period stays as it is.
  BOOLEAN Start(ULONG dueMs);
  // TRUE when the timer was armed and is now cancelled.
  BOOLEAN Cancel();

 private:
  KTIMER mTimer;
  KDPC mDpc;
  LONGLONG mDueTime;  // relative, 100 ns units (negative)
};
