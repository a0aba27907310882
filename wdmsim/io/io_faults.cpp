#include "io/io_faults.h"

#include <atomic>

#include <wdmsim/io.h>

namespace wdmsim {
namespace io {
namespace {

std::atomic<int> gIrpFailures{0};
std::atomic<int> gIrpFailureCountdown{0};  // the allocation at which it reaches 0 fails; 0: off
std::atomic<int> gIrpFailuresInjected{0};
std::atomic<int> gDeviceFailures{0};

bool Consume(std::atomic<int>& remaining) {
  int n = remaining.load();
  while (n > 0) {
    if (remaining.compare_exchange_weak(n, n - 1)) return true;
  }
  return false;
}

}  // namespace

bool ConsumeIrpAllocationFault() {
  bool fail = Consume(gIrpFailures);
  if (!fail) {
    int n = gIrpFailureCountdown.load();
    while (n > 0 && !gIrpFailureCountdown.compare_exchange_weak(n, n - 1)) {
    }
    fail = n == 1;
  }
  if (fail) gIrpFailuresInjected++;
  return fail;
}
bool ConsumeDeviceCreationFault() { return Consume(gDeviceFailures); }

}  // namespace io

void FailIrpAllocations(int count) { io::gIrpFailures = count; }
void FailNthIrpAllocation(int n) { io::gIrpFailureCountdown = n > 0 ? n : 0; }
int InjectedIrpFailures() { return io::gIrpFailuresInjected; }
void FailDeviceCreations(int count) { io::gDeviceFailures = count; }
void ClearIoFaults() {
  io::gIrpFailures = 0;
  io::gIrpFailureCountdown = 0;
  io::gIrpFailuresInjected = 0;
  io::gDeviceFailures = 0;
}

}  // namespace wdmsim
