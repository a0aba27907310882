// Device: the parent function device object of one composite USB device.
//
// First step: the device object, its place on the device stack and its PnP lock. The
// settings, configuration, children and selective suspend come with the parent's start.
#pragma once

#include <ntddk.h>

#include "knfdo.h"
#include "knmutex.h"

class Device : public KnFdo {
 public:
  Device();
  ~Device() override;

  // The PnP lock of the parent and of all its children.
  void Lock() override;      // 11
  void Unlock() override;    // 12

  // Creates the device object and attaches it on top of the PDO's stack.
  virtual NTSTATUS OnAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject);  // 30

 private:
  KnMutex mDeviceMutex;
};
