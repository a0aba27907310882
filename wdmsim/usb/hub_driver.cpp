// usbhub: the driver object "\Driver\usbhub". Its device objects are hub FDOs and the PDOs
// of the devices on their ports; each request goes to the record behind the device object.
#include <wdmsim/usbbus.h>

#include "usb/device_pdo.h"
#include "usb/hub_fdo.h"
#include "usb/usb_extension.h"

namespace wdmsim {
namespace usb {
namespace {

NTSTATUS NTAPI HubAddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) { return HubFdo::AddDevice(driver, pdo); }

// A request for an object whose record is gone (a PDO between its removal and deletion).
NTSTATUS NoSuchDevice(PIRP irp) {
  if (IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_POWER) PoStartNextPowerIrp(irp);
  return CompleteIrp(irp, STATUS_NO_SUCH_DEVICE);
}

NTSTATUS DispatchToFdo(HubFdo* fdo, PIRP irp) {
  switch (IoGetCurrentIrpStackLocation(irp)->MajorFunction) {
    case IRP_MJ_PNP:
      return fdo->DispatchPnp(irp);
    case IRP_MJ_POWER:
      return fdo->DispatchPower(irp);
    case IRP_MJ_DEVICE_CONTROL:
      return fdo->DispatchDeviceControl(irp);
    default:
      return fdo->PassDown(irp);
  }
}

NTSTATUS DispatchToPdo(DevicePdo* pdo, PIRP irp) {
  switch (IoGetCurrentIrpStackLocation(irp)->MajorFunction) {
    case IRP_MJ_PNP:
      return pdo->DispatchPnp(irp);
    case IRP_MJ_POWER:
      return pdo->DispatchPower(irp);
    case IRP_MJ_INTERNAL_DEVICE_CONTROL:
      return pdo->DispatchInternalControl(irp);
    case IRP_MJ_CREATE:
    case IRP_MJ_CLOSE:
      irp->IoStatus.Information = 0;
      return CompleteIrp(irp, STATUS_SUCCESS);
    default:
      irp->IoStatus.Information = 0;
      return CompleteIrp(irp, STATUS_INVALID_DEVICE_REQUEST);
  }
}

NTSTATUS NTAPI HubDispatch(PDEVICE_OBJECT device, PIRP irp) {
  UsbExtension* extension = ExtensionOf(device);
  if (extension->record == nullptr) return NoSuchDevice(irp);
  if (extension->kind == UsbObjectKind::HubFdo) return DispatchToFdo(static_cast<HubFdo*>(extension->record), irp);
  return DispatchToPdo(static_cast<DevicePdo*>(extension->record), irp);
}

// Nothing global to release: every device object goes with its own removal.
void NTAPI HubUnload(PDRIVER_OBJECT) {}

}  // namespace
}  // namespace usb

NTSTATUS NTAPI UsbHubDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
  for (PDRIVER_DISPATCH& dispatch : driver->MajorFunction) dispatch = usb::HubDispatch;
  driver->DriverExtension->AddDevice = usb::HubAddDevice;
  driver->DriverUnload = usb::HubUnload;
  return STATUS_SUCCESS;
}

}  // namespace wdmsim
