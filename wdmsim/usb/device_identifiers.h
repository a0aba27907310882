// What the hub reports for a device to the PnP manager, computed from its descriptors and
// its place on the bus, the way the Windows hub driver forms them.
#pragma once
#include <string>
#include <vector>

#include <wdmsim/usbdevice.h>

namespace wdmsim {
namespace usb {

struct UsbDeviceIdentifiers {
  std::u16string deviceId;                    // USB\VID_xxxx&PID_xxxx
  std::vector<std::u16string> hardwareIds;    // ...&REV_xxxx, then the device identifier
  std::vector<std::u16string> compatibleIds;  // class identifiers, or USB\DevClass_... + USB\COMPOSITE
  std::u16string instanceId;                  // the serial number, or a port-based instance
  std::u16string description;                 // iProduct, or a generic text
  std::u16string location;                    // Port_#0001.Hub_#0001
  bool uniqueInstance = false;                // instanceId is the device's serial number
  bool composite = false;                     // the generic parent would load on it

  std::u16string InstancePath() const { return deviceId + u"\\" + instanceId; }
};

UsbDeviceIdentifiers IdentifyUsbDevice(const UsbDeviceDescription& description, int hub, int port);

}  // namespace usb
}  // namespace wdmsim
