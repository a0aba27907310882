#include "kernel/clock.h"

#include <atomic>

namespace wdmsim {
namespace kernel {
namespace clock {
namespace {

// 2023-11-14 22:13:20 UTC: a fixed, plausible boot date keeps virtual runs reproducible.
constexpr int64_t kVirtualBootSystemTime = (11644473600LL + 1700000000LL) * 10000000LL;
// Seconds from 1601-01-01 to 1970-01-01, the host clock's epoch.
constexpr int64_t kUnixEpochSystemTime = 11644473600LL * 10000000LL;

std::atomic<ClockMode> gMode{ClockMode::Virtual};
std::atomic<int64_t> gVirtualNow{0};
std::atomic<int64_t> gBootSystemTime{kVirtualBootSystemTime};
std::chrono::steady_clock::time_point gRealBoot;  // written only by Reset, before threads start

int64_t RealInterruptTime() {
  auto elapsed = std::chrono::steady_clock::now() - gRealBoot;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() / 100;
}

}  // namespace

void Reset(ClockMode mode) {
  gMode = mode;
  gVirtualNow = 0;
  if (mode == ClockMode::Virtual) {
    gBootSystemTime = kVirtualBootSystemTime;
    return;
  }
  gRealBoot = std::chrono::steady_clock::now();
  auto sinceUnixEpoch = std::chrono::system_clock::now().time_since_epoch();
  gBootSystemTime =
      kUnixEpochSystemTime + std::chrono::duration_cast<std::chrono::nanoseconds>(sinceUnixEpoch).count() / 100;
}

ClockMode Mode() { return gMode; }

int64_t InterruptTime() { return gMode == ClockMode::Virtual ? gVirtualNow.load() : RealInterruptTime(); }

int64_t SystemTime() { return gBootSystemTime + InterruptTime(); }

int64_t BootSystemTime() { return gBootSystemTime; }

int64_t DeadlineFromDueTime(int64_t dueTime) {
  if (dueTime < 0) {
    int64_t now = InterruptTime();
    // A relative time so large that it would overflow means "never" in practice.
    return (-dueTime > kNoDeadline - now) ? kNoDeadline : now - dueTime;
  }
  return dueTime - gBootSystemTime;
}

void AdvanceTo(int64_t interruptTime) {
  int64_t now = gVirtualNow.load();
  while (interruptTime > now && !gVirtualNow.compare_exchange_weak(now, interruptTime)) {
  }
}

std::chrono::steady_clock::time_point RealTimePoint(int64_t interruptTime) {
  // Saturate: a far deadline must not overflow the host clock's representation.
  constexpr int64_t kFarFuture = INT64_MAX / 1000;
  int64_t units = interruptTime > kFarFuture ? kFarFuture : interruptTime;
  return gRealBoot + std::chrono::nanoseconds(units * 100);
}

}  // namespace clock
}  // namespace kernel
}  // namespace wdmsim
