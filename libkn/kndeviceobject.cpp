#include "kndeviceobject.h"

#include "kndriverobject.h"
#include "kntrace.h"
#include "knutils.h"

KnDeviceObject::KnDeviceObject() : mDeviceObject(NULL) {}

KnDeviceObject::~KnDeviceObject() {
  DeleteDevice();
}

NTSTATUS KnDeviceObject::OnDispatchPnp(KnPrivateDeviceExtension*, PIRP Irp) {
  return CompleteRequest(Irp, STATUS_NOT_SUPPORTED, 0);
}

NTSTATUS KnDeviceObject::OnDispatchPower(KnPrivateDeviceExtension*, PIRP Irp) {
  return CompleteRequest(Irp, STATUS_NOT_SUPPORTED, 0);
}

NTSTATUS KnDeviceObject::OnDispatchSystemControl(PIRP Irp) {
  return CompleteRequest(Irp, STATUS_NOT_SUPPORTED, 0);
}

NTSTATUS KnDeviceObject::OnDispatchCreate(PIRP Irp) {
  return CompleteRequest(Irp, STATUS_NOT_SUPPORTED, 0);
}

NTSTATUS KnDeviceObject::OnDispatchCleanup(PIRP Irp) {
  return CompleteRequest(Irp, STATUS_NOT_SUPPORTED, 0);
}

NTSTATUS KnDeviceObject::OnDispatchClose(PIRP Irp) {
  return CompleteRequest(Irp, STATUS_NOT_SUPPORTED, 0);
}

NTSTATUS KnDeviceObject::OnDispatchRead(PIRP Irp) {
  return CompleteRequest(Irp, STATUS_NOT_SUPPORTED, 0);
}

NTSTATUS KnDeviceObject::OnDispatchWrite(PIRP Irp) {
  return CompleteRequest(Irp, STATUS_NOT_SUPPORTED, 0);
}

NTSTATUS KnDeviceObject::OnDispatchDeviceControl(PIRP Irp) {
  return CompleteRequest(Irp, STATUS_NOT_SUPPORTED, 0);
}

NTSTATUS KnDeviceObject::OnDispatchInternalDeviceControl(PIRP Irp) {
  return CompleteRequest(Irp, STATUS_NOT_SUPPORTED, 0);
}

NTSTATUS KnDeviceObject::CreateDevice(PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics,
                                      BOOLEAN Exclusive, ULONG ExtensionSize) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(mDeviceObject==NULL);
  KN_ASSERT(gKnDriverObject!=NULL);
  PDEVICE_OBJECT devobj = NULL;
  NTSTATUS status = IoCreateDevice(gKnDriverObject->GetDriverObject(), sizeof(KnPrivateDeviceExtension) + ExtensionSize,
                                   DeviceName, DeviceType, DeviceCharacteristics, Exclusive, &devobj);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:KnDeviceObject::CreateDevice: Cannot create device object, stat=%N\n", status);
    // No device object to log against: the entry goes to the driver object.
    KnLogMessage(KnLogMessageCategory_Error, L"Unable to create device object.", status, 0, NULL);
    return status;
  }
  KN_ASSERT(devobj!=NULL);
  mDeviceObject = devobj;
  // The I/O manager zero-fills the extension; only the private head needs setting up.
  KnPrivateDeviceExtension* ext = (KnPrivateDeviceExtension*)devobj->DeviceExtension;
  ext->mMagicTag = KN_POOLTAG(KN_PRIVATE_EXTENSION_MAGIC);
  ext->mRemoveLock.Initialize(KN_REMOVE_LOCK_TAG, 0, 0);
  ext->mDevObj = this;
  ext->mUserExtension = ExtensionSize != 0 ? (PVOID)(ext + 1) : NULL;
  KN_TRACE(0x4, "%P:KnDeviceObject::CreateDevice: DeviceObject %p successfully created\n", devobj);
  return STATUS_SUCCESS;
}

KnPrivateDeviceExtension* KnDeviceObject::GetExtension(PDEVICE_OBJECT deviceObject) {
  KN_ASSERT(((KnPrivateDeviceExtension*)deviceObject->DeviceExtension)->mMagicTag == KN_POOLTAG(KN_PRIVATE_EXTENSION_MAGIC));
  return (KnPrivateDeviceExtension*)deviceObject->DeviceExtension;
}

void KnDeviceObject::DeleteDevice() {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  if (mDeviceObject == NULL) {
    return;
  }
  KnPrivateDeviceExtension* ext = GetExtension(mDeviceObject);
  KN_ASSERT(this == ext->mDevObj);
  PDEVICE_OBJECT devobj = mDeviceObject;
  // Cut the link before the platform object goes: a request still routed through a
  // referenced object then finds no framework object instead of a dead one.
  ext->mDevObj = NULL;
  mDeviceObject = NULL;
  KN_TRACE(0x4, "%P:KnDeviceObject::DeleteDevice: deleting DeviceObject %p\n", devobj);
  IoDeleteDevice(devobj);
}

PDEVICE_OBJECT KnDeviceObject::GetReferencedDeviceObject() {
  KN_ASSERT_IRQL_LTEQ_DISPATCH();
  KN_ASSERT(mDeviceObject!=NULL);
  ObfReferenceObject(mDeviceObject);
  return mDeviceObject;
}
