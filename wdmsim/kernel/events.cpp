// Kernel events: notification events stay signalled until reset and release every
// waiter; synchronization events release one waiter and reset themselves.
#include <wdm.h>

#include <wdmsim/verifier.h>

#include "kernel/dispatcher.h"
#include "kernel/irql.h"
#include "kernel/threads.h"

using namespace wdmsim::kernel;

namespace {

bool IsEvent(const KEVENT* event, const char* service) {
  UCHAR type = event->Header.Type;
  if (type == dispatcher::kNotificationEvent || type == dispatcher::kSynchronizationEvent) return true;
  wdmsim::ReportViolation("INVALID_DISPATCHER_OBJECT", event, "%s(%p): not an initialised event (type %u)", service,
                          static_cast<const void*>(event), type);
  return false;
}

}  // namespace

extern "C" void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
  CurrentThread();
  sched::Guard guard = sched::Lock();
  dispatcher::InitializeHeader(&Event->Header,
                               Type == SynchronizationEvent ? dispatcher::kSynchronizationEvent
                                                            : dispatcher::kNotificationEvent,
                               sizeof(KEVENT), State ? 1 : 0);
}

extern "C" LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait) {
  CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, "KeSetEvent", Event);
  if (!IsEvent(Event, "KeSetEvent")) return 0;
  sched::Guard guard = sched::Lock();
  LONG previous = dispatcher::SignalState(&Event->Header);
  if (previous == 0) {
    dispatcher::SetSignalState(&Event->Header, 1);
    dispatcher::WaitTest(guard, Event);
  }
  return previous;
}

extern "C" LONG KeResetEvent(PRKEVENT Event) {
  CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, "KeResetEvent", Event);
  if (!IsEvent(Event, "KeResetEvent")) return 0;
  sched::Guard guard = sched::Lock();
  LONG previous = dispatcher::SignalState(&Event->Header);
  dispatcher::SetSignalState(&Event->Header, 0);
  return previous;
}

extern "C" void KeClearEvent(PRKEVENT Event) {
  CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, "KeClearEvent", Event);
  if (!IsEvent(Event, "KeClearEvent")) return;
  sched::Guard guard = sched::Lock();
  dispatcher::SetSignalState(&Event->Header, 0);
}

extern "C" LONG KeReadStateEvent(PRKEVENT Event) {
  CurrentThread();
  return dispatcher::SignalState(&Event->Header);
}
