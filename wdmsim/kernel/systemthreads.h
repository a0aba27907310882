// System threads (PsCreateSystemThread): kernel threads that run a driver's routine and
// whose thread objects are reached through handles.
#pragma once
#include "kernel/scheduler.h"

namespace wdmsim {
namespace kernel {
namespace systemthreads {

// ZwClose on a thread handle drops the handle's reference on the thread object.
void RegisterHandleCloser();
// End of run: system threads that never ended.
void ReportStillRunning(sched::Guard& guard);

}  // namespace systemthreads
}  // namespace kernel
}  // namespace wdmsim
