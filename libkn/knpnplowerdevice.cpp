#include "knpnplowerdevice.h"

#include "kntrace.h"

KnPnPLowerDevice::KnPnPLowerDevice() : mPhysicalDeviceObject(NULL) {}

KnPnPLowerDevice::~KnPnPLowerDevice() {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(mPhysicalDeviceObject == NULL);
}

NTSTATUS KnPnPLowerDevice::AttachToPnpDeviceStack(PDEVICE_OBJECT deviceObject, PDEVICE_OBJECT physicalDeviceObject) {
  KN_ASSERT_IRQL_LTEQ_DISPATCH();
  KN_ASSERT(NULL == mPhysicalDeviceObject);
  KN_ASSERT(NULL == GetLowerDeviceObject());
  if (AttachDeviceToDeviceStack(deviceObject, physicalDeviceObject) == NULL) {
    KN_TRACE(0x1, "%P:KnPnPLowerDevice::AttachToPnpDeviceStack: AttachDeviceToDeviceStack failed\n");
    return STATUS_UNSUCCESSFUL;
  }
  mPhysicalDeviceObject = physicalDeviceObject;
  return STATUS_SUCCESS;
}

void KnPnPLowerDevice::DetachFromPnpDeviceStack() {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  DetachFromDeviceStack();
  mPhysicalDeviceObject = NULL;
}

NTSTATUS KnPnPLowerDevice::GetDeviceProperty(DEVICE_REGISTRY_PROPERTY property, ULONG bufferLength,
                                             PVOID propertyBuffer, PULONG resultLength) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(mPhysicalDeviceObject != NULL);
  KN_ASSERT(propertyBuffer != NULL);
  KN_ASSERT(resultLength != NULL);
  NTSTATUS stat = IoGetDeviceProperty(mPhysicalDeviceObject, property, bufferLength, propertyBuffer, resultLength);
  if (!NT_SUCCESS(stat)) {
    KN_TRACE(0x2, "%P:KnPnPLowerDevice::GetDeviceProperty: IoGetDeviceProperty %d failed, st=%N\n", (int)property,
             stat);
  }
  return stat;
}

void KnPnPLowerDevice::InvalidateDeviceRelations(DEVICE_RELATION_TYPE type) {
  KN_ASSERT_IRQL_LTEQ_DISPATCH();
  KN_ASSERT(mPhysicalDeviceObject != NULL);
  IoInvalidateDeviceRelations(mPhysicalDeviceObject, type);
}
