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
// Real mode: the DPC thread also expires timers and starts workers for starving work
// items as the wall clock reaches them; when their deadlines change it looks again.
void DeadlinesChanged(sched::Guard& guard);
// End of run: reports DPCs still queued and forgets the queue.
void ReportQueuedAndReset(sched::Guard& guard);

}  // namespace dpcs
}  // namespace kernel
}  // namespace wdmsim
