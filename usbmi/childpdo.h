// ChildPdo: the child device object of one function of the composite device, on which the
// function's own driver loads. It is bound to its parent Device, takes the parent's lock,
// reports capabilities derived from the parent's and owns its private configuration set
// and a worker thread for its function driver's requests.
//
// The request queue, the internal device control path and the open notifications of the
// function drivers come with the child's request handling; until then the worker thread
// only waits to be stopped.
#pragma once

#include <ntddk.h>
#include <usb.h>

#include "knbuschildpdo.h"
#include "knevent.h"
#include "knlist.h"
#include "knpnplowerdeviceusb.h"
#include "knsystemthread.h"
#include "knusbconfigurationdesc.h"

class Device;

class ChildPdo : public KnBusChildPdo {
 public:
  explicit ChildPdo(Device* ParentDevice);
  // PASSIVE_LEVEL. Stops and joins the worker thread; the device object goes with the
  // framework part.
  ~ChildPdo() override;

  // The parent's PnP lock: all children and the parent are serialised on it.
  void Lock() override;
  void Unlock() override;

  // The parent's recorded capabilities, as a non-removable part of the device without a
  // number of its own.
  void OnPnpQueryCapabilities(PDEVICE_CAPABILITIES Capabilities) override;

  // Where the child's requests go: the device object below the parent. Set before OnCreate.
  void SetLowerDevice(KnPnPLowerDeviceUsb* LowerDevice) { mLowerDevice = LowerDevice; }
  // PASSIVE_LEVEL. Creates the device object and starts the worker thread. On failure the
  // caller destroys the child.
  NTSTATUS OnCreate();

  // Takes over the function's configuration set (pool memory, freed with the child).
  void AttachConfigurationDescriptor(PUSB_CONFIGURATION_DESCRIPTOR Descriptor);
  const KnUsbConfigurationDesc* GetConfigurationDesc() const { return &mConfigurationDesc; }
  UCHAR GetFirstInterfaceNumber() const { return mFirstInterfaceNumber; }

  // The link by which a list of children of one creation pass holds its children (the same
  // one the bus list uses: a child is in at most one list).
  static LIST_ENTRY ChildPdo::*ListLink() { return &ChildPdo::mChildListEntry; }

 private:
  static KSTART_ROUTINE ThreadFunction;

  Device* mParentDevice;
  KnPnPLowerDeviceUsb* mLowerDevice;
  KnUsbConfigurationDesc mConfigurationDesc;
  UCHAR mFirstInterfaceNumber;  // of the function's first interface
  UCHAR mConfigurationValue;    // as the function driver selected it; 0 unconfigured
  KnSystemThread mThread;
  KnEvent mThreadStopEvent;  // notification: ends the worker thread
  KnEvent mThreadWorkEvent;  // synchronization: wakes the worker thread for queued requests
};
