// KnPnPLowerDevice: the lower device of a PnP stack, which also knows the stack's PDO.
#pragma once
#include <ntddk.h>

#include "kntargetdevice.h"

class KnPnPLowerDevice : public KnTargetDevice {
 public:
  KnPnPLowerDevice();
  // The owner detaches before destroying the object.
  ~KnPnPLowerDevice() override;

  PDEVICE_OBJECT GetPhysicalDeviceObject() const { return mPhysicalDeviceObject; }

  // Up to DISPATCH_LEVEL. Attaches deviceObject on top of the stack of physicalDeviceObject.
  NTSTATUS AttachToPnpDeviceStack(PDEVICE_OBJECT deviceObject, PDEVICE_OBJECT physicalDeviceObject);
  // PASSIVE_LEVEL.
  void DetachFromPnpDeviceStack();

  // PASSIVE_LEVEL. The status of IoGetDeviceProperty, STATUS_BUFFER_TOO_SMALL included.
  NTSTATUS GetDeviceProperty(DEVICE_REGISTRY_PROPERTY property, ULONG bufferLength, PVOID propertyBuffer,
                             PULONG resultLength);
  // Up to DISPATCH_LEVEL.
  void InvalidateDeviceRelations(DEVICE_RELATION_TYPE type);

 private:
  PDEVICE_OBJECT mPhysicalDeviceObject;
};
