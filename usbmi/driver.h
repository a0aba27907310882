// Driver: the driver object of usbmi. One parent Device per composite USB device.
#pragma once

#include <ntddk.h>

#include "kndriverobject.h"

class Driver : public KnDriverObject {
 public:
  // The trace log buffer, created by CreateDriverInstance, lives as long as the driver object.
  ~Driver() override;
  NTSTATUS OnAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject) override;
};
