// KnTargetDevice: the device object directly below an FDO, and the ways of sending IRPs to it.
#pragma once
#include <ntddk.h>

class KnTargetDevice {
 public:
  KnTargetDevice();
  // The owner detaches before destroying the object.
  virtual ~KnTargetDevice();

  PDEVICE_OBJECT GetLowerDeviceObject() const { return mLowerDeviceObject; }
  // The lower device's stack count, to size IRPs sent to it.
  CCHAR GetStackSize() const;

  // Up to DISPATCH_LEVEL. Returns the device object attached to, or NULL.
  PDEVICE_OBJECT AttachDeviceToDeviceStack(PDEVICE_OBJECT source, PDEVICE_OBJECT target);
  // PASSIVE_LEVEL. Nothing happens when not attached.
  void DetachFromDeviceStack();

  // Up to DISPATCH_LEVEL; the caller has prepared the next stack location.
  NTSTATUS CallDriver(PIRP irp);
  // PASSIVE_LEVEL. Sends the IRP and waits until it is back (time-out 0 = for ever). When the
  // time-out expires the IRP is cancelled, and the call still waits for it: STATUS_IO_TIMEOUT.
  // The IRP belongs to the caller again on return.
  NTSTATUS CallDriverAndWait(PIRP irp, ULONG timeoutMs);
  // PASSIVE_LEVEL.
  NTSTATUS CallPowerDriver(PIRP irp);
  // PASSIVE_LEVEL. On success *stringBuffer is pool memory that the caller frees with ExFreePool.
  NTSTATUS QueryId(BUS_QUERY_ID_TYPE idType, PWCHAR* stringBuffer);

 private:
  static NTSTATUS OnCallDriverAndWaitComplete(PDEVICE_OBJECT deviceObject, PIRP irp, PVOID context);

  PDEVICE_OBJECT mLowerDeviceObject;
};
