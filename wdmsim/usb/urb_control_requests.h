// The USB device request (setup packet and data stage) that a control URB stands for.
#pragma once
#include <usb.h>
#include <wdmsim/usbdevice.h>

namespace wdmsim {
namespace usb {

struct ControlRequest {
  UsbSetupPacket setup;
  uint8_t* buffer = nullptr;  // the data stage: wLength bytes
  uint32_t length = 0;
};

// USBD_STATUS_INVALID_URB_FUNCTION when the URB is no control request of the default pipe,
// USBD_STATUS_INVALID_PARAMETER when it is malformed (too short, a data stage without buffer).
USBD_STATUS ControlRequestFor(PURB urb, ControlRequest* request);

// The client's buffer: TransferBuffer, else the MDL's system address, else NULL.
uint8_t* TransferBufferOf(PVOID buffer, PMDL mdl);

}  // namespace usb
}  // namespace wdmsim
