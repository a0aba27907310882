// Internal device control requests at a device PDO: URBs, the port's status, the port cycle
// and the parent hub. A device that left the bus fails them with STATUS_DEVICE_NOT_CONNECTED.
#include <usbioctl.h>
#include <wdmsim/verifier.h>

#include "usb/device_pdo.h"
#include "usb/urb_control_requests.h"
#include "usb/usb_extension.h"
#include "usb/usb_faults.h"

namespace wdmsim {
namespace usb {

NTSTATUS DevicePdo::DispatchInternalControl(PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  irp->IoStatus.Information = 0;
  switch (stack->Parameters.DeviceIoControl.IoControlCode) {
    case IOCTL_INTERNAL_USB_SUBMIT_URB:
      return SubmitUrb(irp, static_cast<PURB>(stack->Parameters.Others.Argument1));
    case IOCTL_INTERNAL_USB_GET_PORT_STATUS: {
      auto* status = static_cast<PULONG>(stack->Parameters.Others.Argument1);
      if (status == nullptr) return CompleteIrp(irp, STATUS_INVALID_PARAMETER);
      auto guard = LockBus();
      *status = present && !mFirmware->IsDisconnected() ? USBD_PORT_ENABLED | USBD_PORT_CONNECTED : 0;
      guard.unlock();
      return CompleteIrp(irp, STATUS_SUCCESS);
    }
    case IOCTL_INTERNAL_USB_CYCLE_PORT:
      return CyclePort(irp);
    case IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO: {
      // Argument1 receives the device object of the hub the device is plugged into: the
      // root hub PDO (host-controller driver) or an external hub's PDO (usbhub).
      auto* parent = static_cast<PDEVICE_OBJECT*>(stack->Parameters.Others.Argument1);
      if (parent == nullptr) return CompleteIrp(irp, STATUS_INVALID_PARAMETER);
      auto guard = LockBus();
      *parent = mHub->pdo;
      guard.unlock();
      return CompleteIrp(irp, STATUS_SUCCESS);
    }
    default:
      return CompleteIrp(irp, STATUS_NOT_SUPPORTED);
  }
}

// The hub simulates an unplug and re-plug: this PDO is reported missing from now on and a
// new one, for the reset device, appears on the same port.
NTSTATUS DevicePdo::CyclePort(PIRP irp) {
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
    ReportViolation("IRQL_NOT_LESS_OR_EQUAL", irp, "IOCTL_INTERNAL_USB_CYCLE_PORT sent at IRQL %d",
                    KeGetCurrentIrql());
    return CompleteIrp(irp, STATUS_INVALID_DEVICE_STATE);
  }
  Hub* hub = mHub;
  const int port = mPort;
  {
    auto guard = LockBus();
    if (!present) {
      guard.unlock();
      return CompleteIrp(irp, STATUS_DEVICE_NOT_CONNECTED);
    }
  }
  CompleteIrp(irp, STATUS_SUCCESS);  // this PDO may be gone once the port is enumerated anew
  RetirePortPdo(hub, port);
  if (EnumeratePort(hub, port)) {
    auto guard = LockBus();
    PDEVICE_OBJECT hubPdo = hub->pdo;
    guard.unlock();
    IoInvalidateDeviceRelations(hubPdo, BusRelations);
  }
  return STATUS_SUCCESS;
}

NTSTATUS DevicePdo::SubmitUrb(PIRP irp, PURB urb) {
  if (urb == nullptr) return CompleteIrp(irp, STATUS_INVALID_PARAMETER);
  {
    auto guard = LockBus();
    urbLog.push_back(urb->UrbHeader.Function);
  }
  UsbFaultPoint fault;
  if (TakeFault(UsbFault::FailUrb, urb->UrbHeader.Function, 0xFF, &fault)) {
    urb->UrbHeader.Status = fault.urbStatus;
    return CompleteIrp(irp, fault.irpStatus);
  }
  {
    auto guard = LockBus();
    if (!present) {
      guard.unlock();
      return CompleteUrb(irp, urb, USBD_STATUS_DEVICE_GONE);
    }
  }
  switch (urb->UrbHeader.Function) {
    case URB_FUNCTION_SELECT_CONFIGURATION:
      return SelectConfiguration(irp, urb);
    case URB_FUNCTION_SELECT_INTERFACE:
      return SelectInterface(irp, urb);
    case URB_FUNCTION_ABORT_PIPE:
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
    case URB_FUNCTION_SYNC_RESET_PIPE:
    case URB_FUNCTION_SYNC_CLEAR_STALL:
      return PipeRequest(irp, urb);
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
      return DataTransfer(irp, urb);
    case URB_FUNCTION_GET_CURRENT_FRAME_NUMBER:
      if (urb->UrbHeader.Length < sizeof(_URB_GET_CURRENT_FRAME_NUMBER)) {
        return CompleteUrb(irp, urb, USBD_STATUS_INVALID_PARAMETER);
      }
      urb->UrbGetCurrentFrameNumber.FrameNumber = static_cast<ULONG>(KeQueryInterruptTime() / 10000);  // 1 ms frames
      return CompleteUrb(irp, urb, USBD_STATUS_SUCCESS);
    default:
      return ControlTransfer(irp, urb);
  }
}

NTSTATUS DevicePdo::PipeRequest(PIRP irp, PURB urb) {
  if (urb->UrbHeader.Length < sizeof(_URB_PIPE_REQUEST)) return CompleteUrb(irp, urb, USBD_STATUS_INVALID_PARAMETER);
  uint8_t endpoint;
  {
    auto guard = LockBus();
    const SelectedPipe* pipe = selection.FindPipe(urb->UrbPipeRequest.PipeHandle);
    if (pipe == nullptr) {
      guard.unlock();
      return CompleteUrb(irp, urb, USBD_STATUS_INVALID_PIPE_HANDLE);
    }
    endpoint = pipe->information.EndpointAddress;
  }
  const USHORT function = urb->UrbHeader.Function;
  if (function == URB_FUNCTION_ABORT_PIPE) return mEngine.Abort(endpoint, irp);
  if (function == URB_FUNCTION_SYNC_RESET_PIPE) {  // the host side only
    mEngine.SetHalted(endpoint, false);
    return CompleteUrb(irp, urb, USBD_STATUS_SUCCESS);
  }
  // CLEAR_FEATURE(ENDPOINT_HALT) on the control pipe; the reset form also lifts the host's
  // halt once the device cleared its own, a bare clear-stall leaves the host's as it is.
  auto transfer = std::make_unique<Transfer>();
  transfer->irp = irp;
  transfer->urb = urb;
  transfer->purpose = TransferPurpose::ResetPipe;
  transfer->control = true;
  transfer->target = function == URB_FUNCTION_SYNC_CLEAR_STALL ? 0xFF : endpoint;
  transfer->setup.bmRequestType = 0x02;
  transfer->setup.bRequest = USB_REQUEST_CLEAR_FEATURE;
  transfer->setup.wValue = USB_FEATURE_ENDPOINT_STALL;
  transfer->setup.wIndex = endpoint;
  return mEngine.Submit(std::move(transfer));
}

// Direction comes from the pipe, not from the client's flags, as the stack does it. The
// controller is an EHCI one, which ignores USBD_SHORT_TRANSFER_OK on bulk and interrupt
// pipes: a short packet ends the transfer without an error, whatever the flag says.
NTSTATUS DevicePdo::DataTransfer(PIRP irp, PURB urb) {
  auto& request = urb->UrbBulkOrInterruptTransfer;
  if (urb->UrbHeader.Length < sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER)) {
    return CompleteUrb(irp, urb, USBD_STATUS_INVALID_PARAMETER);
  }
  USBD_PIPE_INFORMATION pipe;
  {
    auto guard = LockBus();
    const SelectedPipe* selected = selection.FindPipe(request.PipeHandle);
    if (selected == nullptr) {
      guard.unlock();
      return CompleteUrb(irp, urb, USBD_STATUS_INVALID_PIPE_HANDLE);
    }
    pipe = selected->information;
  }
  if (pipe.PipeType != UsbdPipeTypeBulk && pipe.PipeType != UsbdPipeTypeInterrupt) {
    return CompleteUrb(irp, urb, USBD_STATUS_INVALID_PARAMETER);
  }
  auto transfer = std::make_unique<Transfer>();
  transfer->irp = irp;
  transfer->urb = urb;
  transfer->endpoint = pipe.EndpointAddress;
  transfer->in = USBD_PIPE_DIRECTION_IN(&pipe) != 0;
  if (transfer->in) {
    request.TransferFlags |= USBD_TRANSFER_DIRECTION_IN;
  } else {
    request.TransferFlags &= ~USBD_TRANSFER_DIRECTION_IN;
  }
  transfer->length = request.TransferBufferLength;
  transfer->buffer = TransferBufferOf(request.TransferBuffer, request.TransferBufferMDL);
  if (transfer->length > 0 && transfer->buffer == nullptr) return CompleteUrb(irp, urb, USBD_STATUS_INVALID_PARAMETER);
  return mEngine.Submit(std::move(transfer));
}

NTSTATUS DevicePdo::ControlTransfer(PIRP irp, PURB urb) {
  ControlRequest request;
  USBD_STATUS status = ControlRequestFor(urb, &request);
  if (!USBD_SUCCESS(status)) return CompleteUrb(irp, urb, status);
  auto transfer = std::make_unique<Transfer>();
  transfer->irp = irp;
  transfer->urb = urb;
  transfer->control = true;
  transfer->setup = request.setup;
  transfer->buffer = request.buffer;
  transfer->length = request.length;
  transfer->in = request.setup.IsIn();
  return mEngine.Submit(std::move(transfer));
}

}  // namespace usb
}  // namespace wdmsim
