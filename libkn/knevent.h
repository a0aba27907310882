// KnEvent: a kernel event, notification (manual reset) or synchronization (auto reset),
// with waits in milliseconds.
#pragma once
#include <ntddk.h>

class KnEvent {
 public:
  // A notification event, not signalled.
  KnEvent();
  KnEvent(EVENT_TYPE type, BOOLEAN signalled);

  // Up to DISPATCH_LEVEL (with wait FALSE). Returns the previous state.
  LONG Set(KPRIORITY increment = 0, BOOLEAN wait = FALSE);
  void Clear();
  LONG Reset();  // returns the previous state
  LONG ReadState();

  // A time-out of 0 polls without blocking; STATUS_TIMEOUT when it expired.
  // A non-zero time-out needs PASSIVE_LEVEL or APC_LEVEL, as any kernel wait does.
  NTSTATUS Wait(ULONG timeoutMs, KWAIT_REASON waitReason = Executive, KPROCESSOR_MODE waitMode = KernelMode,
                BOOLEAN alertable = FALSE);
  NTSTATUS WaitInfinite(KWAIT_REASON waitReason = Executive, KPROCESSOR_MODE waitMode = KernelMode,
                        BOOLEAN alertable = FALSE);

  // For the platform services that take the event itself (IoBuildSynchronousFsdRequest ...).
  PKEVENT GetEvent() { return &mEvent; }

 private:
  KEVENT mEvent;
};
