// KnUsbPipe: one endpoint of a selected interface, with the pipe information the bus driver
// returned for the selection, and the reset, abort and asynchronous IN read operations.
#pragma once
#include <ntddk.h>
#include <usb.h>

class KnPnPLowerDeviceUsb;
class KnUsbInterface;

// Called once per submitted read, possibly at DISPATCH_LEVEL. Status is the URB's USBD status
// (or the IRP's status when only that one failed); Length is the number of bytes transferred.
typedef void (*KnUsbPipeReadCallback)(PVOID Context, LONG Status, PVOID Buffer, ULONG Length);

class KnUsbPipe {
 public:
  KnUsbPipe();

  NTSTATUS ResetPipe(ULONG TimeoutMs);  // PASSIVE_LEVEL
  NTSTATUS AbortPipe(ULONG TimeoutMs);  // PASSIVE_LEVEL
  // Up to DISPATCH_LEVEL. The buffer must stay valid until the callback has run; when *Submitted
  // is TRUE the callback runs exactly once, whatever the returned status.
  NTSTATUS Read(PVOID Buffer, ULONG Length, KnUsbPipeReadCallback Callback, PVOID Context, BOOLEAN* Submitted);
  void SetPipeInformation(const USBD_PIPE_INFORMATION& Information);

  const USBD_PIPE_INFORMATION& GetPipeInformation() const { return mPipeInformation; }
  USBD_PIPE_HANDLE GetPipeHandle() const { return mPipeHandle; }
  UCHAR GetEndpointAddress() const { return mEndpointAddress; }
  ULONG GetMaxPacketSize() const { return mMaxPacketSize; }
  KnUsbInterface* GetInterface() const { return mInterface; }

  LIST_ENTRY mLink;  // in the owning interface's pipe list

 private:
  friend class KnUsbInterface;
  KnUsbPipe(const KnUsbPipe&);
  KnUsbPipe& operator=(const KnUsbPipe&);

  NTSTATUS SendPipeRequest(USHORT Function, ULONG TimeoutMs);
  static IO_COMPLETION_ROUTINE ReadCompletion;

  USBD_PIPE_INFORMATION mPipeInformation;
  USBD_PIPE_HANDLE mPipeHandle;
  UCHAR mEndpointAddress;
  ULONG mMaxPacketSize;
  KnPnPLowerDeviceUsb* mLowerDevice;
  KnUsbInterface* mInterface;
};
