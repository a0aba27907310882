// Real clock mode: time follows the host's clock and timers fire as it passes.
#include <gtest/gtest.h>

#include <chrono>

#include <wdmsim/kernel.h>

#include "kernel_test_helpers.h"

namespace {

wdmsim::KernelOptions RealClock() {
  wdmsim::KernelOptions options;
  options.clock = wdmsim::ClockMode::Real;
  return options;
}

}  // namespace

TEST(KernelRealClock, TimersAndTimedWaitsFollowTheWallClock) {
  wdmsim::Kernel kernel(RealClock());
  EXPECT_EQ(kernel.clockMode(), wdmsim::ClockMode::Real);
  auto realStart = std::chrono::steady_clock::now();
  int64_t start = kernel_test::Now();

  KTIMER timer;
  KeInitializeTimer(&timer);
  KeSetTimer(&timer, kernel_test::RelativeMs(30), nullptr);
  EXPECT_EQ(KeWaitForSingleObject(&timer, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
  EXPECT_GE(kernel_test::Now() - start, 30 * 10000);
  EXPECT_GE(std::chrono::steady_clock::now() - realStart, std::chrono::milliseconds(30));

  KEVENT never;
  KeInitializeEvent(&never, NotificationEvent, FALSE);
  LARGE_INTEGER timeout = kernel_test::RelativeMs(20);
  int64_t waitStart = kernel_test::Now();
  EXPECT_EQ(KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, &timeout), STATUS_TIMEOUT);
  EXPECT_GE(kernel_test::Now() - waitStart, 20 * 10000);

  // The system time is today's, not the virtual machine's fixed boot date.
  LARGE_INTEGER system;
  KeQuerySystemTime(&system);
  EXPECT_GT(system.QuadPart, 133444736000000000LL + 365LL * 24 * 3600 * 10000000);

  int64_t advanceStart = kernel_test::Now();
  kernel.Advance(15);
  EXPECT_GE(kernel_test::Now() - advanceStart, 15 * 10000);
}
