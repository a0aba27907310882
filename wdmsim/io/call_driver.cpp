// IofCallDriver: hands an IRP to the driver of a device object at the next stack location.
#include <wdmsim/io.h>
#include <wdmsim/verifier.h>

#include "io/irp_tracker.h"

using wdmsim::ReportViolation;
using namespace wdmsim::io;

namespace {

const char kIoViolation[] = "DRIVER_VERIFIER_IOMANAGER_VIOLATION";

// A request that cannot be delivered stays with its caller, untouched: Windows would stop
// here; the simulation reports and lets the caller go on with an error status.
NTSTATUS Refuse(PIRP irp, const char* bugcheck, const void* culprit, const char* what, PDEVICE_OBJECT device) {
  ReportViolation(bugcheck, culprit, "IoCallDriver(%p, IRP %p): %s", (void*)device, (void*)irp, what);
  return STATUS_INVALID_PARAMETER;
}

}  // namespace

extern "C" NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  KIRQL irql = KeGetCurrentIrql();
  if (irql > DISPATCH_LEVEL) {
    ReportViolation(kIoViolation, Irp, "I/O error 0x10: IoCallDriver called at IRQL %d, above DISPATCH_LEVEL", irql);
  }
  IrpOrigin origin;
  if (Irp == nullptr || !LookupIrp(Irp, &origin)) {
    return Refuse(Irp, kIoViolation, Irp, "I/O error 0x03: not an allocated IRP", DeviceObject);
  }
  if (DeviceObject == nullptr) {
    return Refuse(Irp, kIoViolation, Irp, "I/O error 0x204: NULL device object", DeviceObject);
  }
  if (!wdmsim::IsLiveDeviceObject(DeviceObject)) {
    return Refuse(Irp, kIoViolation, DeviceObject, "I/O error 0x04: not a device object", DeviceObject);
  }
  if (Irp->CurrentLocation <= 1) {
    return Refuse(Irp, "NO_MORE_IRP_STACK_LOCATIONS", Irp, "no stack location left for the next driver",
                  DeviceObject);
  }
  if (Irp->CancelRoutine != nullptr) {
    ReportViolation(kIoViolation, Irp, "I/O error 0x203: IoCallDriver(%p, IRP %p) with cancel routine %p still set",
                    (void*)DeviceObject, (void*)Irp, (void*)Irp->CancelRoutine);
  }
  PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
  UCHAR major = next->MajorFunction;
  PDRIVER_DISPATCH dispatch =
      major <= IRP_MJ_MAXIMUM_FUNCTION ? DeviceObject->DriverObject->MajorFunction[major] : nullptr;
  if (dispatch == nullptr) {
    return Refuse(Irp, kIoViolation, Irp, "I/O error 0x21F: no dispatch routine for the major function",
                  DeviceObject);
  }

  IoSetNextIrpStackLocation(Irp);
  next->DeviceObject = DeviceObject;
  DispatchFrame* frame = BeginDispatch(Irp, Irp->CurrentLocation, DeviceObject, major, next->MinorFunction);
  NTSTATUS status = dispatch(DeviceObject, Irp);
  // From here on the IRP may be completed and gone: only the frame is consulted.
  KIRQL after = KeGetCurrentIrql();
  if (after != irql) {
    ReportViolation(kIoViolation, DeviceObject,
                    "I/O error 0x05: dispatch routine of device %p (major 0x%02x) returned at IRQL %d, called at %d",
                    (void*)DeviceObject, major, after, irql);
  }
  EndDispatch(Irp, frame, status);
  return status;
}
