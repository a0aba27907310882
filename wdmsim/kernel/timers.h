// Kernel timers (KTIMER): the queue of armed timers ordered by deadline, then by the order
// they were set. The scheduler expires them when virtual time reaches them; in real mode
// the DPC thread does, following the wall clock.
#pragma once
#include <wdm.h>

#include "kernel/scheduler.h"

namespace wdmsim {
namespace kernel {
namespace timers {

struct ArmedTimer {
  int64_t deadline;   // interrupt time
  uint64_t sequence;  // from sched::NextSequence when set
  PKTIMER timer;
};

// The armed timer that expires first, if any.
bool Earliest(sched::Guard& guard, ArmedTimer* next);
int64_t EarliestDeadline(sched::Guard& guard);
// Expires one armed timer: signals it, queues its DPC, re-arms a periodic timer.
void Expire(sched::Guard& guard, PKTIMER timer);
// Expires every timer due at or before now, in order.
void ExpireDue(sched::Guard& guard, int64_t now);

// End of run: reports every timer still armed and forgets them all.
void ReportArmedAndReset(sched::Guard& guard);

}  // namespace timers
}  // namespace kernel
}  // namespace wdmsim
