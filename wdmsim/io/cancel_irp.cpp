// IoCancelIrp: sets the Cancel flag and calls the cancel routine, if one is set, under the
// cancel spin lock.
#include <wdmsim/verifier.h>

#include "io/irp_tracker.h"
#include "io/irql_rules.h"

#if defined(__SANITIZE_THREAD__)
extern "C" void AnnotateIgnoreWritesBegin(const char* file, int line);
extern "C" void AnnotateIgnoreWritesEnd(const char* file, int line);
#endif

using wdmsim::ReportViolation;
using namespace wdmsim::io;

namespace {

// Drivers read Irp->Cancel without a lock, right after their own exchange of the cancel
// routine; whichever value they see, the exchange decides who owns the IRP. That read
// races with this write by design of the platform, so the race detector is told not to
// record the write.
void SetCancelFlag(PIRP irp) {
#if defined(__SANITIZE_THREAD__)
  AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
#endif
  irp->Cancel = TRUE;
#if defined(__SANITIZE_THREAD__)
  AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
#endif
}

}  // namespace

extern "C" BOOLEAN IoCancelIrp(PIRP Irp) {
  IrqlAtMost(DISPATCH_LEVEL, "IoCancelIrp", Irp);
  IrpOrigin origin;
  if (Irp == nullptr || !LookupIrp(Irp, &origin)) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", Irp, "IoCancelIrp(%p): not an allocated IRP",
                    (void*)Irp);
    return FALSE;
  }
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  SetCancelFlag(Irp);
  PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
  if (routine == nullptr) {
    IoReleaseCancelSpinLock(irql);
    return FALSE;
  }
  if (Irp->CurrentLocation > Irp->StackCount + 1) {
    IoReleaseCancelSpinLock(irql);
    ReportViolation("CANCEL_STATE_IN_COMPLETED_IRP", Irp,
                    "IoCancelIrp(%p): cancel routine %p set on an IRP that was already completed", (void*)Irp,
                    (void*)routine);
    return FALSE;
  }
  // The routine runs holding the cancel spin lock and releases it at CancelIrql.
  Irp->CancelIrql = irql;
  PDEVICE_OBJECT device =
      Irp->CurrentLocation <= Irp->StackCount ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject : nullptr;
  routine(device, Irp);
  return TRUE;
}
