// The DPC queue and the DPC thread that drains it at DISPATCH_LEVEL: one simulated
// processor's DPC list, first in first out.
#pragma once
#include <wdm.h>

#include "kernel/scheduler.h"

namespace wdmsim {
namespace kernel {
namespace dpcs {

void Start();
// KeInsertQueueDpc with the dispatcher lock held (timer expiry queues DPCs this way).
BOOLEAN Insert(sched::Guard& guard, PRKDPC dpc, PVOID argument1, PVOID argument2);
// Real mode: the earliest timer changed, so the DPC thread must look at the clock again.
void TimerQueueChanged(sched::Guard& guard);
// End of run: reports DPCs still queued and forgets the queue.
void ReportQueuedAndReset(sched::Guard& guard);

}  // namespace dpcs
}  // namespace kernel
}  // namespace wdmsim
