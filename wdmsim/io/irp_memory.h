// How the I/O manager makes and destroys IRPs itself (the NT services are in irp_allocation.cpp).
#pragma once
#include <wdm.h>

#include "io/irp_tracker.h"

namespace wdmsim {
namespace io {

// A zero-filled IRP with stackSize stack locations, initialised and tracked with origin;
// NULL when an injected fault fails it.
PIRP AllocateIrp(CCHAR stackSize, IrpOrigin origin, bool chargeQuota);
// Untracks the IRP and returns its memory (poisoned first, so that a driver still using it
// reads garbage rather than plausible values).
void ReleaseIrp(PIRP irp);
// What IoInitializeIrp writes: zeroes size bytes and sets up an unsent IRP.
void InitializeIrpFields(PIRP irp, USHORT size, CCHAR stackSize);

}  // namespace io
}  // namespace wdmsim
