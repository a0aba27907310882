#include "kndriverobject.h"

#include "kndeviceobject.h"
#include "knmemory.h"
#include "knnametables.h"
#include "knregistrykey.h"
#include "kntrace.h"
#include "kntracelogbuffer.h"
#include "knutils.h"

KnDriverObject* gKnDriverObject = NULL;

// Longest service name taken from the registry path; the trace prefix keeps fewer.
static const ULONG kMaxServiceNameChars = 39;

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
  ASSERT(gKnDriverObject==NULL);
  gKnDriverObject = CreateDriverInstance();
  if (gKnDriverObject == NULL) {
    KN_TRACE(0x1, "%P:DriverEntry: FATAL, CreateDriverInstance failed, terminating driver\n");
    // The platform calls no unload after a failed entry point: give back what the
    // driver class may have set up before it failed.
    KnTraceDeleteLogBuffer();
    return STATUS_UNSUCCESSFUL;
  }
  NTSTATUS status = gKnDriverObject->DriverEntry(DriverObject, RegistryPath);
  if (status != STATUS_SUCCESS) {
    KN_TRACE(0x1, "%P:DriverEntry: gKnDriverObject->DriverEntry failed, stat=%N\n", status);
    // No unload follows either: the driver object goes now, with its trace log buffer.
    delete gKnDriverObject;
    gKnDriverObject = NULL;
  }
  KN_TRACE(0x4, "%P:DriverEntry returns %N\n", status);
  return status;
}

KnDriverObject::KnDriverObject() : mDriverObject(NULL) {}

KnDriverObject::~KnDriverObject() {
  mRegistryPath.Free();
}

NTSTATUS KnDriverObject::OnDriverEntry(PDRIVER_OBJECT, PUNICODE_STRING) {
  return STATUS_SUCCESS;
}

void KnDriverObject::OnDriverUnload(PDRIVER_OBJECT) {}

NTSTATUS KnDriverObject::DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
  mDriverObject = DriverObject;

  // Room for a terminator: the zero-filled buffer ends the copy, so it can be used as text.
  ULONG bytes = RegistryPath->Length + sizeof(WCHAR);
  if (!NT_SUCCESS(mRegistryPath.Allocate(PagedPool, bytes, KN_UNICODE_STRING_TAG))) {
    KN_TRACE(0x1, "%P:KnDriverObject::DriverEntry: FATAL: alloc registry path buffer (%u bytes) failed\n", bytes);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  RtlCopyMemory(mRegistryPath.Buffer, RegistryPath->Buffer, RegistryPath->Length);
  mRegistryPath.Length = RegistryPath->Length;

  SetTracePrefixFromRegistryPath();
  ReadTraceMask();

  KN_TRACE(0x2, "\n**** %P:DriverEntry ****\n");
  KN_TRACE(0x4, "%P:KnDriverObject::DriverEntry: Registry path is '%S'\n", mRegistryPath.Buffer);

  NTSTATUS status = OnDriverEntry(DriverObject, RegistryPath);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:KnDriverObject::DriverEntry: OnDriverEntry failed, stat=%N\n", status);
    return status;
  }

  DriverObject->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
  DriverObject->MajorFunction[IRP_MJ_POWER] = DispatchPower;
  DriverObject->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = DispatchSystemControl;
  DriverObject->MajorFunction[IRP_MJ_CREATE] = DispatchCreate;
  DriverObject->MajorFunction[IRP_MJ_CLEANUP] = DispatchCleanup;
  DriverObject->MajorFunction[IRP_MJ_CLOSE] = DispatchClose;
  DriverObject->MajorFunction[IRP_MJ_READ] = DispatchRead;
  DriverObject->MajorFunction[IRP_MJ_WRITE] = DispatchWrite;
  DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchDeviceControl;
  DriverObject->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = DispatchInternalDeviceControl;
  DriverObject->DriverExtension->AddDevice = DispatchAddDevice;
  DriverObject->DriverUnload = DriverUnload;
  return STATUS_SUCCESS;
}

// "%P" prints the service name: the last component of the service key path, as 8-bit text.
void KnDriverObject::SetTracePrefixFromRegistryPath() {
  ULONG chars = mRegistryPath.Length / sizeof(WCHAR);
  ULONG start = 0;
  for (ULONG i = 0; i < chars; i++) {
    if (mRegistryPath.Buffer[i] == L'\\') {
      start = i + 1;
    }
  }
  char name[kMaxServiceNameChars + 1];
  ULONG n = 0;
  for (ULONG i = start; i < chars && n < kMaxServiceNameChars; i++) {
    name[n++] = (char)(mRegistryPath.Buffer[i] & 0xFF);
  }
  name[n] = '\0';
  KnTraceSetPrefix(name);
}

// "TraceMask" in the service key; without it the built-in mask stays. The key is opened
// for reading only, so GetDwordValue's write-back of a missing value fails (and says so).
void KnDriverObject::ReadTraceMask() {
  KnRegistryKey key;
  NTSTATUS status = key.OpenKey(mRegistryPath.Buffer, KEY_READ, false);
  if (NT_SUCCESS(status)) {
    ULONG mask = gKnTraceMask;
    key.GetDwordValue(L"TraceMask", &mask, gKnTraceMask);
    gKnTraceMask = mask;
  } else {
    KN_TRACE(0x1, "%P:KnDriverObject::DriverEntry: open registry path '%S' failed, stat=%N\n", mRegistryPath.Buffer,
             status);
  }
  key.Close();
}

NTSTATUS KnDriverObject::DispatchAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject) {
  KN_ASSERT(gKnDriverObject != NULL);
  return gKnDriverObject->OnAddDevice(DriverObject, PhysicalDeviceObject);
}

void KnDriverObject::DriverUnload(PDRIVER_OBJECT DriverObject) {
  if (gKnDriverObject != NULL) {
    gKnDriverObject->OnDriverUnload(DriverObject);
    delete gKnDriverObject;
    gKnDriverObject = NULL;
  }
  KN_TRACE(0x2, "**** %P:DriverUnload ****\n\n");
}

// PnP and power: the handler releases the remove lock itself, because it may pass the
// request on or keep it beyond its return (removal waits on the lock it holds).
NTSTATUS KnDriverObject::DispatchPnp(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  KnPrivateDeviceExtension* ext = KnDeviceObject::GetExtension(DeviceObject);
  if (!NT_SUCCESS(ext->mRemoveLock.Acquire(Irp))) {
    return CompleteRequestStatus(Irp, STATUS_NO_SUCH_DEVICE);
  }
  if (ext->mDevObj == NULL) {
    UCHAR minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
    KN_TRACE(0x1, "%P:KnDriverObject::DispatchPnp: FATAL: ext->mDevObj==NULL, DO=%p IRP=%p 0x%B '%s'\n",
             DeviceObject, Irp, minor, KnPnpMinorFunctionName(minor));
    // No handler runs to give this request's reference back.
    ext->mRemoveLock.Release(Irp);
    return CompleteRequestStatus(Irp, STATUS_NO_SUCH_DEVICE);
  }
  return ext->mDevObj->OnDispatchPnp(ext, Irp);
}

// As PnP; a power IRP that this driver finishes also frees the way for the next one.
NTSTATUS KnDriverObject::DispatchPower(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  KnPrivateDeviceExtension* ext = KnDeviceObject::GetExtension(DeviceObject);
  if (!NT_SUCCESS(ext->mRemoveLock.Acquire(Irp))) {
    PoStartNextPowerIrp(Irp);
    return CompleteRequestStatus(Irp, STATUS_NO_SUCH_DEVICE);
  }
  if (ext->mDevObj == NULL) {
    UCHAR minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
    KN_TRACE(0x1, "%P:KnDriverObject::DispatchPower: FATAL: ext->mDevObj==NULL, DO=%p IRP=%p 0x%B '%s'\n",
             DeviceObject, Irp, minor, KnPowerMinorFunctionName(minor));
    // No handler runs to give this request's reference back.
    ext->mRemoveLock.Release(Irp);
    PoStartNextPowerIrp(Irp);
    return CompleteRequestStatus(Irp, STATUS_NO_SUCH_DEVICE);
  }
  return ext->mDevObj->OnDispatchPower(ext, Irp);
}

typedef NTSTATUS (KnDeviceObject::*KnRoutedHandler)(PIRP Irp);

// The eight other routes: the remove lock is held exactly while the handler runs, also
// when the handler keeps the IRP (it tracks such requests itself).
static NTSTATUS RouteRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp, KnRoutedHandler Handler, ULONG Line) {
  KnPrivateDeviceExtension* ext = KnDeviceObject::GetExtension(DeviceObject);
  NTSTATUS status = ext->mRemoveLock.Acquire(Irp);
  if (!NT_SUCCESS(status)) {
    return CompleteRequest(Irp, status, 0);
  }
  // CreateDevice binds the object before the device can receive requests, and removal
  // drains the lock before DeleteDevice unbinds it.
  KnAssert(ext->mDevObj != NULL, "ext->mDevObj!=NULL", __FILE__, Line);
  if (ext->mDevObj == NULL) {
    ext->mRemoveLock.Release(Irp);
    return CompleteRequest(Irp, STATUS_NO_SUCH_DEVICE, 0);
  }
  status = (ext->mDevObj->*Handler)(Irp);
  ext->mRemoveLock.Release(Irp);
  return status;
}

NTSTATUS KnDriverObject::DispatchSystemControl(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return RouteRequest(DeviceObject, Irp, &KnDeviceObject::OnDispatchSystemControl, __LINE__);
}

NTSTATUS KnDriverObject::DispatchCreate(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return RouteRequest(DeviceObject, Irp, &KnDeviceObject::OnDispatchCreate, __LINE__);
}

NTSTATUS KnDriverObject::DispatchCleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return RouteRequest(DeviceObject, Irp, &KnDeviceObject::OnDispatchCleanup, __LINE__);
}

NTSTATUS KnDriverObject::DispatchClose(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return RouteRequest(DeviceObject, Irp, &KnDeviceObject::OnDispatchClose, __LINE__);
}

NTSTATUS KnDriverObject::DispatchRead(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return RouteRequest(DeviceObject, Irp, &KnDeviceObject::OnDispatchRead, __LINE__);
}

NTSTATUS KnDriverObject::DispatchWrite(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return RouteRequest(DeviceObject, Irp, &KnDeviceObject::OnDispatchWrite, __LINE__);
}

NTSTATUS KnDriverObject::DispatchDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return RouteRequest(DeviceObject, Irp, &KnDeviceObject::OnDispatchDeviceControl, __LINE__);
}

NTSTATUS KnDriverObject::DispatchInternalDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return RouteRequest(DeviceObject, Irp, &KnDeviceObject::OnDispatchInternalDeviceControl, __LINE__);
}
