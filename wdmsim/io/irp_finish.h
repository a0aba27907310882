// What happens to an IRP once its completion has passed the top stack location.
#pragma once
#include <wdm.h>

#include "io/irp_tracker.h"

namespace wdmsim {
namespace io {

// Thread and asynchronous requests go back to their issuer: buffered output is copied to
// the caller's buffer, the system buffer and MDLs are released, the status block is
// written, the event set and the IRP freed. An IRP a driver allocated has no issuer to go
// back to: reaching this point means its owner's completion routine failed to stop the
// completion, which is reported.
void FinishIrp(PIRP irp, IrpOrigin origin, CCHAR priorityBoost);

}  // namespace io
}  // namespace wdmsim
