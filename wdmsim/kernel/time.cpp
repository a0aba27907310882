// The time services, all read from the simulated clock.
#include <wdm.h>

#include "kernel/clock.h"
#include "kernel/threads.h"

using namespace wdmsim::kernel;

extern "C" void KeQuerySystemTime(PLARGE_INTEGER CurrentTime) {
  CurrentThread();
  CurrentTime->QuadPart = clock::SystemTime();
}

extern "C" void KeQueryTickCount(PLARGE_INTEGER TickCount) {
  CurrentThread();
  TickCount->QuadPart = clock::InterruptTime() / kTimeIncrement;
}

extern "C" ULONG KeQueryTimeIncrement(void) {
  CurrentThread();
  return kTimeIncrement;
}

extern "C" ULONGLONG KeQueryInterruptTime(void) {
  CurrentThread();
  return static_cast<ULONGLONG>(clock::InterruptTime());
}

// A 10 MHz counter: one count per 100 ns of interrupt time.
extern "C" LARGE_INTEGER KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency) {
  CurrentThread();
  if (PerformanceFrequency != nullptr) PerformanceFrequency->QuadPart = kPerformanceFrequency;
  LARGE_INTEGER counter;
  counter.QuadPart = clock::InterruptTime();
  return counter;
}
