// KnDeviceObject: the framework object behind one platform DEVICE_OBJECT. It creates and
// deletes the platform object, binds the two through KnPrivateDeviceExtension, and offers
// one virtual handler per routed major function (KnDriverObject's dispatch routines call
// them with the device's remove lock held).
#pragma once

#include <ntddk.h>

#include "knprivatedeviceextension.h"

class KnDeviceObject {
 public:
  KnDeviceObject();
  // PASSIVE_LEVEL. A platform object that still exists is deleted with its framework object.
  virtual ~KnDeviceObject();

  // The virtual handlers, in the order of the framework's slot table; derived classes
  // extend the table and keep the meaning of each slot.
  //
  // PnP and power receive the extension and must release its remove lock themselves.
  // The defaults complete with STATUS_NOT_SUPPORTED and do neither release the remove
  // lock nor start the next power IRP: every PnP class overrides both.
  virtual NTSTATUS OnDispatchPnp(KnPrivateDeviceExtension* Extension, PIRP Irp);    // 1
  virtual NTSTATUS OnDispatchPower(KnPrivateDeviceExtension* Extension, PIRP Irp);  // 2
  // The routing releases the remove lock as soon as these return, also when they
  // return STATUS_PENDING and keep the IRP. Defaults: STATUS_NOT_SUPPORTED, information 0.
  virtual NTSTATUS OnDispatchSystemControl(PIRP Irp);          // 3
  virtual NTSTATUS OnDispatchCreate(PIRP Irp);                 // 4
  virtual NTSTATUS OnDispatchCleanup(PIRP Irp);                // 5
  virtual NTSTATUS OnDispatchClose(PIRP Irp);                  // 6
  virtual NTSTATUS OnDispatchRead(PIRP Irp);                   // 7
  virtual NTSTATUS OnDispatchWrite(PIRP Irp);                  // 8
  virtual NTSTATUS OnDispatchDeviceControl(PIRP Irp);          // 9
  virtual NTSTATUS OnDispatchInternalDeviceControl(PIRP Irp);  // 10

  // PASSIVE_LEVEL. Creates the platform object of the driver object in gKnDriverObject,
  // with room for the private extension plus ExtensionSize bytes of the class's own
  // (zero-filled, reachable through mUserExtension). Leaves DO_DEVICE_INITIALIZING and the
  // other flags to the caller.
  NTSTATUS CreateDevice(PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics,
                        BOOLEAN Exclusive, ULONG ExtensionSize);
  // PASSIVE_LEVEL. Cuts the link from the extension first, so that a request routed
  // afterwards through a still-referenced object finds no framework object.
  void DeleteDevice();

  PDEVICE_OBJECT GetDeviceObject() const { return mDeviceObject; }
  // Up to DISPATCH_LEVEL. The caller owns the reference taken (relation answers hand it
  // to the PnP manager).
  PDEVICE_OBJECT GetReferencedDeviceObject();

  // The framework's extension of one of its own device objects (asserts the magic value).
  static KnPrivateDeviceExtension* GetExtension(PDEVICE_OBJECT DeviceObject);

 protected:
  PDEVICE_OBJECT mDeviceObject;
};
