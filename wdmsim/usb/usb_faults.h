// Fault points of the USB stack (UsbFaultPoint in <wdmsim/usbbus.h>), as the drivers consult them.
#pragma once
#include <wdmsim/usbbus.h>

namespace wdmsim {
namespace usb {

// Uses up one armed point of that fault matching the URB function and endpoint (0xFF:
// the request has none) and counts the hit; false when none matches.
bool TakeFault(UsbFault fault, USHORT urbFunction, uint8_t endpoint, UsbFaultPoint* taken);

}  // namespace usb
}  // namespace wdmsim
