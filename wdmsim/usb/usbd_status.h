// The NTSTATUS with which the USB stack completes an IRP whose URB ended with a USBD status.
#pragma once
#include <usb.h>

namespace wdmsim {
namespace usb {

NTSTATUS NtStatusFromUsbd(USBD_STATUS status);

}  // namespace usb
}  // namespace wdmsim
