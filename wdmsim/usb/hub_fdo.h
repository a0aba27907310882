// usbhub's function device object on a hub PDO: the bus driver of the hub's ports.
#pragma once
#include <wdm.h>

#include "usb/bus_model.h"

namespace wdmsim {
namespace usb {

class HubFdo {
 public:
  // usbhub's AddDevice: the hub whose PDO this is gets its FDO.
  static NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);

  NTSTATUS DispatchPnp(PIRP irp);
  NTSTATUS DispatchPower(PIRP irp);
  NTSTATUS DispatchDeviceControl(PIRP irp);
  NTSTATUS PassDown(PIRP irp);

 private:
  HubFdo(PDEVICE_OBJECT self, PDEVICE_OBJECT lower, Hub* hub) : mSelf(self), mLower(lower), mHub(hub) {}

  NTSTATUS StartDevice(PIRP irp);
  NTSTATUS QueryBusRelations(PIRP irp);
  NTSTATUS RemoveDevice(PIRP irp);
  NTSTATUS NodeInformation(PIRP irp);

  PDEVICE_OBJECT mSelf;
  PDEVICE_OBJECT mLower;
  Hub* mHub;
};

}  // namespace usb
}  // namespace wdmsim
