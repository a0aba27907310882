#include "usb_bus_requests.h"

#include <cstring>

#include <gtest/gtest.h>

namespace usbtest {
NTSTATUS SendInternal(PDEVICE_OBJECT device, ULONG code, PVOID argument1) {
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  IO_STATUS_BLOCK status = {};
  PDEVICE_OBJECT top = IoGetAttachedDeviceReference(device);
  PIRP irp = IoBuildDeviceIoControlRequest(code, top, nullptr, 0, nullptr, 0, TRUE, &event, &status);
  IoGetNextIrpStackLocation(irp)->Parameters.Others.Argument1 = argument1;
  if (IoCallDriver(top, irp) == STATUS_PENDING) KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
  ObDereferenceObject(top);
  return status.Status;
}

NTSTATUS SubmitUrb(PDEVICE_OBJECT device, PURB urb) { return SendInternal(device, IOCTL_INTERNAL_USB_SUBMIT_URB, urb); }

PendingUrb::PendingUrb(PDEVICE_OBJECT device, PURB urb) {
  PDEVICE_OBJECT top = IoGetAttachedDeviceReference(device);
  mIrp = IoAllocateIrp(top->StackSize, FALSE);
  PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(mIrp);
  next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
  next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
  next->Parameters.Others.Argument1 = urb;
  IoSetCompletionRoutine(mIrp, OnComplete, this, TRUE, TRUE, TRUE);
  mDispatchStatus = IoCallDriver(top, mIrp);
  ObDereferenceObject(top);
}

PendingUrb::~PendingUrb() {
  EXPECT_TRUE(done()) << "the stack still holds the request";
  if (done()) IoFreeIrp(mIrp);
}

bool PendingUrb::done() const { return mCompletions > 0; }
NTSTATUS PendingUrb::status() const { return mIrp->IoStatus.Status; }
BOOLEAN PendingUrb::Cancel() { return IoCancelIrp(mIrp); }

NTSTATUS NTAPI PendingUrb::OnComplete(PDEVICE_OBJECT, PIRP, PVOID context) {
  auto* self = static_cast<PendingUrb*>(context);
  self->mIrql = KeGetCurrentIrql();
  ++self->mCompletions;
  return STATUS_MORE_PROCESSING_REQUIRED;  // the test frees the IRP
}

Urb DescriptorRequest(uint8_t type, uint8_t index, uint16_t language, void* buffer, ULONG length) {
  Urb urb(sizeof(_URB_CONTROL_DESCRIPTOR_REQUEST));
  UsbBuildGetDescriptorRequest(urb.get(), sizeof(_URB_CONTROL_DESCRIPTOR_REQUEST), type, index, language, buffer,
                               nullptr, length, nullptr);
  return urb;
}

Urb BulkOrInterrupt(USBD_PIPE_HANDLE pipe, void* buffer, ULONG length, ULONG flags) {
  Urb urb(sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER));
  UsbBuildInterruptOrBulkTransferRequest(urb.get(), sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER), pipe, buffer, nullptr,
                                         length, flags, nullptr);
  return urb;
}

Urb PipeRequest(USHORT function, USBD_PIPE_HANDLE pipe) {
  Urb urb(sizeof(_URB_PIPE_REQUEST));
  urb->UrbHeader.Length = sizeof(_URB_PIPE_REQUEST);
  urb->UrbHeader.Function = function;
  urb->UrbPipeRequest.PipeHandle = pipe;
  return urb;
}

Urb VendorOrClass(USHORT function, bool in, uint8_t request, uint16_t value, uint16_t index, void* buffer,
                  ULONG length) {
  Urb urb(sizeof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST));
  UsbBuildVendorRequest(urb.get(), function, sizeof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST),
                        in ? USBD_TRANSFER_DIRECTION_IN : 0, 0, request, value, index, buffer, nullptr, length, nullptr);
  return urb;
}

ConfigurationRequest::ConfigurationRequest(const std::vector<uint8_t>& set) : mSet(set) {
  auto* descriptor = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(mSet.data());
  for (LONG number = 0; number < 256; ++number) {
    PUSB_INTERFACE_DESCRIPTOR found =
        USBD_ParseConfigurationDescriptorEx(descriptor, descriptor, number, 0, -1, -1, -1);
    if (found != nullptr) mList.push_back({found, nullptr});
  }
  mList.push_back({nullptr, nullptr});
  mUrb = USBD_CreateConfigurationRequestEx(descriptor, mList.data());
}

ConfigurationRequest::~ConfigurationRequest() {
  if (mUrb != nullptr) ExFreePool(mUrb);
}

}  // namespace usbtest
