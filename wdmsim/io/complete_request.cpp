// IofCompleteRequest: the completion walk from the completing driver's stack location up.
#include <wdmsim/verifier.h>

#include "io/irp_finish.h"
#include "io/irp_tracker.h"

using wdmsim::ReportViolation;
using namespace wdmsim::io;

namespace {

bool ShouldInvoke(UCHAR control, NTSTATUS status, BOOLEAN cancelled) {
  return (NT_SUCCESS(status) && (control & SL_INVOKE_ON_SUCCESS)) ||
         (!NT_SUCCESS(status) && (control & SL_INVOKE_ON_ERROR)) || (cancelled && (control & SL_INVOKE_ON_CANCEL));
}

// Contract checks on entry. False when the IRP must not be touched at all.
bool CheckCompletable(PIRP irp, IrpOrigin* origin) {
  KIRQL irql = KeGetCurrentIrql();
  if (irql > DISPATCH_LEVEL) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", irp,
                    "I/O error 0x0E: IoCompleteRequest(%p) called at IRQL %d, above DISPATCH_LEVEL", (void*)irp, irql);
  }
  if (irp == nullptr || !LookupIrp(irp, origin)) {
    ReportViolation("MULTIPLE_IRP_COMPLETE_REQUESTS", irp,
                    "IoCompleteRequest(%p): not an allocated IRP (completed again after it was freed?)", (void*)irp);
    return false;
  }
  // The last walk already went past the top, or brought a driver's own IRP back to its
  // owner: nobody below holds the IRP any more. (A thread request stopped at the top by its
  // issuer's routine is completed once more to let the I/O manager finish it.)
  bool backWithOwner = irp->CurrentLocation == irp->StackCount + 1 &&
                       (*origin == IrpOrigin::Allocated || *origin == IrpOrigin::DriverInitialized) &&
                       HasBeenSent(irp);
  if (irp->CurrentLocation > irp->StackCount + 1 || backWithOwner) {
    ReportViolation("MULTIPLE_IRP_COMPLETE_REQUESTS", irp, "IoCompleteRequest(%p): the IRP was already completed",
                    (void*)irp);
    return false;
  }
  NTSTATUS status = irp->IoStatus.Status;
  if (status == STATUS_PENDING || status == static_cast<NTSTATUS>(0xFFFFFFFF)) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", irp,
                    "I/O error 0x06: IoCompleteRequest(%p) with IoStatus.Status 0x%08x", (void*)irp, (unsigned)status);
  }
  // Taken away so that a later IoCancelIrp cannot call into a completed IRP.
  PDRIVER_CANCEL cancel = IoSetCancelRoutine(irp, nullptr);
  if (cancel != nullptr) {
    ReportViolation("CANCEL_STATE_IN_COMPLETED_IRP", irp,
                    "IoCompleteRequest(%p) while cancel routine %p is still set", (void*)irp, (void*)cancel);
  }
  return true;
}

}  // namespace

extern "C" void FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost) {
  IrpOrigin origin;
  if (!CheckCompletable(Irp, &origin)) return;

  while (Irp->CurrentLocation <= Irp->StackCount) {
    PIO_STACK_LOCATION done = IoGetCurrentIrpStackLocation(Irp);
    bool pending = (done->Control & SL_PENDING_RETURNED) != 0;
    Irp->PendingReturned = pending;
    NoteLocationCompleted(Irp, Irp->CurrentLocation, pending, Irp->IoStatus.Status);

    PIO_COMPLETION_ROUTINE routine = done->CompletionRoutine;
    PVOID context = done->Context;
    bool invoke = routine != nullptr && ShouldInvoke(done->Control, Irp->IoStatus.Status, Irp->Cancel);
    // The location is finished: a driver that reuses it must not find this routine armed.
    done->Control = 0;
    done->CompletionRoutine = nullptr;
    done->Context = nullptr;

    // The routine in a location belongs to the driver one above, whose location becomes
    // current while it runs (none above: the IRP's originator, called with no device).
    IoSkipCurrentIrpStackLocation(Irp);
    if (invoke) {
      PDEVICE_OBJECT owner =
          Irp->CurrentLocation <= Irp->StackCount ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject : nullptr;
      if (routine(owner, Irp, context) == STATUS_MORE_PROCESSING_REQUIRED) return;
      if (!LookupIrp(Irp, &origin)) {
        ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", Irp,
                        "completion routine %p freed IRP %p but did not return STATUS_MORE_PROCESSING_REQUIRED",
                        (void*)routine, (void*)Irp);
        return;
      }
    } else if (pending && Irp->CurrentLocation <= Irp->StackCount) {
      // Without a routine to do it, the I/O manager carries the pending mark upward.
      IoMarkIrpPending(Irp);
    }
  }
  // One step past the top marks the IRP as completed for good.
  Irp->CurrentLocation++;
  Irp->Tail.Overlay.CurrentStackLocation++;
  FinishIrp(Irp, origin, PriorityBoost);
}
