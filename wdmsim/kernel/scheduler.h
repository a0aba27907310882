// The one place where kernel threads block and wake.
//
// Every wait in wdmsim (dispatcher objects, KeDelayExecutionThread, idle service threads,
// RunUntilIdle) goes through Block/Wake under the dispatcher lock. That is what lets the
// virtual clock jump when every thread is blocked, lets a deadlock be named instead of
// hanging, and lets a deterministic scheduler take over later without touching callers.
#pragma once
#include <wdm.h>

#include <mutex>
#include <vector>

#include <wdmsim/kernel.h>

#include "kernel/clock.h"
#include "kernel/threads.h"

namespace wdmsim {
namespace kernel {
namespace sched {

// The dispatcher lock: guards dispatcher object state and wait lists, timers, the DPC and
// work queues and every thread's blocking state. Never held while driver code runs.
using Guard = std::unique_lock<std::mutex>;
Guard Lock();

void Reset();

// Registration: a registered thread counts as runnable until it blocks.
void AddThread(Guard& guard, ThreadRecord* thread);
void RemoveThread(Guard& guard, ThreadRecord* thread);
const std::vector<ThreadRecord*>& Threads(Guard& guard);

// Blocks the calling thread until Wake or, for a finite deadline (interrupt time), until
// the clock reaches it. When the machine shuts down, every kind but Idle ends the thread
// by throwing ThreadTermination; Idle returns and the service loop sees Stopping().
WakeReason Block(Guard& guard, ThreadRecord* self, BlockKind kind, int64_t deadline, const WaitTarget& target);
// RunUntilIdle/Advance: returns once nothing can run and the clock has reached runUntil
// (virtual mode; real mode only waits for nothing to be runnable).
void BlockUntilIdle(Guard& guard, ThreadRecord* self, int64_t runUntil);
// Makes a blocked thread runnable again; no effect on a thread that is not blocked.
void Wake(Guard& guard, ThreadRecord* thread, WakeReason reason = WakeReason::Signalled);

// Orders things that share a deadline: earlier sequence fires first.
uint64_t NextSequence(Guard& guard);

// Shutdown of the machine.
bool Stopping(Guard& guard);
void BeginShutdown(Guard& guard, ThreadRecord* self);
// Waits (real time) until every thread but self has unregistered; threads wdmsim did not
// create are forgotten rather than waited for.
void WaitForOtherThreads(Guard& guard, ThreadRecord* self);

// Threads waiting for an internal condition guarded by the dispatcher lock (an empty work
// queue, a DPC flush). Waiters re-test their condition after every wake.
class WaitQueue {
 public:
  // Blocks until ready() holds. Returns false, with ready() still false, when an Idle wait
  // ends because the machine stops or an Object wait is broken out of a deadlock.
  template <typename Ready>
  bool Wait(Guard& guard, ThreadRecord* self, BlockKind kind, const char* what, Ready ready) {
    while (!ready()) {
      if (!WaitOnce(guard, self, kind, what)) return false;
    }
    return true;
  }
  // True when a waiter was woken.
  bool WakeOne(Guard& guard);
  void WakeAll(Guard& guard);
  bool HasWaiters() const { return !mWaiters.empty(); }

 private:
  bool WaitOnce(Guard& guard, ThreadRecord* self, BlockKind kind, const char* what);
  std::vector<ThreadRecord*> mWaiters;
};

}  // namespace sched
}  // namespace kernel
}  // namespace wdmsim
