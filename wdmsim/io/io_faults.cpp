#include "io/io_faults.h"

#include <atomic>

#include <wdmsim/io.h>

namespace wdmsim {
namespace io {
namespace {

std::atomic<int> gIrpFailures{0};
std::atomic<int> gDeviceFailures{0};

bool Consume(std::atomic<int>& remaining) {
  int n = remaining.load();
  while (n > 0) {
    if (remaining.compare_exchange_weak(n, n - 1)) return true;
  }
  return false;
}

}  // namespace

bool ConsumeIrpAllocationFault() { return Consume(gIrpFailures); }
bool ConsumeDeviceCreationFault() { return Consume(gDeviceFailures); }

}  // namespace io

void FailIrpAllocations(int count) { io::gIrpFailures = count; }
void FailDeviceCreations(int count) { io::gDeviceFailures = count; }
void ClearIoFaults() {
  io::gIrpFailures = 0;
  io::gDeviceFailures = 0;
}

}  // namespace wdmsim
