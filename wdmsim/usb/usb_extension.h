// The device extension of every device object the two USB drivers create: what kind of
// object it is and the record behind it.
#pragma once
#include <wdm.h>

namespace wdmsim {
namespace usb {

enum class UsbObjectKind : ULONG {
  RootHubPdo = 0x50485452,  // "RTHP", host-controller driver; record: the hub number
  HubFdo = 0x4F464248,      // "HBFO", usbhub; record: HubFdo
  DevicePdo = 0x4F505644,   // "DVPO", usbhub; record: DevicePdo
};

struct UsbExtension {
  UsbObjectKind kind;
  void* record;  // NULL once the record is gone
};

inline UsbExtension* ExtensionOf(PDEVICE_OBJECT device) {
  return static_cast<UsbExtension*>(device->DeviceExtension);
}

// Completes the IRP with the status (Information untouched) and returns the status.
inline NTSTATUS CompleteIrp(PIRP irp, NTSTATUS status) {
  irp->IoStatus.Status = status;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

}  // namespace usb
}  // namespace wdmsim
