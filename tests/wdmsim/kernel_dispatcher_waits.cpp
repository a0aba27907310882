// Waits on dispatcher objects: which object satisfies a wait, who wakes, what a wait
// consumes, and the state each object reports.
#include <gtest/gtest.h>

#include <atomic>

#include <wdmsim/kernel.h>

#include "expect_violation.h"
#include "kernel_test_helpers.h"

using kernel_test::JoinSystemThread;
using kernel_test::RelativeMs;
using kernel_test::StartSystemThread;

TEST(KernelWaits, WaitAnyReportsTheIndexOfTheSignalledObject) {
  wdmsim::Kernel kernel;
  KEVENT events[3];
  for (KEVENT& e : events) KeInitializeEvent(&e, NotificationEvent, FALSE);
  PVOID objects[3] = {&events[0], &events[1], &events[2]};
  KWAIT_BLOCK blocks[3];
  LARGE_INTEGER poll = RelativeMs(0);

  EXPECT_EQ(KeWaitForMultipleObjects(3, objects, WaitAny, Executive, KernelMode, FALSE, &poll, blocks),
            STATUS_TIMEOUT);
  KeSetEvent(&events[2], IO_NO_INCREMENT, FALSE);
  EXPECT_EQ(KeWaitForMultipleObjects(3, objects, WaitAny, Executive, KernelMode, FALSE, &poll, blocks),
            STATUS_WAIT_0 + 2);
  // With two signalled, the lower index wins.
  KeSetEvent(&events[1], IO_NO_INCREMENT, FALSE);
  EXPECT_EQ(KeWaitForMultipleObjects(3, objects, WaitAny, Executive, KernelMode, FALSE, nullptr, blocks),
            STATUS_WAIT_0 + 1);
}

namespace {

struct Pair {
  KEVENT first;
  KEVENT second;
  KTIMER timer;
  KDPC dpc;
};

void NTAPI SetSecond(PKDPC, PVOID context, PVOID, PVOID) {
  KeSetEvent(&static_cast<Pair*>(context)->second, IO_NO_INCREMENT, FALSE);
}

}  // namespace

TEST(KernelWaits, WaitAllReturnsOnlyOnceEveryObjectIsSignalledAndConsumesThemTogether) {
  wdmsim::Kernel kernel;
  Pair pair;
  KeInitializeEvent(&pair.first, SynchronizationEvent, TRUE);
  KeInitializeEvent(&pair.second, SynchronizationEvent, FALSE);
  KeInitializeTimer(&pair.timer);
  KeInitializeDpc(&pair.dpc, SetSecond, &pair);
  KeSetTimer(&pair.timer, RelativeMs(40), &pair.dpc);
  PVOID objects[2] = {&pair.first, &pair.second};

  int64_t start = kernel_test::Now();
  EXPECT_EQ(KeWaitForMultipleObjects(2, objects, WaitAll, Executive, KernelMode, FALSE, nullptr, nullptr),
            STATUS_WAIT_0);
  EXPECT_EQ(kernel_test::Now() - start, 40 * 10000);
  // Both synchronization events were taken by the one wait, the first one not earlier.
  EXPECT_EQ(KeReadStateEvent(&pair.first), 0);
  EXPECT_EQ(KeReadStateEvent(&pair.second), 0);
}

namespace {

struct Waiters {
  KEVENT event;
  std::atomic<int> woken{0};
};

void NTAPI WaitOnce(PVOID context) {
  auto* w = static_cast<Waiters*>(context);
  KeWaitForSingleObject(&w->event, Executive, KernelMode, FALSE, nullptr);
  w->woken++;
}

}  // namespace

// A synchronization event releases one waiter per set and the waiter takes the signal; a
// notification event releases every waiter and stays signalled until reset.
TEST(KernelWaits, EventsReleaseOneOrEveryWaiter) {
  wdmsim::Kernel kernel;
  for (EVENT_TYPE type : {SynchronizationEvent, NotificationEvent}) {
    SCOPED_TRACE(type == SynchronizationEvent ? "synchronization" : "notification");
    const bool one = type == SynchronizationEvent;
    Waiters waiters;
    KeInitializeEvent(&waiters.event, type, FALSE);
    PVOID threads[3];
    for (PVOID& t : threads) t = StartSystemThread(WaitOnce, &waiters);
    kernel.RunUntilIdle();
    EXPECT_EQ(waiters.woken, 0);
    for (int set = 1; set <= (one ? 3 : 1); ++set) {
      EXPECT_EQ(KeSetEvent(&waiters.event, IO_NO_INCREMENT, FALSE), 0);
      kernel.RunUntilIdle();
      EXPECT_EQ(waiters.woken, one ? set : 3);
      EXPECT_EQ(KeReadStateEvent(&waiters.event), one ? 0 : 1);
    }
    for (PVOID t : threads) EXPECT_EQ(JoinSystemThread(t), STATUS_SUCCESS);
    // With nobody waiting the signal stays until someone takes it or it is reset.
    KeSetEvent(&waiters.event, IO_NO_INCREMENT, FALSE);
    EXPECT_EQ(KeSetEvent(&waiters.event, IO_NO_INCREMENT, FALSE), 1);
    EXPECT_EQ(KeResetEvent(&waiters.event), 1);
    EXPECT_EQ(KeResetEvent(&waiters.event), 0);
    KeSetEvent(&waiters.event, IO_NO_INCREMENT, FALSE);
    KeClearEvent(&waiters.event);
    EXPECT_EQ(KeReadStateEvent(&waiters.event), 0);
  }
}

namespace {

struct MutexRace {
  KMUTEX mutex;
  KEVENT tried;
  std::atomic<bool> owned{false};
};

void NTAPI TakeMutex(PVOID context) {
  auto* r = static_cast<MutexRace*>(context);
  KeSetEvent(&r->tried, IO_NO_INCREMENT, FALSE);
  KeWaitForSingleObject(&r->mutex, Executive, KernelMode, FALSE, nullptr);
  r->owned = true;
  KeReleaseMutex(&r->mutex, FALSE);
}

}  // namespace

TEST(KernelWaits, MutexIsRecursiveForItsOwnerAndPassesOnAtTheLastRelease) {
  wdmsim::Kernel kernel;
  MutexRace race;
  KeInitializeMutex(&race.mutex, 0);
  KeInitializeEvent(&race.tried, NotificationEvent, FALSE);
  EXPECT_EQ(KeReadStateMutex(&race.mutex), 1);
  ASSERT_EQ(KeWaitForSingleObject(&race.mutex, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
  ASSERT_EQ(KeWaitForSingleObject(&race.mutex, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(KeReadStateMutex(&race.mutex), -1);
  EXPECT_EQ(race.mutex.OwnerThread, KeGetCurrentThread());

  PVOID thread = StartSystemThread(TakeMutex, &race);
  KeWaitForSingleObject(&race.tried, Executive, KernelMode, FALSE, nullptr);
  kernel.RunUntilIdle();
  EXPECT_EQ(KeReleaseMutex(&race.mutex, FALSE), -1);
  kernel.RunUntilIdle();
  EXPECT_FALSE(race.owned) << "the mutex passed on before its last release";
  EXPECT_EQ(KeReleaseMutex(&race.mutex, FALSE), 0);
  EXPECT_EQ(JoinSystemThread(thread), STATUS_SUCCESS);
  EXPECT_TRUE(race.owned);
  EXPECT_EQ(KeReadStateMutex(&race.mutex), 1);
  EXPECT_EQ(race.mutex.OwnerThread, nullptr);
}

namespace {

void NTAPI OwnMutexAndEnd(PVOID context) {
  KeWaitForSingleObject(static_cast<PKMUTEX>(context), Executive, KernelMode, FALSE, nullptr);
}

}  // namespace

TEST(KernelWaits, MutexReleasedByANonOwnerOrLeftByAnEndingThreadIsReported) {
  wdmsim::Kernel kernel;
  KMUTEX mutex;
  KeInitializeMutex(&mutex, 0);
  wdmsim_test::ExpectViolations expect;
  EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), 1);
  EXPECT_EQ(expect.Count("MUTEX_NOT_OWNED"), 1);
  EXPECT_EQ(KeReadStateMutex(&mutex), 1);

  PVOID thread = StartSystemThread(OwnMutexAndEnd, &mutex);
  EXPECT_EQ(JoinSystemThread(thread), STATUS_SUCCESS);
  EXPECT_EQ(expect.Count("THREAD_TERMINATE_HELD_MUTEX"), 1);
  // The next owner learns that the previous one vanished.
  EXPECT_EQ(KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr), STATUS_ABANDONED_WAIT_0);
  EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), 0);
  EXPECT_EQ(expect.Total(), 2);
}

TEST(KernelWaits, SemaphoreCountsDownWaitsAndRefusesToPassItsLimit) {
  wdmsim::Kernel kernel;
  KSEMAPHORE semaphore;
  KeInitializeSemaphore(&semaphore, 2, 3);
  LARGE_INTEGER poll = RelativeMs(0);
  EXPECT_EQ(KeWaitForSingleObject(&semaphore, Executive, KernelMode, FALSE, &poll), STATUS_SUCCESS);
  EXPECT_EQ(KeWaitForSingleObject(&semaphore, Executive, KernelMode, FALSE, &poll), STATUS_SUCCESS);
  EXPECT_EQ(KeWaitForSingleObject(&semaphore, Executive, KernelMode, FALSE, &poll), STATUS_TIMEOUT);
  EXPECT_EQ(KeReleaseSemaphore(&semaphore, IO_NO_INCREMENT, 3, FALSE), 0);
  {
    wdmsim_test::ExpectViolations expect;
    EXPECT_EQ(KeReleaseSemaphore(&semaphore, IO_NO_INCREMENT, 1, FALSE), 3);
    EXPECT_EQ(expect.Count("SEMAPHORE_LIMIT_EXCEEDED"), 1);
  }
  EXPECT_EQ(semaphore.Header.SignalState, 3);
}

TEST(KernelWaits, ManyObjectsNeedAWaitBlockArray) {
  wdmsim::Kernel kernel;
  KEVENT events[4];
  PVOID objects[4];
  for (int i = 0; i < 4; ++i) {
    KeInitializeEvent(&events[i], NotificationEvent, TRUE);
    objects[i] = &events[i];
  }
  KWAIT_BLOCK blocks[4];
  EXPECT_EQ(KeWaitForMultipleObjects(4, objects, WaitAll, Executive, KernelMode, FALSE, nullptr, blocks),
            STATUS_WAIT_0);
  wdmsim_test::ExpectViolations expect;
  EXPECT_EQ(KeWaitForMultipleObjects(4, objects, WaitAll, Executive, KernelMode, FALSE, nullptr, nullptr),
            STATUS_INVALID_PARAMETER);
  EXPECT_EQ(expect.Count("MAXIMUM_WAIT_OBJECTS_EXCEEDED"), 1);
}
