#include "io/irp_finish.h"

#include <cstdlib>
#include <cstring>

#include <wdmsim/verifier.h>

#include "io/irp_memory.h"

namespace wdmsim {
namespace io {
namespace {

void CopyBufferedOutput(PIRP irp) {
  if ((irp->Flags & IRP_BUFFERED_IO) == 0) return;
  void* systemBuffer = irp->AssociatedIrp.SystemBuffer;
  if ((irp->Flags & IRP_INPUT_OPERATION) && !NT_ERROR(irp->IoStatus.Status) && irp->UserBuffer != nullptr &&
      systemBuffer != nullptr) {
    ULONG_PTR length = irp->IoStatus.Information;
    ULONG capacity = UserBufferLength(irp);
    if (length > capacity) {
      ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", irp,
                      "IRP %p completed with IoStatus.Information %lu, more than the %u-byte output buffer",
                      (void*)irp, (unsigned long)length, capacity);
      length = capacity;
    }
    memcpy(irp->UserBuffer, systemBuffer, length);
  }
  if (irp->Flags & IRP_DEALLOCATE_BUFFER) {
    std::free(systemBuffer);
    irp->AssociatedIrp.SystemBuffer = nullptr;
  }
}

void FreeMdls(PIRP irp) {
  PMDL mdl = irp->MdlAddress;
  irp->MdlAddress = nullptr;
  while (mdl != nullptr) {
    PMDL next = mdl->Next;
    IoFreeMdl(mdl);
    mdl = next;
  }
}

}  // namespace

void FinishIrp(PIRP irp, IrpOrigin origin, CCHAR priorityBoost) {
  if (origin == IrpOrigin::Allocated || origin == IrpOrigin::DriverInitialized) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", irp,
                    "IRP %p (%s) was completed past its top stack location: the completion routine of the "
                    "driver that owns it must return STATUS_MORE_PROCESSING_REQUIRED and free or reuse it",
                    (void*)irp, OriginName(origin));
    return;
  }
  CopyBufferedOutput(irp);
  FreeMdls(irp);
  // The status block first: the waiter may leave (and reuse its stack) once the event is set.
  if (irp->UserIosb != nullptr) *irp->UserIosb = irp->IoStatus;
  PKEVENT event = irp->UserEvent;
  ReleaseIrp(irp);
  if (event != nullptr) KeSetEvent(event, priorityBoost, FALSE);
}

}  // namespace io
}  // namespace wdmsim
