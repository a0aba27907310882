// I/O work items and the system worker threads that run them at PASSIVE_LEVEL.
#pragma once
#include <wdm.h>

#include <cstddef>

#include "kernel/scheduler.h"

namespace wdmsim {
namespace kernel {
namespace workitems {

void Start(int criticalWorkers, int delayedWorkers);
// Items that wait a second while every worker of their queue is busy get one more worker,
// as Windows' balance manager gives them: the time at which that happens next (interrupt
// time, kNoDeadline if no item waits), and starting those workers once it has come.
int64_t StarvationDeadline(sched::Guard& guard);
void StartStarvedWorkers(sched::Guard& guard, int64_t now);
// Work items allocated for a device object and not yet freed.
size_t AllocatedForDevice(const DEVICE_OBJECT* device);

// End of run, before the threads stop: items still queued.
void ReportQueued(sched::Guard& guard);
// End of run, after the threads stopped: items never freed are reported and freed.
void ReportLeakedAndReset();

}  // namespace workitems
}  // namespace kernel
}  // namespace wdmsim
