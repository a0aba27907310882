// KnFdo: a function device object attached on top of a PnP device stack through its lower
// device. It runs the PnP state machine of the object (which side of the stack sees each
// request first, the hooks of the derived class under its lock, the recorded capabilities)
// and, on removal, drains the requests in flight, detaches and deletes itself.
//
// Power: the dispatch passes every power request down; the power handling with its hooks
// (slots 24 to 28, declared between OnPnpSurpriseRemoval and OnChildNotReported) and the
// wait-wake arming come with the FDO's power work.
#pragma once

#include <ntddk.h>

#include "knevent.h"
#include "knpnpdeviceobject.h"
#include "knpnplowerdevice.h"
#include "knworkitemex.h"

class KnBusChildPdo;

class KnFdo : public KnPnPDeviceObject {
 public:
  KnFdo();
  // Requires mLowerDevice to be NULL again: the derived class that set it clears it.
  virtual ~KnFdo();

  // PASSIVE_LEVEL, with the remove lock that the routing took for this IRP; releases it
  // (on IRP_MN_REMOVE_DEVICE by waiting for every other holder, then deletes this object).
  NTSTATUS OnDispatchPnp(KnPrivateDeviceExtension* Extension, PIRP Irp) override;      // 1
  NTSTATUS OnDispatchPower(KnPrivateDeviceExtension* Extension, PIRP Irp) override;    // 2
  // WMI and other system-control requests go down unchanged.
  NTSTATUS OnDispatchSystemControl(PIRP Irp) override;                                  // 3

  // PnP hooks of the derived class, each called with Lock held, except slot 15, which
  // gets the IRP unlocked and disposes of it. No request is down the stack meanwhile.
  virtual void OnPnpQueryCapabilities(PDEVICE_CAPABILITIES Capabilities);           // 13
  // Adjusts what the lower stack answered before it is recorded and completed.
  virtual void OnPnpQueryCapabilitiesComplete(PDEVICE_CAPABILITIES Capabilities);   // 14
  // The default passes the request down.
  virtual NTSTATUS OnPnPQueryDeviceRelations(PIRP Irp);                              // 15
  // After the lower stack has started. Anything but STATUS_SUCCESS fails the start.
  virtual NTSTATUS OnPnpStartDevice(PIRP Irp);                                       // 16
  virtual NTSTATUS OnPnpQueryStopDevice();                                           // 17
  virtual void OnPnpCancelStopDevice();                                              // 18
  virtual void OnPnpStopDevice();                                                    // 19
  virtual NTSTATUS OnPnpQueryRemoveDevice();                                         // 20
  virtual void OnPnpCancelRemoveDevice();                                            // 21
  virtual void OnPnpRemoveDevice();                                                  // 22
  virtual void OnPnpSurpriseRemoval();                                               // 23
  // A child left out of a bus relations answer, called with Lock held. Nothing here.
  virtual void OnChildNotReported(KnBusChildPdo* Child);                             // 29

  // The derived class points the FDO at the lower device it owns before the object gets
  // requests, and back at NULL in its destructor.
  void SetLowerDevice(KnPnPLowerDevice* LowerDevice) { mLowerDevice = LowerDevice; }

  // PASSIVE_LEVEL. Cancels and finishes the outstanding wait-wake IRP, if any.
  void CancelWakeIrp();

 protected:
  // Skips our stack location and hands the IRP to the device below, which completes it.
  NTSTATUS PassDown(PIRP Irp);
  // Sends the IRP down with our stack location copied and waits until it is back; the IRP
  // is ours to complete afterwards. Returns the status the lower stack gave it.
  NTSTATUS ForwardAndWait(PIRP Irp);

  KnPnPLowerDevice* mLowerDevice;  // NULL until the derived class sets it
  PIRP mWakeIrp;                   // the wait-wake IRP down the stack; NULL when none
  KnEvent mWakeIrpDoneEvent;       // set while no wait-wake IRP is in flight
  KnWorkItemEx mPowerWorkItem;     // power work; removal waits for it

 private:
  NTSTATUS OnPnpStart(PIRP Irp);
  // Runs Hook (virtual) and enters NewState under the lock, then passes the IRP down.
  NTSTATUS OnPnpLeaveDevice(PIRP Irp, void (KnFdo::*Hook)(), KnPnPState NewState);
  NTSTATUS OnPnpQueryStopOrRemove(PIRP Irp, bool Remove);
  NTSTATUS OnPnpCancelStopOrRemove(PIRP Irp, bool Remove);
  NTSTATUS OnPnpCapabilities(PIRP Irp);
  // Ends with the deletion of this object.
  NTSTATUS OnPnpRemove(KnPrivateDeviceExtension* Extension, PIRP Irp);
  void TraceCapabilities(const DEVICE_CAPABILITIES* Capabilities);
};
