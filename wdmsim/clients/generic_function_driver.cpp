// A generic WDM function driver: one FDO per device, no I/O of its own. It follows the
// WDM rules a function driver must follow for PnP and power, and nothing more.
#include <wdm.h>

#include <wdmsim/clients.h>

namespace {

constexpr ULONG kRemoveLockTag = 0x466E6547;  // "GenF"

struct GenericExtension {
  PDEVICE_OBJECT lowerDevice;
  IO_REMOVE_LOCK removeLock;
};

GenericExtension* ExtensionOf(PDEVICE_OBJECT device) { return static_cast<GenericExtension*>(device->DeviceExtension); }

NTSTATUS NTAPI SignalStartDone(PDEVICE_OBJECT, PIRP irp, PVOID context) {
  // The start is finished by the dispatch routine once the lower drivers are done.
  if (irp->PendingReturned) KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

// Every request holds the remove lock while it is in this driver; one that arrives after
// the remove has begun is failed here.
bool EnterDriver(GenericExtension* ext, PIRP irp, NTSTATUS* status) {
  *status = IoAcquireRemoveLock(&ext->removeLock, irp);
  if (NT_SUCCESS(*status)) return true;
  irp->IoStatus.Status = *status;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return false;
}

NTSTATUS PassDown(GenericExtension* ext, PIRP irp) {
  IoSkipCurrentIrpStackLocation(irp);
  NTSTATUS status = IoCallDriver(ext->lowerDevice, irp);
  IoReleaseRemoveLock(&ext->removeLock, irp);
  return status;
}

// The lower drivers must have started the device before its function driver uses it.
NTSTATUS StartDevice(GenericExtension* ext, PIRP irp) {
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IoCopyCurrentIrpStackLocationToNext(irp);
  IoSetCompletionRoutine(irp, SignalStartDone, &done, TRUE, TRUE, TRUE);
  if (IoCallDriver(ext->lowerDevice, irp) == STATUS_PENDING) {
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  }
  NTSTATUS status = irp->IoStatus.Status;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  IoReleaseRemoveLock(&ext->removeLock, irp);
  return status;
}

NTSTATUS RemoveDevice(PDEVICE_OBJECT device, GenericExtension* ext, PIRP irp) {
  // Wait for every request still in this driver before the device object goes.
  IoReleaseRemoveLockAndWait(&ext->removeLock, irp);
  irp->IoStatus.Status = STATUS_SUCCESS;
  IoSkipCurrentIrpStackLocation(irp);
  NTSTATUS status = IoCallDriver(ext->lowerDevice, irp);
  IoDetachDevice(ext->lowerDevice);
  IoDeleteDevice(device);
  return status;
}

NTSTATUS NTAPI DispatchPnp(PDEVICE_OBJECT device, PIRP irp) {
  GenericExtension* ext = ExtensionOf(device);
  NTSTATUS status;
  if (!EnterDriver(ext, irp, &status)) return status;
  switch (IoGetCurrentIrpStackLocation(irp)->MinorFunction) {
    case IRP_MN_START_DEVICE:
      return StartDevice(ext, irp);
    case IRP_MN_REMOVE_DEVICE:
      return RemoveDevice(device, ext, irp);
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL:
      // Nothing of its own to hold or release: the driver agrees and tells the bus.
      irp->IoStatus.Status = STATUS_SUCCESS;
      return PassDown(ext, irp);
    default:
      return PassDown(ext, irp);
  }
}

NTSTATUS NTAPI DispatchPower(PDEVICE_OBJECT device, PIRP irp) {
  GenericExtension* ext = ExtensionOf(device);
  PoStartNextPowerIrp(irp);
  NTSTATUS status;
  if (!EnterDriver(ext, irp, &status)) return status;
  IoSkipCurrentIrpStackLocation(irp);
  status = PoCallDriver(ext->lowerDevice, irp);
  IoReleaseRemoveLock(&ext->removeLock, irp);
  return status;
}

NTSTATUS NTAPI DispatchOther(PDEVICE_OBJECT device, PIRP irp) {
  GenericExtension* ext = ExtensionOf(device);
  NTSTATUS status;
  if (!EnterDriver(ext, irp, &status)) return status;
  return PassDown(ext, irp);
}

NTSTATUS NTAPI AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
  PDEVICE_OBJECT device;
  NTSTATUS status = IoCreateDevice(driver, sizeof(GenericExtension), nullptr, FILE_DEVICE_UNKNOWN,
                                   FILE_DEVICE_SECURE_OPEN, FALSE, &device);
  if (!NT_SUCCESS(status)) return status;
  GenericExtension* ext = ExtensionOf(device);
  IoInitializeRemoveLock(&ext->removeLock, kRemoveLockTag, 0, 0);
  ext->lowerDevice = IoAttachDeviceToDeviceStack(device, pdo);
  if (ext->lowerDevice == nullptr) {
    IoDeleteDevice(device);
    return STATUS_NO_SUCH_DEVICE;
  }
  device->Flags |= DO_POWER_PAGABLE;
  device->Flags &= ~DO_DEVICE_INITIALIZING;
  return STATUS_SUCCESS;
}

void NTAPI Unload(PDRIVER_OBJECT) {}

}  // namespace

NTSTATUS NTAPI wdmsim::GenericFunctionDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
  for (PDRIVER_DISPATCH& dispatch : driver->MajorFunction) dispatch = DispatchOther;
  driver->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
  driver->MajorFunction[IRP_MJ_POWER] = DispatchPower;
  driver->DriverExtension->AddDevice = AddDevice;
  driver->DriverUnload = Unload;
  return STATUS_SUCCESS;
}
