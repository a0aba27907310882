// Many kernel threads at once: spin locks must exclude, events and semaphores must never
// lose a wake-up. Run again under ThreadSanitizer (the names carry "Threads").
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include <wdmsim/kernel.h>

#include "kernel_test_helpers.h"

using kernel_test::JoinSystemThread;
using kernel_test::StartSystemThread;

namespace {

constexpr int kThreads = 6;
constexpr int kRounds = 2000;

struct Shared {
  KSPIN_LOCK lock;
  long long plainCounter = 0;  // guarded by lock, deliberately not atomic
  KMUTEX mutex;
  long long mutexCounter = 0;  // guarded by mutex
  KSEMAPHORE items;
  std::atomic<int> consumed{0};
};

void NTAPI Hammer(PVOID context) {
  auto* s = static_cast<Shared*>(context);
  for (int i = 0; i < kRounds; ++i) {
    KIRQL old = KeAcquireSpinLockRaiseToDpc(&s->lock);
    s->plainCounter++;
    KeReleaseSpinLock(&s->lock, old);
    if (i % 8 == 0) {
      KeWaitForSingleObject(&s->mutex, Executive, KernelMode, FALSE, nullptr);
      KeWaitForSingleObject(&s->mutex, Executive, KernelMode, FALSE, nullptr);  // recursive
      s->mutexCounter++;
      KeReleaseMutex(&s->mutex, FALSE);
      KeReleaseMutex(&s->mutex, FALSE);
    }
  }
}

void NTAPI Consume(PVOID context) {
  auto* s = static_cast<Shared*>(context);
  for (int i = 0; i < kRounds / 4; ++i) {
    KeWaitForSingleObject(&s->items, Executive, KernelMode, FALSE, nullptr);
    s->consumed++;
  }
}

struct PingPong {
  KEVENT ping;
  KEVENT pong;
  int rounds = 0;
};

void NTAPI Ponger(PVOID context) {
  auto* p = static_cast<PingPong*>(context);
  for (int i = 0; i < kRounds; ++i) {
    KeWaitForSingleObject(&p->ping, Executive, KernelMode, FALSE, nullptr);
    p->rounds++;
    KeSetEvent(&p->pong, IO_NO_INCREMENT, FALSE);
  }
}

void NTAPI Pinger(PVOID context) {
  auto* p = static_cast<PingPong*>(context);
  for (int i = 0; i < kRounds; ++i) {
    KeSetEvent(&p->ping, IO_NO_INCREMENT, FALSE);
    KeWaitForSingleObject(&p->pong, Executive, KernelMode, FALSE, nullptr);
  }
}

}  // namespace

TEST(KernelStressThreads, SpinLocksMutexesAndSemaphoresUnderContention) {
  wdmsim::Kernel kernel;
  Shared s;
  KeInitializeSpinLock(&s.lock);
  KeInitializeMutex(&s.mutex, 0);
  KeInitializeSemaphore(&s.items, 0, kRounds);
  std::vector<PVOID> threads;
  for (int i = 0; i < kThreads; ++i) threads.push_back(StartSystemThread(Hammer, &s));
  for (int i = 0; i < 4; ++i) threads.push_back(StartSystemThread(Consume, &s));
  for (int i = 0; i < kRounds; ++i) {
    KeReleaseSemaphore(&s.items, IO_NO_INCREMENT, 1, FALSE);
    // The test thread takes the same lock at DISPATCH_LEVEL from time to time.
    if (i % 16 == 0) {
      KIRQL old = KeAcquireSpinLockRaiseToDpc(&s.lock);
      s.plainCounter += 0;
      KeReleaseSpinLock(&s.lock, old);
    }
  }
  for (PVOID t : threads) EXPECT_EQ(JoinSystemThread(t), STATUS_SUCCESS);
  EXPECT_EQ(s.plainCounter, static_cast<long long>(kThreads) * kRounds);
  EXPECT_EQ(s.mutexCounter, static_cast<long long>(kThreads) * (kRounds / 8));
  EXPECT_EQ(s.consumed, kRounds);
  EXPECT_EQ(KeReadStateMutex(&s.mutex), 1);
}

TEST(KernelStressThreads, SynchronizationEventPingPongNeverLosesAWakeup) {
  wdmsim::Kernel kernel;
  PingPong pairs[3];
  std::vector<PVOID> threads;
  for (PingPong& p : pairs) {
    KeInitializeEvent(&p.ping, SynchronizationEvent, FALSE);
    KeInitializeEvent(&p.pong, SynchronizationEvent, FALSE);
    threads.push_back(StartSystemThread(Ponger, &p));
    threads.push_back(StartSystemThread(Pinger, &p));
  }
  for (PVOID t : threads) EXPECT_EQ(JoinSystemThread(t), STATUS_SUCCESS);
  for (PingPong& p : pairs) EXPECT_EQ(p.rounds, kRounds);
}

namespace {

struct TimedSleeper {
  int periodMs;
  std::vector<int64_t> wakeTimes;
};

void NTAPI SleepRepeatedly(PVOID context) {
  auto* s = static_cast<TimedSleeper*>(context);
  KTIMER timer;
  KeInitializeTimer(&timer);
  for (int i = 0; i < 50; ++i) {
    KeSetTimer(&timer, kernel_test::RelativeMs(s->periodMs), nullptr);
    KeWaitForSingleObject(&timer, Executive, KernelMode, FALSE, nullptr);
    s->wakeTimes.push_back(kernel_test::Now());
  }
}

}  // namespace

TEST(KernelStressThreads, ConcurrentTimedWaitsEachWakeExactlyOnTime) {
  wdmsim::Kernel kernel;
  TimedSleeper sleepers[4] = {{3, {}}, {5, {}}, {7, {}}, {5, {}}};
  int64_t start = kernel_test::Now();
  std::vector<PVOID> threads;
  for (TimedSleeper& s : sleepers) threads.push_back(StartSystemThread(SleepRepeatedly, &s));
  for (PVOID t : threads) EXPECT_EQ(JoinSystemThread(t), STATUS_SUCCESS);
  for (const TimedSleeper& s : sleepers) {
    ASSERT_EQ(s.wakeTimes.size(), 50u);
    for (size_t i = 0; i < s.wakeTimes.size(); ++i) {
      EXPECT_EQ(s.wakeTimes[i], start + static_cast<int64_t>(i + 1) * s.periodMs * 10000);
    }
  }
}
