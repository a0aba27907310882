// KnWorkItemEx: items run with their callback and arguments at PASSIVE_LEVEL, are
// counted until they finish whatever the order, survive a null callback, leave nothing
// behind when allocation fails, and trace a start later than 100 ms.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <wdmsim/debugout.h>
#include <wdmsim/io.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pool.h>

#include "knevent.h"
#include "knmemory.h"
#include "knsystemthread.h"
#include "kntrace.h"
#include "knworkitemex.h"
#include "libknnewdelete.h"

namespace {

const ULONG kInfinite = 0xFFFFFFFF;

// One callback's view of its run.
struct Item {
  KnEvent release;  // the callback returns once this is set
  bool blocks = false;
  ULONG sleepMs = 0;  // or: it occupies its worker for this long (virtual time)
  std::atomic<bool> started{false};
  std::atomic<int> runs{0};
  std::atomic<int> irql{-1};
  std::atomic<PDEVICE_OBJECT> device{nullptr};
  std::atomic<PVOID> argument2{nullptr};

  static void Callback(PDEVICE_OBJECT deviceObject, PVOID argument1, PVOID argument2) {
    Item* item = static_cast<Item*>(argument1);
    item->started = true;
    item->irql = KeGetCurrentIrql();
    item->device = deviceObject;
    item->argument2 = argument2;
    if (item->blocks) item->release.WaitInfinite();
    if (item->sleepMs != 0) {
      KnEvent never;
      never.Wait(item->sleepMs);
    }
    item->runs++;
  }
};

class WorkItemTest : public testing::Test {
 protected:
  void SetUp() override {
    KnTraceSetPrefix("kntest");
    gKnTraceMask = 3;
    mDevice = wdmsim::CreateRawPdo();
    wdmsim::TakeDebugOutput();
  }
  void TearDown() override {
    EXPECT_EQ(STATUS_SUCCESS, mWorkItems.WaitForAllWorkItems(kInfinite));
    wdmsim::DeleteRawPdo(mDevice);
  }
  bool Schedule(Item* item, PVOID argument2 = nullptr, KnWorkItemEx* workItems = nullptr) {
    return (workItems != nullptr ? workItems : &mWorkItems)->ScheduleWorkItem(mDevice, Item::Callback, item, argument2);
  }
  bool AllDone() { return mWorkItems.WaitForAllWorkItems(0) == STATUS_SUCCESS; }

  // Occupies every system worker with items that wait (until released, or for sleepMs):
  // schedules such items until one of them cannot start any more. That last one stays
  // queued until a worker comes free. (The kernel adds workers while all of them wait,
  // but only up to a limit.)
  std::vector<std::unique_ptr<Item>> SaturateWorkers(ULONG sleepMs, KnWorkItemEx* workItems = nullptr) {
    std::vector<std::unique_ptr<Item>> items;
    for (int i = 0; i < 1000; i++) {
      items.push_back(std::make_unique<Item>());
      Item* item = items.back().get();
      item->blocks = sleepMs == 0;
      item->sleepMs = sleepMs;
      EXPECT_TRUE(Schedule(item, nullptr, workItems));
      mKernel.RunUntilIdle();
      if (!item->started) return items;
    }
    ADD_FAILURE() << "the workers never ran out";
    return items;
  }

  wdmsim::Kernel mKernel;
  PDEVICE_OBJECT mDevice = nullptr;
  KnWorkItemEx mWorkItems;
};

TEST_F(WorkItemTest, CountStaysUntilTheLastOfTwoItemsFinishesInEitherOrder) {
  EXPECT_TRUE(AllDone());  // a fresh object
  for (bool firstFinishesFirst : {true, false}) {
    SCOPED_TRACE(firstFinishesFirst);
    Item first, second;
    first.blocks = second.blocks = true;
    int sentinel = 0;
    ASSERT_TRUE(Schedule(&first, &sentinel));
    ASSERT_TRUE(Schedule(&second));
    mKernel.RunUntilIdle();  // both are running and blocked now
    EXPECT_FALSE(AllDone());

    Item* earlier = firstFinishesFirst ? &first : &second;
    Item* later = firstFinishesFirst ? &second : &first;
    earlier->release.Set();
    mKernel.RunUntilIdle();
    EXPECT_EQ(1, earlier->runs);
    EXPECT_FALSE(AllDone());

    later->release.Set();
    mKernel.RunUntilIdle();
    EXPECT_TRUE(AllDone());
    EXPECT_EQ(1, later->runs);
    EXPECT_EQ(PASSIVE_LEVEL, first.irql);
    EXPECT_EQ(mDevice, first.device);
    EXPECT_EQ(&sentinel, first.argument2);
  }
  EXPECT_EQ("", wdmsim::TakeDebugOutput());
}

TEST_F(WorkItemTest, ItemWithoutCallbackIsCountedAndFreed) {
  KnWorkItemEx others;
  size_t blocksBefore = wdmsim::LivePoolBlockCount(gKnDefaultPoolTag);
  std::vector<std::unique_ptr<Item>> blockers = SaturateWorkers(0, &others);
  // Queued behind the blockers: counted, its context alive.
  ASSERT_TRUE(mWorkItems.ScheduleWorkItem(mDevice, nullptr, nullptr, nullptr));
  mKernel.RunUntilIdle();
  EXPECT_FALSE(AllDone());
  EXPECT_EQ(blocksBefore + blockers.size() + 1, wdmsim::LivePoolBlockCount(gKnDefaultPoolTag));

  for (auto& blocker : blockers) blocker->release.Set();
  mKernel.RunUntilIdle();
  EXPECT_TRUE(AllDone());
  EXPECT_EQ(STATUS_SUCCESS, others.WaitForAllWorkItems(0));
  EXPECT_EQ(blocksBefore, wdmsim::LivePoolBlockCount(gKnDefaultPoolTag));
}

TEST_F(WorkItemTest, FailedAllocationSchedulesNothing) {
  wdmsim::ClearPoolFaults();
  size_t blocksBefore = wdmsim::LivePoolBlockCount(gKnDefaultPoolTag);
  Item item;

  // The item's own context.
  wdmsim::FailNthPoolAllocation(1);
  EXPECT_FALSE(Schedule(&item));
  EXPECT_EQ(1, wdmsim::InjectedPoolFailures());
  EXPECT_EQ("kntest:KnWorkItemEx::ScheduleWorkItem: new  KnWorkItemContext failed\n", wdmsim::TakeDebugOutput());

  // The platform's work item, allocated right after it: the context goes back.
  wdmsim::FailNthPoolAllocation(2);
  EXPECT_FALSE(Schedule(&item));
  EXPECT_EQ(2, wdmsim::InjectedPoolFailures());
  EXPECT_EQ("kntest:KnWorkItemEx::ScheduleWorkItem: IoAllocateWorkItem failed\n", wdmsim::TakeDebugOutput());
  wdmsim::ClearPoolFaults();

  EXPECT_TRUE(AllDone());
  mKernel.RunUntilIdle();
  EXPECT_EQ(0, item.runs);
  EXPECT_EQ(blocksBefore, wdmsim::LivePoolBlockCount(gKnDefaultPoolTag));

  // Nothing was miscounted: a real item still brings the count back to zero.
  EXPECT_TRUE(Schedule(&item));
  EXPECT_EQ(STATUS_SUCCESS, mWorkItems.WaitForAllWorkItems(kInfinite));
  EXPECT_EQ(1, item.runs);
}

TEST_F(WorkItemTest, StartLaterThan100MsIsTraced) {
  struct Case {
    ULONG delayMs;
    std::string trace;
  } cases[] = {
      {100, ""},
      {101, "kntest:KnWorkItemEx::InternalCallbackRoutine: error: work item is delayed for 101\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.delayMs);
    // Every worker is held for exactly delayMs; the last item, scheduled at the same
    // moment, starts when the first of them lets go.
    int64_t start = mKernel.SystemTime();
    std::vector<std::unique_ptr<Item>> items = SaturateWorkers(c.delayMs);
    ASSERT_FALSE(items.back()->started);
    EXPECT_EQ(STATUS_SUCCESS, mWorkItems.WaitForAllWorkItems(kInfinite));
    EXPECT_EQ(start + 2 * c.delayMs * 10000, mKernel.SystemTime());
    EXPECT_EQ(c.trace, wdmsim::TakeDebugOutput());
  }
}

TEST_F(WorkItemTest, TimedWaitForAllEndsAtItsTimeout) {
  Item blocker;
  blocker.blocks = true;
  ASSERT_TRUE(Schedule(&blocker));
  int64_t start = mKernel.SystemTime();
  EXPECT_EQ(STATUS_TIMEOUT, mWorkItems.WaitForAllWorkItems(40));
  EXPECT_EQ(start + 40 * 10000, mKernel.SystemTime());
  blocker.release.Set();
  EXPECT_EQ(STATUS_SUCCESS, mWorkItems.WaitForAllWorkItems(kInfinite));  // before blocker goes away
}

TEST_F(WorkItemTest, DestructionWaitsForTheItemsStillRunning) {
  struct Shared {
    KnWorkItemEx* workItems;
    std::atomic<bool> destroyed{false};
  } shared;
  shared.workItems = new (NonPagedPool, gKnDefaultPoolTag) KnWorkItemEx;
  Item blocker;
  blocker.blocks = true;
  ASSERT_TRUE(shared.workItems->ScheduleWorkItem(mDevice, Item::Callback, &blocker, nullptr));

  KnSystemThread destroyer;
  ASSERT_EQ(STATUS_SUCCESS, destroyer.CreateSystemThread(
                                [](PVOID context) {
                                  Shared* s = static_cast<Shared*>(context);
                                  delete s->workItems;
                                  s->destroyed = true;
                                },
                                &shared));
  EXPECT_EQ(STATUS_TIMEOUT, destroyer.WaitForThreadToTerminate(1000));
  EXPECT_FALSE(shared.destroyed);

  blocker.release.Set();
  EXPECT_EQ(STATUS_SUCCESS, destroyer.WaitForThreadToTerminate(-1));
  EXPECT_TRUE(shared.destroyed);
  EXPECT_EQ(1, blocker.runs);
  std::string out = wdmsim::TakeDebugOutput();
  EXPECT_EQ(std::string::npos, out.find("ASSERTION FAILED")) << out;
}

TEST_F(WorkItemTest, ItemsScheduledFromManyThreads) {
  const int kThreads = 4, kItemsPerThread = 200;
  struct Shared {
    KnWorkItemEx* workItems;
    PDEVICE_OBJECT device;
    std::atomic<int> ran{0};
    std::atomic<int> refused{0};
  } shared{&mWorkItems, mDevice};

  auto scheduler = [](PVOID context) {
    Shared* s = static_cast<Shared*>(context);
    for (int i = 0; i < kItemsPerThread; i++) {
      // Half of them from DISPATCH_LEVEL, as a DPC or a completion routine would.
      KIRQL old = PASSIVE_LEVEL;
      if (i % 2) KeRaiseIrql(DISPATCH_LEVEL, &old);
      bool scheduled = s->workItems->ScheduleWorkItem(
          s->device, [](PDEVICE_OBJECT, PVOID counter, PVOID) { static_cast<std::atomic<int>*>(counter)->fetch_add(1); },
          &s->ran, nullptr);
      if (i % 2) KeLowerIrql(old);
      if (!scheduled) s->refused++;
    }
  };
  KnSystemThread threads[kThreads];
  for (KnSystemThread& t : threads) ASSERT_EQ(STATUS_SUCCESS, t.CreateSystemThread(scheduler, &shared));
  for (KnSystemThread& t : threads) ASSERT_EQ(STATUS_SUCCESS, t.WaitForThreadToTerminate(-1));

  EXPECT_EQ(STATUS_SUCCESS, mWorkItems.WaitForAllWorkItems(kInfinite));
  EXPECT_EQ(0, shared.refused);
  EXPECT_EQ(kThreads * kItemsPerThread, shared.ran);
  EXPECT_EQ("", wdmsim::TakeDebugOutput());
}

}  // namespace
