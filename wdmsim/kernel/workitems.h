// I/O work items and the system worker threads that run them at PASSIVE_LEVEL.
#pragma once
#include <wdm.h>

#include <cstddef>

#include "kernel/scheduler.h"

namespace wdmsim {
namespace kernel {
namespace workitems {

void Start(int criticalWorkers, int delayedWorkers);
// Called by the scheduler when nothing can run: if items wait while every worker of their
// queue is blocked, starts one more worker, as Windows' balance manager does. True if it did.
bool StartWorkerIfStarved(sched::Guard& guard);
// Work items allocated for a device object and not yet freed.
size_t AllocatedForDevice(const DEVICE_OBJECT* device);

// End of run, before the threads stop: items still queued.
void ReportQueued(sched::Guard& guard);
// End of run, after the threads stopped: items never freed are reported and freed.
void ReportLeakedAndReset();

}  // namespace workitems
}  // namespace kernel
}  // namespace wdmsim
