// KnDriverObject: the framework's single driver object. The entry point creates it (of
// the driver's own class, named by CreateDriverInstance), lets it read its settings, and
// points every dispatch entry of the platform DRIVER_OBJECT at a routing routine that
// finds the framework device object behind the target DEVICE_OBJECT and calls its handler.
#pragma once

#include <ntddk.h>

#include "knunicodestring.h"

class KnDriverObject {
 public:
  KnDriverObject();
  virtual ~KnDriverObject();                                                            // 0

  // Called at the end of DriverEntry, before any dispatch entry is set; a failure stops
  // the driver from loading. Default: STATUS_SUCCESS.
  virtual NTSTATUS OnDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);  // 1
  // Called by the unload routine before the object is deleted. Default: nothing.
  virtual void OnDriverUnload(PDRIVER_OBJECT DriverObject);                              // 2
  // AddDevice of the platform: the driver class creates its FDO on top of the PDO.
  virtual NTSTATUS OnAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject) = 0;  // 3

  // PASSIVE_LEVEL, once. Copies the service key path, sets the trace prefix and mask
  // from it, runs OnDriverEntry and sets the dispatch entries.
  NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

  PDRIVER_OBJECT GetDriverObject() const { return mDriverObject; }
  // The framework's copy of the service key path (NUL-terminated).
  const KnUnicodeString& GetRegistryPath() const { return mRegistryPath; }

 private:
  void SetTracePrefixFromRegistryPath();
  void ReadTraceMask();

  static NTSTATUS DispatchAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject);
  static void DriverUnload(PDRIVER_OBJECT DriverObject);
  static NTSTATUS DispatchPnp(PDEVICE_OBJECT DeviceObject, PIRP Irp);
  static NTSTATUS DispatchPower(PDEVICE_OBJECT DeviceObject, PIRP Irp);
  static NTSTATUS DispatchSystemControl(PDEVICE_OBJECT DeviceObject, PIRP Irp);
  static NTSTATUS DispatchCreate(PDEVICE_OBJECT DeviceObject, PIRP Irp);
  static NTSTATUS DispatchCleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp);
  static NTSTATUS DispatchClose(PDEVICE_OBJECT DeviceObject, PIRP Irp);
  static NTSTATUS DispatchRead(PDEVICE_OBJECT DeviceObject, PIRP Irp);
  static NTSTATUS DispatchWrite(PDEVICE_OBJECT DeviceObject, PIRP Irp);
  static NTSTATUS DispatchDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp);
  static NTSTATUS DispatchInternalDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp);

  PDRIVER_OBJECT mDriverObject;
  KnUnicodeString mRegistryPath;
};

// The one driver object: NULL before the entry point and after unload.
extern KnDriverObject* gKnDriverObject;

// Supplied by the driver, not the framework: creates the driver object of its own class
// (NULL on failure).
KnDriverObject* CreateDriverInstance();

// The image's entry point.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
