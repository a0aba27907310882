// KeWaitForSingleObject, KeWaitForMultipleObjects, KeDelayExecutionThread.
#include <wdm.h>

#include <wdmsim/verifier.h>

#include "kernel/dispatcher.h"
#include "kernel/irql.h"
#include "kernel/threads.h"

using namespace wdmsim::kernel;

namespace {

// A wait that can block needs IRQL <= APC_LEVEL; a zero time-out only polls and may be
// done at DISPATCH_LEVEL.
void CheckWaitIrql(const ThreadRecord* self, const LARGE_INTEGER* timeout, const char* service, const void* culprit) {
  bool poll = timeout != nullptr && timeout->QuadPart == 0;
  if (self->irql > DISPATCH_LEVEL || (self->irql == DISPATCH_LEVEL && !poll)) {
    wdmsim::ReportViolation("IRQL_NOT_LESS_OR_EQUAL", culprit,
                            "%s at IRQL %u on %s with %s: a thread may only block below DISPATCH_LEVEL", service,
                            self->irql, self->name.c_str(), timeout == nullptr ? "no time-out" : "a non-zero time-out");
  }
}

bool CheckObject(const void* object, const char* service) {
  if (dispatcher::IsDispatcherObject(object)) return true;
  wdmsim::ReportViolation("INVALID_DISPATCHER_OBJECT", object, "%s(%p): not an initialised dispatcher object",
                          service, object);
  return false;
}

}  // namespace

extern "C" NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                          BOOLEAN Alertable, PLARGE_INTEGER Timeout) {
  ThreadRecord* self = CurrentThread();
  CheckWaitIrql(self, Timeout, "KeWaitForSingleObject", Object);
  if (!CheckObject(Object, "KeWaitForSingleObject")) return STATUS_INVALID_PARAMETER;
  PVOID objects[1] = {Object};
  return dispatcher::Wait(self, 1, objects, WaitAny, Timeout);
}

extern "C" NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType,
                                             KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                             PLARGE_INTEGER Timeout, PKWAIT_BLOCK WaitBlockArray) {
  ThreadRecord* self = CurrentThread();
  CheckWaitIrql(self, Timeout, "KeWaitForMultipleObjects", Count > 0 ? Object[0] : nullptr);
  if (Count == 0 || Count > MAXIMUM_WAIT_OBJECTS || (Count > THREAD_WAIT_OBJECTS && WaitBlockArray == nullptr)) {
    wdmsim::ReportViolation("MAXIMUM_WAIT_OBJECTS_EXCEEDED", nullptr,
                            "KeWaitForMultipleObjects with %u objects and %s wait block array", Count,
                            WaitBlockArray == nullptr ? "no" : "a");
    return STATUS_INVALID_PARAMETER;
  }
  if (WaitType != WaitAll && WaitType != WaitAny) {
    wdmsim::ReportViolation("INVALID_PARAMETER", nullptr, "KeWaitForMultipleObjects with wait type %d", WaitType);
    return STATUS_INVALID_PARAMETER;
  }
  for (ULONG i = 0; i < Count; ++i) {
    if (!CheckObject(Object[i], "KeWaitForMultipleObjects")) return STATUS_INVALID_PARAMETER;
  }
  return dispatcher::Wait(self, Count, Object, WaitType, Timeout);
}

extern "C" NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval) {
  ThreadRecord* self = CurrentThread();
  wdmsim::kernel::RequireIrqlAtMost(APC_LEVEL, "KeDelayExecutionThread", nullptr);
  int64_t deadline = clock::DeadlineFromDueTime(Interval->QuadPart);
  sched::Guard guard = sched::Lock();
  WaitTarget target;
  target.what = "KeDelayExecutionThread";
  while (deadline > clock::InterruptTime()) {
    if (sched::Block(guard, self, BlockKind::Delay, deadline, target) == WakeReason::TimedOut) break;
  }
  return STATUS_SUCCESS;
}
