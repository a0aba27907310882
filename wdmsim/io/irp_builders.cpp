// IoBuildAsynchronousFsdRequest, IoBuildSynchronousFsdRequest, IoBuildDeviceIoControlRequest:
// IRPs the I/O manager builds for a caller and takes back at completion.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <wdmsim/verifier.h>

#include "io/irp_memory.h"
#include "io/irql_rules.h"

using wdmsim::ReportViolation;
using namespace wdmsim::io;

namespace {

// A system buffer of length bytes holding a copy of source (if any); freed at completion.
void AttachSystemBuffer(PIRP irp, ULONG length, const void* source, ULONG sourceLength) {
  void* buffer = std::calloc(1, length);
  if (source != nullptr && sourceLength > 0) memcpy(buffer, source, sourceLength);
  irp->AssociatedIrp.SystemBuffer = buffer;
  irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
}

// Output the caller will find in its own buffer once the request completes.
void ReturnOutputTo(PIRP irp, PVOID buffer, ULONG length) {
  irp->UserBuffer = buffer;
  irp->Flags |= IRP_INPUT_OPERATION;
  SetUserBufferLength(irp, length);
}

bool AttachMdl(PIRP irp, PVOID buffer, ULONG length) {
  PMDL mdl = IoAllocateMdl(buffer, length, FALSE, FALSE, irp);
  if (mdl == nullptr) return false;
  MmBuildMdlForNonPagedPool(mdl);
  return true;
}

PIRP BuildFsdRequest(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length, PLARGE_INTEGER startingOffset,
                     PIO_STATUS_BLOCK iosb, IrpOrigin origin) {
  switch (major) {
    case IRP_MJ_READ:
    case IRP_MJ_WRITE:
    case IRP_MJ_FLUSH_BUFFERS:
    case IRP_MJ_SHUTDOWN:
    case IRP_MJ_PNP:
    case IRP_MJ_POWER:
      break;
    default:
      ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", device,
                      "IoBuild...FsdRequest with major function 0x%02x, which it cannot build", (unsigned)major);
      return nullptr;
  }
  PIRP irp = AllocateIrp(device->StackSize, origin, false);
  if (irp == nullptr) return nullptr;
  irp->Tail.Overlay.Thread = PsGetCurrentThread();
  irp->RequestorMode = KernelMode;
  irp->UserIosb = iosb;
  PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
  next->MajorFunction = static_cast<UCHAR>(major);
  if (major != IRP_MJ_READ && major != IRP_MJ_WRITE) return irp;

  // Transfers use the buffering method the target device asks for.
  if (device->Flags & DO_BUFFERED_IO) {
    if (length > 0) {
      AttachSystemBuffer(irp, length, major == IRP_MJ_WRITE ? buffer : nullptr, length);
      if (major == IRP_MJ_READ) ReturnOutputTo(irp, buffer, length);
    }
  } else if (device->Flags & DO_DIRECT_IO) {
    if (length > 0 && !AttachMdl(irp, buffer, length)) {
      ReleaseIrp(irp);
      return nullptr;
    }
  } else {
    irp->UserBuffer = buffer;
  }
  next->Parameters.Read.Length = length;
  next->Parameters.Read.ByteOffset.QuadPart = startingOffset != nullptr ? startingOffset->QuadPart : 0;
  return irp;
}

}  // namespace

extern "C" PIRP IoBuildAsynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer,
                                              ULONG Length, PLARGE_INTEGER StartingOffset,
                                              PIO_STATUS_BLOCK IoStatusBlock) {
  IrqlAtMost(DISPATCH_LEVEL, "IoBuildAsynchronousFsdRequest", DeviceObject);
  return BuildFsdRequest(MajorFunction, DeviceObject, Buffer, Length, StartingOffset, IoStatusBlock,
                         IrpOrigin::Asynchronous);
}

extern "C" PIRP IoBuildSynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer,
                                             ULONG Length, PLARGE_INTEGER StartingOffset, PKEVENT Event,
                                             PIO_STATUS_BLOCK IoStatusBlock) {
  IrqlAtMost(PASSIVE_LEVEL, "IoBuildSynchronousFsdRequest", DeviceObject);
  PIRP irp = BuildFsdRequest(MajorFunction, DeviceObject, Buffer, Length, StartingOffset, IoStatusBlock,
                             IrpOrigin::Thread);
  if (irp != nullptr) irp->UserEvent = Event;
  return irp;
}

extern "C" PIRP IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                              ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                              BOOLEAN InternalDeviceIoControl, PKEVENT Event,
                                              PIO_STATUS_BLOCK IoStatusBlock) {
  IrqlAtMost(PASSIVE_LEVEL, "IoBuildDeviceIoControlRequest", DeviceObject);
  PIRP irp = AllocateIrp(DeviceObject->StackSize, IrpOrigin::Thread, false);
  if (irp == nullptr) return nullptr;
  irp->Tail.Overlay.Thread = PsGetCurrentThread();
  irp->RequestorMode = KernelMode;
  irp->UserIosb = IoStatusBlock;
  irp->UserEvent = Event;
  PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
  next->MajorFunction = InternalDeviceIoControl ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
  next->Parameters.DeviceIoControl.OutputBufferLength = OutputBufferLength;
  next->Parameters.DeviceIoControl.InputBufferLength = InputBufferLength;
  next->Parameters.DeviceIoControl.IoControlCode = IoControlCode;

  switch (IoControlCode & 3) {
    case METHOD_BUFFERED:
      // One system buffer carries the input down and the output back up.
      if (InputBufferLength > 0 || OutputBufferLength > 0) {
        AttachSystemBuffer(irp, std::max(InputBufferLength, OutputBufferLength), InputBuffer, InputBufferLength);
        if (OutputBufferLength > 0) ReturnOutputTo(irp, OutputBuffer, OutputBufferLength);
      }
      break;
    case METHOD_IN_DIRECT:
    case METHOD_OUT_DIRECT:
      if (InputBufferLength > 0) AttachSystemBuffer(irp, InputBufferLength, InputBuffer, InputBufferLength);
      if (OutputBufferLength > 0 && !AttachMdl(irp, OutputBuffer, OutputBufferLength)) {
        std::free(irp->AssociatedIrp.SystemBuffer);
        ReleaseIrp(irp);
        return nullptr;
      }
      break;
    case METHOD_NEITHER:
      irp->UserBuffer = OutputBuffer;
      next->Parameters.DeviceIoControl.Type3InputBuffer = InputBuffer;
      break;
  }
  return irp;
}
