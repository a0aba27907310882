// The host API's view into a device PDO's stack state, for tests.
#include <wdmsim/io.h>
#include <wdmsim/usbbus.h>

#include "usb/device_pdo.h"

namespace wdmsim {
namespace {

// Under the bus lock: the record behind a live device PDO of usbhub, or NULL.
usb::DevicePdo* RecordLocked(PDEVICE_OBJECT pdo) {
  if (pdo == nullptr || !IsLiveDeviceObject(pdo)) return nullptr;
  for (auto& hub : usb::TheBus().hubs) {
    for (usb::DevicePdo* child : hub->children) {
      if (child->Self() == pdo) return child;
    }
  }
  return nullptr;
}

}  // namespace

std::vector<USHORT> TakeUsbUrbLog(PDEVICE_OBJECT pdo) {
  auto guard = usb::LockBus();
  std::vector<USHORT> log;
  if (usb::DevicePdo* record = RecordLocked(pdo)) log.swap(record->urbLog);
  return log;
}

bool IsCurrentUsbPipeHandle(PDEVICE_OBJECT pdo, USBD_PIPE_HANDLE handle) {
  auto guard = usb::LockBus();
  usb::DevicePdo* record = RecordLocked(pdo);
  return record != nullptr && record->selection.FindPipe(handle) != nullptr;
}

USBD_CONFIGURATION_HANDLE CurrentUsbConfigurationHandle(PDEVICE_OBJECT pdo) {
  auto guard = usb::LockBus();
  usb::DevicePdo* record = RecordLocked(pdo);
  return record != nullptr ? record->selection.configuration : nullptr;
}

}  // namespace wdmsim
