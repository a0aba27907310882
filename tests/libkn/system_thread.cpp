// KnSystemThread: the start routine runs on its own thread with its context, the object
// refuses a second thread, a timed-out wait keeps the thread, and SetPriority acts on
// the calling thread.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <atomic>
#include <string>

#include <wdmsim/debugout.h>
#include <wdmsim/kernel.h>

#include "knevent.h"
#include "knsystemthread.h"
#include "kntrace.h"

namespace {

const int64_t kTicksPerMs = 10000;

struct Work {
  KnEvent release;  // the routine returns once this is set
  std::atomic<int> runs{0};
  std::atomic<PVOID> context{nullptr};
  std::atomic<PKTHREAD> thread{nullptr};
  std::atomic<KPRIORITY> priority{-1};
  KnSystemThread* self = nullptr;  // SetPriority is called through the object, from inside

  static void Routine(PVOID context) {
    Work* work = static_cast<Work*>(context);
    work->context = context;
    work->thread = KeGetCurrentThread();
    if (work->self != nullptr) {
      work->self->SetPriority(16);
      work->priority = KeQueryPriorityThread(KeGetCurrentThread());
    }
    work->runs++;
    work->release.WaitInfinite();
  }
};

class SystemThreadTest : public testing::Test {
 protected:
  void SetUp() override {
    KnTraceSetPrefix("kntest");
    gKnTraceMask = 3;
    wdmsim::TakeDebugOutput();
  }

  wdmsim::Kernel mKernel;
  KnSystemThread mThread;
};

TEST_F(SystemThreadTest, RunsTheRoutineWithItsContextOnANewThread) {
  Work work;
  work.release.Set();
  ASSERT_EQ(STATUS_SUCCESS, mThread.CreateSystemThread(Work::Routine, &work));
  EXPECT_EQ(STATUS_SUCCESS, mThread.WaitForThreadToTerminate(-1));
  EXPECT_EQ(1, work.runs);
  EXPECT_EQ(&work, work.context);
  EXPECT_NE(KeGetCurrentThread(), work.thread.load());

  // Empty again: a wait returns at once, and a new thread can be made.
  int64_t now = mKernel.SystemTime();
  EXPECT_EQ(STATUS_SUCCESS, mThread.WaitForThreadToTerminate(100));
  EXPECT_EQ(now, mKernel.SystemTime());
  ASSERT_EQ(STATUS_SUCCESS, mThread.CreateSystemThread(Work::Routine, &work));
  EXPECT_EQ(STATUS_SUCCESS, mThread.WaitForThreadToTerminate(-1));
  EXPECT_EQ(2, work.runs);
  EXPECT_EQ("", wdmsim::TakeDebugOutput());
}

TEST_F(SystemThreadTest, SecondCreateFailsAndLeavesTheRunningThreadAlone) {
  Work first, second;
  second.release.Set();
  ASSERT_EQ(STATUS_SUCCESS, mThread.CreateSystemThread(Work::Routine, &first));
  EXPECT_EQ(static_cast<NTSTATUS>(0xC0000001), mThread.CreateSystemThread(Work::Routine, &second));
  EXPECT_EQ("kntest:KnSystemThread::CreateSystemThread: FATAL: thread already created\n", wdmsim::TakeDebugOutput());

  first.release.Set();
  EXPECT_EQ(STATUS_SUCCESS, mThread.WaitForThreadToTerminate(-1));
  EXPECT_EQ(1, first.runs);
  EXPECT_EQ(&first, first.context);  // the running thread kept its own context
  EXPECT_EQ(0, second.runs);
}

TEST_F(SystemThreadTest, TimedOutWaitKeepsTheThreadForALaterWait) {
  Work work;
  ASSERT_EQ(STATUS_SUCCESS, mThread.CreateSystemThread(Work::Routine, &work));
  int64_t start = mKernel.SystemTime();
  EXPECT_EQ(STATUS_TIMEOUT, mThread.WaitForThreadToTerminate(50));
  EXPECT_EQ(start + 50 * kTicksPerMs, mKernel.SystemTime());
  EXPECT_EQ(
      "kntest:KnSystemThread::WaitForThreadToTerminate: KeWaitForSingleObject failed, st=0x00000102 "
      "(STATUS_TIMEOUT)\n",
      wdmsim::TakeDebugOutput());
  EXPECT_EQ(STATUS_TIMEOUT, mThread.WaitForThreadToTerminate(0));  // polls
  EXPECT_EQ(start + 50 * kTicksPerMs, mKernel.SystemTime());
  wdmsim::TakeDebugOutput();

  // Still held: creating another one is refused, and the unbounded wait works.
  EXPECT_EQ(STATUS_UNSUCCESSFUL, mThread.CreateSystemThread(Work::Routine, &work));
  work.release.Set();
  EXPECT_EQ(STATUS_SUCCESS, mThread.WaitForThreadToTerminate(-1));
  EXPECT_EQ(1, work.runs);
}

TEST_F(SystemThreadTest, SetPriorityActsOnTheCallingThread) {
  KPRIORITY mine = KeQueryPriorityThread(KeGetCurrentThread());
  ASSERT_NE(16, mine);
  Work work;
  work.self = &mThread;
  work.release.Set();
  ASSERT_EQ(STATUS_SUCCESS, mThread.CreateSystemThread(Work::Routine, &work));
  EXPECT_EQ(STATUS_SUCCESS, mThread.WaitForThreadToTerminate(-1));
  EXPECT_EQ(16, work.priority);
  EXPECT_EQ(mine, KeQueryPriorityThread(KeGetCurrentThread()));
}

}  // namespace
