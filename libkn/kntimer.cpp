#include "kntimer.h"

#include "knsystemtime.h"

KnTimer::KnTimer() : mDueTime(0) { KeInitializeDpc(&mDpc, NULL, NULL); }

void KnTimer::Init(PKDEFERRED_ROUTINE dpcRoutine, PVOID dpcContext, ULONG periodMs) {
  KeInitializeTimer(&mTimer);
  KeInitializeDpc(&mDpc, dpcRoutine, dpcContext);
  mDueTime = KnRelativeDueTime(periodMs);
}

BOOLEAN KnTimer::Start() {
  LARGE_INTEGER dueTime;
  dueTime.QuadPart = mDueTime;
  return KeSetTimer(&mTimer, dueTime, &mDpc);
}

BOOLEAN KnTimer::Start(ULONG dueMs) {
  LARGE_INTEGER dueTime;
  dueTime.QuadPart = KnRelativeDueTime(dueMs);
  return KeSetTimer(&mTimer, dueTime, &mDpc);
}

BOOLEAN KnTimer::Cancel() { return KeCancelTimer(&mTimer); }
