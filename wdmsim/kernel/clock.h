// The simulated machine's clock. Every deadline inside the kernel (timers, timed waits)
// is kept in interrupt time: 100 ns units since the machine booted. System time is the
// boot moment plus interrupt time.
//
// Virtual mode: time stands still until the scheduler moves it (scheduler.cpp), so a
// 20-second hold-off costs no real time. Real mode: both follow the host's clocks.
#pragma once
#include <wdm.h>

#include <chrono>
#include <cstdint>

#include <wdmsim/kernel.h>

namespace wdmsim {
namespace kernel {

constexpr int64_t kNoDeadline = INT64_MAX;
constexpr int64_t kUnitsPerMs = 10000;
constexpr ULONG kTimeIncrement = 156250;  // the classic 15.625 ms clock tick
constexpr int64_t kPerformanceFrequency = 10000000;

namespace clock {

void Reset(ClockMode mode);
ClockMode Mode();

int64_t InterruptTime();
int64_t SystemTime();
int64_t BootSystemTime();

// An NT due time (negative: relative to now; positive: absolute system time) as the
// interrupt time at which it expires.
int64_t DeadlineFromDueTime(int64_t dueTime);

// Virtual mode: moves time forward to the given interrupt time (never backwards).
void AdvanceTo(int64_t interruptTime);

// Real mode: the host moment at which an interrupt time is reached.
std::chrono::steady_clock::time_point RealTimePoint(int64_t interruptTime);

}  // namespace clock
}  // namespace kernel
}  // namespace wdmsim
