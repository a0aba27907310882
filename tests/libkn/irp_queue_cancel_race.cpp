// KnIrpQueue under real concurrency: the sender's IoCancelIrp racing the insertion and
// the removal of the same IRP. Whoever wins, the IRP is completed exactly once, and the
// queue hears of the cancellation exactly when the platform called its cancel routine.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "irp_queue_test_irp.h"
#include "knsystemthread.h"

namespace {

using irp_queue_test::Cancelled;
using irp_queue_test::Completed;
using irp_queue_test::Entry;
using irp_queue_test::TestIrp;

const int kRounds = 2000;
// Upper bound of the random head start, in spin-loop turns: a few times the length of
// one queue operation, so that every action starts anywhere in the others' windows.
const uint32_t kMaxJitter = 65536;

// A reusable barrier that its parties busy-wait on, so that they leave it together
// (yielding now and then, for machines with fewer processors than parties).
class SpinBarrier {
 public:
  explicit SpinBarrier(int parties) : mParties(parties) {}
  void Wait() {
    int generation = mGeneration.load();
    if (mArrived.fetch_add(1) + 1 == mParties) {
      mArrived = 0;
      mGeneration++;
      return;
    }
    for (uint32_t spins = 1; mGeneration.load() == generation; spins++) {
      if (spins % 4096 == 0) std::this_thread::yield();
    }
  }

 private:
  const int mParties;
  std::atomic<int> mArrived{0};
  std::atomic<int> mGeneration{0};
};

// Runs rounds of a race on long-lived system threads, one per action. In each round the
// first thread calls setup(round), all threads leave a barrier together, each waits a
// pseudo-random while (seeded by the round) and runs its action, and after a second
// barrier the first thread calls check(round).
struct RaceRounds {
  std::function<void(int)> setup;
  std::vector<std::function<void()>> actions;
  std::function<void(int)> check;

  void Run(int rounds) {
    SpinBarrier barrier(static_cast<int>(actions.size()));
    struct Racer {
      RaceRounds* race;
      SpinBarrier* barrier;
      size_t index;
      int rounds;
      static void Run(PVOID context) {
        Racer* self = static_cast<Racer*>(context);
        for (int round = 0; round < self->rounds; round++) {
          if (self->index == 0) self->race->setup(round);
          self->barrier->Wait();
          uint32_t seed = static_cast<uint32_t>(round) * 2654435761u + static_cast<uint32_t>(self->index) * 40503u;
          seed = seed * 1103515245u + 12345u;
          for (volatile uint32_t spin = 0; spin < (seed >> 8) % kMaxJitter; spin = spin + 1) {
          }
          self->race->actions[self->index]();
          self->barrier->Wait();
          if (self->index == 0) self->race->check(round);
        }
      }
    };
    std::vector<Racer> racers(actions.size());
    std::vector<KnSystemThread> threads(actions.size());
    for (size_t i = 0; i < actions.size(); i++) {
      racers[i] = Racer{this, &barrier, i, rounds};
      ASSERT_EQ(STATUS_SUCCESS, threads[i].CreateSystemThread(Racer::Run, &racers[i]));
    }
    for (KnSystemThread& thread : threads) ASSERT_EQ(STATUS_SUCCESS, thread.WaitForThreadToTerminate(-1));
  }
};

bool Contains(const std::vector<Entry>& log, const Entry& entry) {
  for (const Entry& e : log)
    if (e == entry) return true;
  return false;
}

class IrpQueueRaceTest : public irp_queue_test::QueueTest {
 protected:
  void TearDown() override {
    // The cancel routine always found its queue ("Queue!=NULL") and nothing else misfired.
    EXPECT_EQ("", wdmsim::TakeDebugOutput());
    RecordProperty("CancelWon", mCancelWon);
    RecordProperty("OtherWon", mOtherWon);
  }

  // X then Y, both waiting in the queue.
  void QueueTwo() {
    mX = std::make_unique<TestIrp>(&mLog);
    mY = std::make_unique<TestIrp>(&mLog);
    mQueue.InsertTail(mX->irp());
    mQueue.InsertTail(mY->irp());
  }

  std::unique_ptr<TestIrp> mX, mY;
  std::atomic<bool> mCancelCalledRoutine{false};
  // How often each side won, as evidence that the race was really run both ways.
  int mCancelWon = 0, mOtherWon = 0;
};

TEST_F(IrpQueueRaceTest, CancelRacingRemoveRace) {
  RaceRounds race;
  race.setup = [&](int) { QueueTwo(); };
  race.actions = {
      [&] {
        while (PIRP irp = mQueue.RemoveIrp()) {
          irp->IoStatus.Status = STATUS_SUCCESS;
          IoCompleteRequest(irp, IO_NO_INCREMENT);
        }
      },
      [&] { mCancelCalledRoutine = IoCancelIrp(mX->irp()) != FALSE; },
  };
  race.check = [&](int round) {
    SCOPED_TRACE(round);
    EXPECT_EQ(1, mX->completions());
    EXPECT_EQ(1, mY->completions());
    EXPECT_EQ(STATUS_SUCCESS, mY->status());
    std::vector<Entry> log = mLog.Take();
    if (mCancelCalledRoutine) {
      mCancelWon++;
      EXPECT_EQ(STATUS_CANCELLED, mX->status());
      EXPECT_TRUE(Contains(log, Cancelled(mX->irp())));
    } else {
      mOtherWon++;
      EXPECT_EQ(STATUS_SUCCESS, mX->status());
      EXPECT_FALSE(Contains(log, Cancelled(mX->irp())));
    }
    EXPECT_FALSE(Contains(log, Cancelled(mY->irp())));
    EXPECT_TRUE(mQueue.IsEmpty());
    mX.reset();
    mY.reset();
  };
  race.Run(kRounds);
}

TEST_F(IrpQueueRaceTest, CancelRacingInsertRace) {
  RaceRounds race;
  race.setup = [&](int) { mX = std::make_unique<TestIrp>(&mLog); };
  race.actions = {
      [&] { EXPECT_EQ(STATUS_PENDING, mQueue.InsertTail(mX->irp())); },
      [&] { mCancelCalledRoutine = IoCancelIrp(mX->irp()) != FALSE; },
  };
  race.check = [&](int round) {
    SCOPED_TRACE(round);
    // Cancelled either way: by the insertion when the cancel came first, else by the routine.
    EXPECT_EQ(1, mX->completions());
    EXPECT_EQ(STATUS_CANCELLED, mX->status());
    std::vector<Entry> log = mLog.Take();
    if (mCancelCalledRoutine) {
      mCancelWon++;
      EXPECT_EQ((std::vector<Entry>{Cancelled(mX->irp()), Completed(mX->irp())}), log);
    } else {
      mOtherWon++;
      EXPECT_EQ((std::vector<Entry>{Completed(mX->irp())}), log);
    }
    EXPECT_TRUE(mQueue.IsEmpty());
    EXPECT_EQ(nullptr, mQueue.RemoveIrp());
    mX.reset();
  };
  race.Run(kRounds);
}

TEST_F(IrpQueueRaceTest, InsertRemoveAndCancelRace) {
  std::atomic<bool> removerGotIt{false};
  RaceRounds race;
  race.setup = [&](int) {
    mX = std::make_unique<TestIrp>(&mLog);
    removerGotIt = false;
  };
  race.actions = {
      [&] { mQueue.InsertTail(mX->irp()); },
      [&] {
        // Until somebody has finished the IRP: the insertion may not have happened yet.
        while (mX->completions() == 0) {
          if (PIRP irp = mQueue.RemoveIrp()) {
            removerGotIt = true;
            irp->IoStatus.Status = STATUS_SUCCESS;
            IoCompleteRequest(irp, IO_NO_INCREMENT);
          }
        }
      },
      [&] { mCancelCalledRoutine = IoCancelIrp(mX->irp()) != FALSE; },
  };
  race.check = [&](int round) {
    SCOPED_TRACE(round);
    EXPECT_EQ(1, mX->completions());
    EXPECT_EQ(removerGotIt ? STATUS_SUCCESS : STATUS_CANCELLED, mX->status());
    EXPECT_FALSE(removerGotIt && mCancelCalledRoutine);
    EXPECT_EQ(mCancelCalledRoutine.load(), Contains(mLog.Take(), Cancelled(mX->irp())));
    EXPECT_TRUE(mQueue.IsEmpty());
    (removerGotIt ? mOtherWon : mCancelWon)++;
    mX.reset();
  };
  // Three racers on what may be two processors: fewer, slower rounds.
  race.Run(kRounds / 4);
}

TEST_F(IrpQueueRaceTest, CancelAllIrpsRacingCancelRace) {
  RaceRounds race;
  race.setup = [&](int) { QueueTwo(); };
  race.actions = {
      [&] { mQueue.CancelAllIrps(nullptr); },
      [&] { mCancelCalledRoutine = IoCancelIrp(mX->irp()) != FALSE; },
  };
  race.check = [&](int round) {
    SCOPED_TRACE(round);
    EXPECT_EQ(1, mX->completions());
    EXPECT_EQ(1, mY->completions());
    EXPECT_EQ(STATUS_CANCELLED, mX->status());
    EXPECT_EQ(STATUS_CANCELLED, mY->status());
    std::vector<Entry> log = mLog.Take();
    EXPECT_EQ(mCancelCalledRoutine.load(), Contains(log, Cancelled(mX->irp())));
    EXPECT_FALSE(Contains(log, Cancelled(mY->irp())));
    EXPECT_TRUE(mQueue.IsEmpty());
    (mCancelCalledRoutine ? mCancelWon : mOtherWon)++;
    mX.reset();
    mY.reset();
  };
  race.Run(kRounds);
}

}  // namespace
