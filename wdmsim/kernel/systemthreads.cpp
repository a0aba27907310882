#include "kernel/systemthreads.h"

#include <cstdio>

#include <wdmsim/verifier.h>

#include "kernel/handles.h"
#include "kernel/irql.h"
#include "kernel/objects.h"

namespace wdmsim {
namespace kernel {
namespace systemthreads {
namespace {

NTSTATUS CloseThreadHandle(void* object) {
  auto* thread = static_cast<_KTHREAD*>(object);
  {
    sched::Guard guard = sched::Lock();
    thread->OpenHandles--;
  }
  objects::Dereference(thread);
  return STATUS_SUCCESS;
}

}  // namespace

void RegisterHandleCloser() { handles::RegisterCloser(handles::Kind::Thread, &CloseThreadHandle); }

void ReportStillRunning(sched::Guard& guard) {
  for (ThreadRecord* thread : sched::Threads(guard)) {
    if (thread->role != ThreadRole::System) continue;
    std::string waits = thread->blocked ? "blocked" : "running";
    ReportViolation("DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS", thread->object,
                    "%s has not ended at the end of the run (%s)", thread->name.c_str(), waits.c_str());
  }
}

}  // namespace systemthreads
}  // namespace kernel
}  // namespace wdmsim

using namespace wdmsim::kernel;

extern "C" NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                         HANDLE ProcessHandle, PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                                         PVOID StartContext) {
  CurrentThread();
  RequireIrqlExactly(PASSIVE_LEVEL, "PsCreateSystemThread", reinterpret_cast<void*>(StartRoutine));
  if (StartRoutine == nullptr) return STATUS_INVALID_PARAMETER;
  char name[64];
  snprintf(name, sizeof name, "system thread (routine %p)", reinterpret_cast<void*>(StartRoutine));
  // A routine that returns ends the thread just as PsTerminateSystemThread does.
  _KTHREAD* thread = StartKernelThread(name, ThreadRole::System, [StartRoutine, StartContext] {
    StartRoutine(StartContext);
  });
  {
    sched::Guard guard = sched::Lock();
    thread->OpenHandles = 1;  // the caller's reference now belongs to the handle
  }
  *ThreadHandle = wdmsim::handles::Create(wdmsim::handles::Kind::Thread, thread, DesiredAccess);
  if (ClientId != nullptr) {
    ClientId->UniqueProcess = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(4));
    ClientId->UniqueThread = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(thread->ThreadId));
  }
  return STATUS_SUCCESS;
}

extern "C" NTSTATUS PsTerminateSystemThread(NTSTATUS ExitStatus) {
  ThreadRecord* self = CurrentThread();
  RequireIrqlExactly(PASSIVE_LEVEL, "PsTerminateSystemThread", self->object);
  if (self->role != ThreadRole::System) {
    wdmsim::ReportViolation("INVALID_PARAMETER", self->object,
                            "PsTerminateSystemThread called by %s, which is not a system thread", self->name.c_str());
    return STATUS_INVALID_PARAMETER;
  }
  throw ThreadTermination{ExitStatus};  // unwinds to where the thread started, which ends it
}
