#include "knevent.h"

#include "knsystemtime.h"

KnEvent::KnEvent() { KeInitializeEvent(&mEvent, NotificationEvent, FALSE); }

KnEvent::KnEvent(EVENT_TYPE type, BOOLEAN signalled) { KeInitializeEvent(&mEvent, type, signalled); }

LONG KnEvent::Set(KPRIORITY increment, BOOLEAN wait) { return KeSetEvent(&mEvent, increment, wait); }

void KnEvent::Clear() { KeClearEvent(&mEvent); }

LONG KnEvent::Reset() { return KeResetEvent(&mEvent); }

LONG KnEvent::ReadState() { return KeReadStateEvent(&mEvent); }

NTSTATUS KnEvent::Wait(ULONG timeoutMs, KWAIT_REASON waitReason, KPROCESSOR_MODE waitMode, BOOLEAN alertable) {
  LARGE_INTEGER dueTime;
  dueTime.QuadPart = KnRelativeDueTime(timeoutMs);
  return KeWaitForSingleObject(&mEvent, waitReason, waitMode, alertable, &dueTime);
}

NTSTATUS KnEvent::WaitInfinite(KWAIT_REASON waitReason, KPROCESSOR_MODE waitMode, BOOLEAN alertable) {
  return KeWaitForSingleObject(&mEvent, waitReason, waitMode, alertable, NULL);
}
