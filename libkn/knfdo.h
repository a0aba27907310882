// KnFdo: a function device object attached on top of a PnP device stack.
//
// First step of this class: the device stack link, removal and pass-through of PnP and
// power requests, and the PnP hooks in their final slot order. The full PnP state
// machine (start, stop, capabilities), the power handling with its hooks (slots 24 to
// 28), the bus relations hook (slot 29) and the lower device object that replaces the
// plain mLowerDeviceObject link come with the FDO's PnP and power work.
#pragma once

#include <ntddk.h>

#include "knpnpdeviceobject.h"

class KnFdo : public KnPnPDeviceObject {
 public:
  KnFdo();
  // Requires the object to be detached from its stack.
  virtual ~KnFdo();

  // PASSIVE_LEVEL, with the remove lock that the routing took for this IRP; releases it.
  NTSTATUS OnDispatchPnp(KnPrivateDeviceExtension* Extension, PIRP Irp) override;      // 1
  NTSTATUS OnDispatchPower(KnPrivateDeviceExtension* Extension, PIRP Irp) override;    // 2
  // WMI and other system-control requests go down unchanged.
  NTSTATUS OnDispatchSystemControl(PIRP Irp) override;                                  // 3

  // PnP hooks of the derived class. Lock is held around each call except slot 15.
  virtual void OnPnpQueryCapabilities(PDEVICE_CAPABILITIES Capabilities);           // 13
  virtual void OnPnpQueryCapabilitiesComplete(PDEVICE_CAPABILITIES Capabilities);   // 14
  // Disposes of the request; the default passes it down.
  virtual NTSTATUS OnPnPQueryDeviceRelations(PIRP Irp);                              // 15
  virtual NTSTATUS OnPnpStartDevice(PIRP Irp);                                       // 16
  virtual NTSTATUS OnPnpQueryStopDevice();                                           // 17
  virtual void OnPnpCancelStopDevice();                                              // 18
  virtual void OnPnpStopDevice();                                                    // 19
  virtual NTSTATUS OnPnpQueryRemoveDevice();                                         // 20
  virtual void OnPnpCancelRemoveDevice();                                            // 21
  virtual void OnPnpRemoveDevice();                                                  // 22
  virtual void OnPnpSurpriseRemoval();                                               // 23

  // Up to DISPATCH_LEVEL. Attaches DeviceObject (ours) on top of the PDO's stack.
  NTSTATUS AttachToDeviceStack(PDEVICE_OBJECT PhysicalDeviceObject);
  // PASSIVE_LEVEL. Nothing happens when not attached.
  void DetachFromDeviceStack();
  PDEVICE_OBJECT GetLowerDeviceObject() const { return mLowerDeviceObject; }

 protected:
  // Skips our stack location and hands the IRP to the device below, which completes it.
  NTSTATUS PassDown(PIRP Irp);

  PDEVICE_OBJECT mLowerDeviceObject;  // the device object we attached to; NULL when detached
};
