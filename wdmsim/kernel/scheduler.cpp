#include "kernel/scheduler.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <wdmsim/verifier.h>

#include "kernel/timers.h"
#include "kernel/workitems.h"

namespace wdmsim {
namespace kernel {
namespace sched {
namespace {

// A run in which only timers fire while every thread waits forever is a deadlock in
// disguise (a timer DPC that re-arms itself). Virtual time would run on for ever; give up
// after this many expiries without any thread making progress, or this much virtual time.
constexpr uint64_t kMaxJumpsWithoutProgress = 100000;
constexpr uint64_t kMinJumpsForIdleDay = 1000;
constexpr int64_t kIdleDay = 24LL * 3600 * 1000 * kUnitsPerMs;
// A program that keeps deadlocking after being told is stuck in a loop: stop it.
constexpr int kMaxDeadlocksPerRun = 1000;

struct State {
  std::mutex lock;
  std::condition_variable threadsChanged;  // the Kernel's destructor waits on it
  std::vector<ThreadRecord*> threads;
  int runnable = 0;
  bool stopping = false;
  uint64_t sequence = 0;
  int64_t lastProgressTime = 0;
  uint64_t jumpsSinceProgress = 0;
  int deadlocks = 0;
};

State& state() {
  static State* s = new State;
  return *s;
}

bool HasDeadline(const ThreadRecord* t) {
  return t->blocked && t->blockKind != BlockKind::IdleWatch && t->deadline != kNoDeadline;
}

int64_t EarliestDeadline(Guard& guard) {
  int64_t next = std::min(timers::EarliestDeadline(guard), workitems::StarvationDeadline(guard));
  for (ThreadRecord* t : state().threads) {
    if (HasDeadline(t)) next = std::min(next, t->deadline);
  }
  return next;
}

ThreadRecord* FirstIdleWatcher() {
  ThreadRecord* first = nullptr;
  for (ThreadRecord* t : state().threads) {
    if (t->blocked && t->blockKind == BlockKind::IdleWatch && (first == nullptr || t->deadline < first->deadline)) {
      first = t;
    }
  }
  return first;
}

// Virtual time has reached `now`: timers and timed waits due by then end, equal deadlines
// in the order they were set.
void ExpireDue(Guard& guard, int64_t now) {
  workitems::StartStarvedWorkers(guard, now);
  std::vector<ThreadRecord*> due;
  for (ThreadRecord* t : state().threads) {
    if (HasDeadline(t) && t->deadline <= now) due.push_back(t);
  }
  std::sort(due.begin(), due.end(),
            [](const ThreadRecord* a, const ThreadRecord* b) { return a->blockSequence < b->blockSequence; });
  auto nextWaiter = due.begin();
  for (;;) {
    timers::ArmedTimer timer;
    bool timerDue = timers::Earliest(guard, &timer) && timer.deadline <= now;
    bool waiterDue = nextWaiter != due.end();
    if (!timerDue && !waiterDue) return;
    if (timerDue && (!waiterDue || timer.sequence < (*nextWaiter)->blockSequence)) {
      timers::Expire(guard, timer.timer);
    } else {
      Wake(guard, *nextWaiter++, WakeReason::TimedOut);
    }
  }
}

std::string DescribeTarget(const ThreadRecord* t) {
  if (t->target.what != nullptr) return t->target.what;
  std::string text;
  for (ULONG i = 0; i < t->target.count; ++i) {
    if (i > 0) text += t->target.waitType == WaitAll ? " and " : " or ";
    text += DescribeObject(t->target.objects[i]);
  }
  return text;
}

bool NobodyWaitsForTime() {
  for (ThreadRecord* t : state().threads) {
    if (HasDeadline(t) || (t->blocked && t->blockKind == BlockKind::IdleWatch)) return false;
  }
  return true;
}

bool LooksLikeLivelock(int64_t next) {
  State& s = state();
  if (!NobodyWaitsForTime()) return false;
  return s.jumpsSinceProgress >= kMaxJumpsWithoutProgress ||
         (s.jumpsSinceProgress >= kMinJumpsForIdleDay && next - s.lastProgressTime > kIdleDay);
}

// Nothing can ever run again. Name every wait, then end one so that the run can finish:
// the test thread's if it waits for an object (its test fails on the report), else all.
void BreakDeadlock(Guard& guard, const char* why) {
  State& s = state();
  std::vector<ThreadRecord*> stuck;
  for (ThreadRecord* t : s.threads) {
    if (t->blocked && t->blockKind == BlockKind::Object) stuck.push_back(t);
  }
  if (stuck.empty()) return;  // only idle service threads are left: nothing is waiting

  std::string message = why;
  for (ThreadRecord* t : stuck) message += "; " + t->name + " waits for " + DescribeTarget(t);
  if (++s.deadlocks > kMaxDeadlocksPerRun) {
    fprintf(stderr, "wdmsim: giving up after %d deadlocks in one run; last: %s\n", kMaxDeadlocksPerRun,
            message.c_str());
    std::abort();
  }

  std::vector<ThreadRecord*> victims;
  for (ThreadRecord* t : stuck) {
    if (t->role == ThreadRole::Test) victims.push_back(t);
  }
  if (victims.empty()) victims = stuck;
  const void* culprit = victims[0]->target.count > 0 ? victims[0]->target.objects[0] : nullptr;
  ReportViolation("DEADLOCK", culprit, "%s", message.c_str());
  for (ThreadRecord* t : victims) Wake(guard, t, WakeReason::DeadlockBroken);
}

// Runs whenever the last runnable thread blocks or ends: moves virtual time, lets
// RunUntilIdle/Advance return, or reports a deadlock.
void Reschedule(Guard& guard) {
  State& s = state();
  const bool virtualTime = clock::Mode() == ClockMode::Virtual;
  while (s.runnable == 0) {
    int64_t next = EarliestDeadline(guard);
    ThreadRecord* watcher = FirstIdleWatcher();
    if (virtualTime && next != kNoDeadline && (watcher == nullptr || next <= watcher->deadline)) {
      if (watcher == nullptr && LooksLikeLivelock(next)) {
        BreakDeadlock(guard,
                      "only timers keep firing while every kernel thread waits for ever (a timer DPC "
                      "re-arming itself?)");
        return;
      }
      clock::AdvanceTo(next);
      s.jumpsSinceProgress++;
      ExpireDue(guard, next);
      continue;
    }
    if (watcher != nullptr) {
      if (virtualTime) clock::AdvanceTo(watcher->deadline);
      int64_t now = clock::InterruptTime();
      for (ThreadRecord* t : s.threads) {
        if (t->blocked && t->blockKind == BlockKind::IdleWatch && (!virtualTime || t->deadline <= now)) Wake(guard, t);
      }
      continue;
    }
    if (!virtualTime && next != kNoDeadline) return;  // the wall clock will end a timed wait
    BreakDeadlock(guard, "every kernel thread is blocked and nothing is due to happen");
    return;
  }
}

}  // namespace

Guard Lock() { return Guard(state().lock); }

void Reset() {
  State& s = state();
  std::lock_guard<std::mutex> guard(s.lock);
  s.threads.clear();
  s.runnable = 0;
  s.stopping = false;
  s.sequence = 0;
  s.lastProgressTime = 0;
  s.jumpsSinceProgress = 0;
  s.deadlocks = 0;
}

void AddThread(Guard& guard, ThreadRecord* thread) {
  State& s = state();
  s.threads.push_back(thread);
  s.runnable++;
  if (s.stopping) thread->terminateRequested = true;
}

void RemoveThread(Guard& guard, ThreadRecord* thread) {
  State& s = state();
  auto it = std::find(s.threads.begin(), s.threads.end(), thread);
  if (it == s.threads.end()) return;
  s.threads.erase(it);
  if (!thread->blocked) s.runnable--;
  s.threadsChanged.notify_all();
  if (s.runnable == 0 && !s.threads.empty()) Reschedule(guard);
}

const std::vector<ThreadRecord*>& Threads(Guard& guard) { return state().threads; }

WakeReason Block(Guard& guard, ThreadRecord* self, BlockKind kind, int64_t deadline, const WaitTarget& target) {
  State& s = state();
  if (self->role == ThreadRole::None) return WakeReason::TimedOut;  // no machine: nothing could wake it
  if (kind != BlockKind::Idle && self->terminateRequested) throw ThreadTermination{STATUS_THREAD_IS_TERMINATING};

  self->blocked = true;
  self->blockKind = kind;
  self->deadline = deadline;
  self->blockSequence = ++s.sequence;
  self->target = target;
  self->wakeReason = WakeReason::Signalled;
  s.runnable--;
  if (s.runnable == 0) Reschedule(guard);

  bool wallClockDeadline =
      clock::Mode() == ClockMode::Real && deadline != kNoDeadline && kind != BlockKind::IdleWatch;
  if (wallClockDeadline) {
    auto when = clock::RealTimePoint(deadline);
    while (self->blocked) {
      if (self->wakeup.wait_until(guard, when) == std::cv_status::timeout && self->blocked &&
          clock::InterruptTime() >= deadline) {
        Wake(guard, self, WakeReason::TimedOut);
      }
    }
  } else {
    while (self->blocked) self->wakeup.wait(guard);
  }

  if (kind != BlockKind::Idle && self->terminateRequested) throw ThreadTermination{STATUS_THREAD_IS_TERMINATING};
  return self->wakeReason;
}

void BlockUntilIdle(Guard& guard, ThreadRecord* self, int64_t runUntil) {
  WaitTarget target;
  target.what = "RunUntilIdle";
  Block(guard, self, BlockKind::IdleWatch, runUntil, target);
}

void Wake(Guard& guard, ThreadRecord* thread, WakeReason reason) {
  if (!thread->blocked) return;
  State& s = state();
  thread->blocked = false;
  thread->wakeReason = reason;
  s.runnable++;
  if (thread->blockKind != BlockKind::Idle) {
    s.lastProgressTime = clock::InterruptTime();
    s.jumpsSinceProgress = 0;
  }
  thread->wakeup.notify_one();
}

uint64_t NextSequence(Guard& guard) { return ++state().sequence; }

bool Stopping(Guard& guard) { return state().stopping; }

void BeginShutdown(Guard& guard, ThreadRecord* self) {
  State& s = state();
  s.stopping = true;
  for (ThreadRecord* t : s.threads) {
    // A host thread wdmsim did not create has nowhere to unwind to; it is only forgotten.
    if (t == self || t->role == ThreadRole::Foreign) continue;
    t->terminateRequested = true;
    Wake(guard, t);
  }
}

void WaitForOtherThreads(Guard& guard, ThreadRecord* self) {
  State& s = state();
  auto onlyForeignLeft = [&] {
    for (ThreadRecord* t : s.threads) {
      if (t != self && t->role != ThreadRole::Foreign) return false;
    }
    return true;
  };
  s.threadsChanged.wait(guard, onlyForeignLeft);
  // Host threads wdmsim did not create cannot be stopped; forget them.
  for (auto it = s.threads.begin(); it != s.threads.end();) {
    if (*it == self) {
      ++it;
      continue;
    }
    if (!(*it)->blocked) s.runnable--;
    it = s.threads.erase(it);
  }
}

bool WaitQueue::WaitOnce(Guard& guard, ThreadRecord* self, BlockKind kind, const char* what) {
  if (kind == BlockKind::Idle && Stopping(guard)) return false;
  mWaiters.push_back(self);
  struct Leave {
    std::vector<ThreadRecord*>& waiters;
    ThreadRecord* self;
    ~Leave() { waiters.erase(std::find(waiters.begin(), waiters.end(), self)); }
  } leave{mWaiters, self};
  WaitTarget target;
  target.what = what;
  WakeReason reason = Block(guard, self, kind, kNoDeadline, target);
  if (reason == WakeReason::DeadlockBroken) return false;
  return !(kind == BlockKind::Idle && Stopping(guard));
}

bool WaitQueue::WakeOne(Guard& guard) {
  for (ThreadRecord* t : mWaiters) {
    if (t->blocked) {
      Wake(guard, t);
      return true;
    }
  }
  return false;
}

void WaitQueue::WakeAll(Guard& guard) {
  for (ThreadRecord* t : mWaiters) Wake(guard, t);
}

}  // namespace sched
}  // namespace kernel
}  // namespace wdmsim
