// Spin locks: real mutual exclusion on the driver's KSPIN_LOCK, which holds the owning
// thread object's address with the low bit set (as checked builds of Windows keep it).
#pragma once
#include <wdm.h>

#include "kernel/threads.h"

namespace wdmsim {
namespace kernel {
namespace spinlocks {

// Lowering below DISPATCH_LEVEL while still holding a spin lock is reported.
void CheckLowering(ThreadRecord* self, KIRQL newIrql, const char* service);
// Spin locks a thread still holds where it must hold none (a DPC or work item returning).
void ReportHeld(ThreadRecord* self, const char* bugcheck, const char* where);
// A new machine starts with the cancel spin lock free.
void Reset();

}  // namespace spinlocks
}  // namespace kernel
}  // namespace wdmsim
