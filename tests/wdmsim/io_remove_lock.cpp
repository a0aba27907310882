// Remove locks: counting by tag, removal that waits for every other holder, and the
// contract breaches a driver can commit with them.
#include <gtest/gtest.h>

#include <atomic>

#include <wdmsim/kernel.h>

#include "io_test_driver.h"
#include "kernel_test_helpers.h"

namespace {

using iotest::CountViolations;

const ULONG kTag = 0x4C526E4B;  // "KnRL"
const char kDetected[] = "DRIVER_VERIFIER_DETECTED_VIOLATION";

PVOID Tag(int n) { return reinterpret_cast<PVOID>(static_cast<uintptr_t>(0x1000 + n)); }

class RemoveLock : public ::testing::Test {
 protected:
  RemoveLock() { IoInitializeRemoveLock(&lock, kTag, 0, 0); }

  wdmsim::Kernel kernel;
  IO_REMOVE_LOCK lock;
};

TEST_F(RemoveLock, CountsEveryHolderOnTopOfItsOwnReference) {
  EXPECT_EQ(lock.Common.IoCount, 1);
  EXPECT_FALSE(lock.Common.Removed);
  EXPECT_EQ(lock.Dbg.AllocateTag, static_cast<LONG>(kTag));
  EXPECT_EQ(IoAcquireRemoveLock(&lock, Tag(1)), STATUS_SUCCESS);
  EXPECT_EQ(IoAcquireRemoveLock(&lock, Tag(2)), STATUS_SUCCESS);
  EXPECT_EQ(IoAcquireRemoveLock(&lock, Tag(1)), STATUS_SUCCESS);  // the same tag may be held twice
  EXPECT_EQ(lock.Common.IoCount, 4);
  IoReleaseRemoveLock(&lock, Tag(1));
  IoReleaseRemoveLock(&lock, Tag(2));
  IoReleaseRemoveLock(&lock, Tag(1));
  EXPECT_EQ(lock.Common.IoCount, 1);
  EXPECT_EQ(KeReadStateEvent(&lock.Common.RemoveEvent), 0);

  // With no other holder, removal returns at once and locks everyone out.
  ASSERT_EQ(IoAcquireRemoveLock(&lock, Tag(1)), STATUS_SUCCESS);
  int64_t start = kernel_test::Now();
  IoReleaseRemoveLockAndWait(&lock, Tag(1));
  EXPECT_EQ(kernel_test::Now(), start);
  EXPECT_EQ(IoAcquireRemoveLock(&lock, Tag(2)), STATUS_DELETE_PENDING);
  EXPECT_EQ(IoAcquireRemoveLock(&lock, Tag(2)), STATUS_DELETE_PENDING);
  EXPECT_EQ(lock.Common.IoCount, 0);
}

TEST_F(RemoveLock, RemovalWaitsForTheLastOtherHolderThreads) {
  // The caller holds tag 1; a system thread holds tag 2 and lets go 50 ms later. Removal
  // must not return before that, and nobody gets in meanwhile.
  ASSERT_EQ(IoAcquireRemoveLock(&lock, Tag(1)), STATUS_SUCCESS);
  KEVENT acquired;
  KeInitializeEvent(&acquired, NotificationEvent, FALSE);
  std::atomic<bool> released{false};
  std::atomic<NTSTATUS> lateAcquire{STATUS_SUCCESS};
  int64_t releasedAt = 0;
  iotest::SystemThread holder([&] {
    EXPECT_EQ(IoAcquireRemoveLock(&lock, Tag(2)), STATUS_SUCCESS);
    KeSetEvent(&acquired, IO_NO_INCREMENT, FALSE);
    LARGE_INTEGER delay = kernel_test::RelativeMs(50);
    KeDelayExecutionThread(KernelMode, FALSE, &delay);
    lateAcquire = IoAcquireRemoveLock(&lock, Tag(3));  // removal has begun by now
    releasedAt = kernel_test::Now();
    released = true;
    IoReleaseRemoveLock(&lock, Tag(2));
  });
  KeWaitForSingleObject(&acquired, Executive, KernelMode, FALSE, nullptr);
  int64_t start = kernel_test::Now();

  IoReleaseRemoveLockAndWait(&lock, Tag(1));

  EXPECT_TRUE(released.load());
  EXPECT_GE(kernel_test::Now() - start, 50 * 10000);
  EXPECT_GE(kernel_test::Now(), releasedAt);
  EXPECT_EQ(lateAcquire.load(), STATUS_DELETE_PENDING);
  EXPECT_TRUE(lock.Common.Removed);
  EXPECT_EQ(lock.Common.IoCount, 0);
  holder.Join();
}

TEST_F(RemoveLock, MisuseIsReported) {
  wdmsim_test::ExpectViolations expected;
  ASSERT_EQ(IoAcquireRemoveLock(&lock, Tag(1)), STATUS_SUCCESS);
  IoReleaseRemoveLock(&lock, Tag(9));
  EXPECT_EQ(CountViolations(wdmsim::TakeViolations(), kDetected, "was never acquired"), 1);

  IO_REMOVE_LOCK other;
  IoInitializeRemoveLockEx(&other, kTag, 0, 0, sizeof(IO_REMOVE_LOCK_COMMON_BLOCK));
  EXPECT_EQ(CountViolations(wdmsim::TakeViolations(), kDetected, "RemlockSize 32"), 1);

  IO_REMOVE_LOCK garbage;
  memset(&garbage, 0, sizeof garbage);
  garbage.Common.IoCount = 1;
  IoAcquireRemoveLock(&garbage, Tag(1));
  EXPECT_EQ(CountViolations(wdmsim::TakeViolations(), kDetected, "never initialised"), 1);

  // A high-water mark of 2 allows exactly two holders.
  IoInitializeRemoveLock(&lock, kTag, 0, 2);
  EXPECT_EQ(IoAcquireRemoveLock(&lock, Tag(1)), STATUS_SUCCESS);
  EXPECT_EQ(IoAcquireRemoveLock(&lock, Tag(2)), STATUS_SUCCESS);
  EXPECT_EQ(expected.Total(), 3);
  EXPECT_EQ(IoAcquireRemoveLock(&lock, Tag(3)), STATUS_SUCCESS);
  EXPECT_EQ(CountViolations(wdmsim::TakeViolations(), kDetected, "high-water mark 2"), 1);
  EXPECT_EQ(expected.Total(), 4);
}

TEST_F(RemoveLock, DeletingTheDeviceWhileItsLockIsHeldIsReportedWithWhereItWasTaken) {
  iotest::TestDriver driver;
  PDEVICE_OBJECT device = driver.AddDevice(iotest::CompleteWith(STATUS_SUCCESS), nullptr, sizeof(IO_REMOVE_LOCK));
  auto deviceLock = static_cast<PIO_REMOVE_LOCK>(iotest::TestDriver::Extension(device));
  IoInitializeRemoveLock(deviceLock, kTag, 0, 0);
  ASSERT_EQ(IoAcquireRemoveLockEx(deviceLock, Tag(7), "driver/fdo.cpp", 321, sizeof(IO_REMOVE_LOCK)),
            STATUS_SUCCESS);
  wdmsim_test::ExpectViolations expected;
  driver.RemoveDevice(device);
  EXPECT_EQ(CountViolations(wdmsim::TakeViolations(), kDetected, "driver/fdo.cpp:321"), 1);

  // A lock released and drained before deletion is fine.
  device = driver.AddDevice(iotest::CompleteWith(STATUS_SUCCESS), nullptr, sizeof(IO_REMOVE_LOCK));
  deviceLock = static_cast<PIO_REMOVE_LOCK>(iotest::TestDriver::Extension(device));
  IoInitializeRemoveLock(deviceLock, kTag, 0, 0);
  ASSERT_EQ(IoAcquireRemoveLock(deviceLock, Tag(8)), STATUS_SUCCESS);
  IoReleaseRemoveLockAndWait(deviceLock, Tag(8));
  driver.RemoveDevice(device);
  EXPECT_EQ(expected.Total(), 1);
}

}  // namespace
