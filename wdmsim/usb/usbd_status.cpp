// The USB stack's translation of URB outcomes into IRP statuses: parameter errors become
// STATUS_INVALID_PARAMETER, a cancelled transfer STATUS_CANCELLED, a device that left the
// bus STATUS_DEVICE_NOT_CONNECTED, and any transfer error on the wire STATUS_UNSUCCESSFUL.
#include "usb/usbd_status.h"

namespace wdmsim {
namespace usb {

NTSTATUS NtStatusFromUsbd(USBD_STATUS status) {
  switch (status) {
    case USBD_STATUS_SUCCESS:
      return STATUS_SUCCESS;
    case USBD_STATUS_CANCELED:
      return STATUS_CANCELLED;
    case USBD_STATUS_DEVICE_GONE:
      return STATUS_DEVICE_NOT_CONNECTED;
    case USBD_STATUS_INVALID_URB_FUNCTION:
    case USBD_STATUS_INVALID_PARAMETER:
    case USBD_STATUS_INVALID_PIPE_HANDLE:
    case USBD_STATUS_INTERFACE_NOT_FOUND:
    case USBD_STATUS_BUFFER_TOO_SMALL:
      return STATUS_INVALID_PARAMETER;
    case USBD_STATUS_INSUFFICIENT_RESOURCES:
      return STATUS_INSUFFICIENT_RESOURCES;
    case USBD_STATUS_NOT_SUPPORTED:
      return STATUS_NOT_SUPPORTED;
    default:
      return USBD_SUCCESS(status) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
  }
}

}  // namespace usb
}  // namespace wdmsim
