#include "device.h"

#include "kntrace.h"

Device::Device() {
  SetLowerDevice(&mLowerDeviceUsb);
  InitializeListHead(&mIadList);
  InitializeListHead(&mInterfaceList);
}

Device::~Device() {
  FreeLists();
  // The lower device goes with this object; the FDO part must not point at it any more.
  SetLowerDevice(NULL);
}

void Device::Lock() {
  mDeviceMutex.Lock();
}

void Device::Unlock() {
  mDeviceMutex.Unlock();
}

NTSTATUS Device::OnAddDevice(PDRIVER_OBJECT, PDEVICE_OBJECT PhysicalDeviceObject) {
  NTSTATUS status = CreateDevice(NULL, FILE_DEVICE_UNKNOWN, FILE_DEVICE_SECURE_OPEN, FALSE, 0);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:Device::OnAddDevice: CreateDevice failed, stat=%N\n", status);
    return status;
  }
  status = mLowerDeviceUsb.AttachToPnpDeviceStack(mDeviceObject, PhysicalDeviceObject);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:DDevice::OnAddDevice: mLowerDevice->AttachToPnpDeviceStack failed, stat=%N\n", status);
    DeleteDevice();
    return status;
  }
  mPnPState = KnPnPState_Added;
  // Buffered I/O like the USB stack below; pageable power handling at PASSIVE_LEVEL. The
  // device may receive requests from here on.
  mDeviceObject->Flags |= DO_BUFFERED_IO | DO_POWER_PAGABLE;
  mDeviceObject->Flags &= ~DO_DEVICE_INITIALIZING;
  return STATUS_SUCCESS;
}
