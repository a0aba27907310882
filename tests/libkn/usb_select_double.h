// A compact stand-in for the USB stack below a parent device: a raw PDO whose hook executes
// select-configuration, select-interface, abort and reset pipe and bulk/interrupt IN reads
// against one configuration descriptor set, with real handles (distinct, non-NULL, renewed on
// every selection, stale ones refused with USBD_STATUS_INVALID_PIPE_HANDLE).
#pragma once
#include <deque>
#include <map>
#include <mutex>
#include <vector>

#include <ntddk.h>
#include <usb.h>

#include "knpnplowerdeviceusb.h"

namespace kntest {

class UsbSelectDouble {
 public:
  // Loads the test driver, creates the PDO and attaches a device of the driver to it through Lower.
  explicit UsbSelectDouble(std::vector<UCHAR> configurationSet);
  ~UsbSelectDouble();

  KnPnPLowerDeviceUsb lower;

  // Requests seen, by URB function, oldest first.
  std::vector<USHORT> TakeFunctions();
  // The next URB of that function fails with these statuses instead of executing.
  void FailNext(USHORT function, NTSTATUS irpStatus, USBD_STATUS urbStatus);
  size_t PendingReads();
  // Completes the oldest pending read with data (truncated to the read's buffer).
  void CompleteRead(const std::vector<UCHAR>& data);
  bool IsValidPipe(USBD_PIPE_HANDLE handle);
  USBD_CONFIGURATION_HANDLE ConfigurationHandle();
  const UCHAR* Set() const { return mSet.data(); }

 private:
  struct Failure {
    NTSTATUS irpStatus;
    USBD_STATUS urbStatus;
  };
  bool Dispatch(PIRP irp, NTSTATUS* dispatchStatus);
  // Fills the interface information from the descriptor set; false when it has no such setting.
  bool Select(PUSBD_INTERFACE_INFORMATION information);
  PVOID NewHandle() { return reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(++mNextHandle) << 4); }

  std::vector<UCHAR> mSet;
  PDRIVER_OBJECT mDriver = nullptr;
  PDEVICE_OBJECT mPdo = nullptr;
  PDEVICE_OBJECT mDevice = nullptr;

  std::mutex mMutex;
  ULONG mNextHandle = 0x100;
  USBD_CONFIGURATION_HANDLE mConfiguration = nullptr;
  std::map<USBD_PIPE_HANDLE, UCHAR> mPipes;  // valid pipe handle -> its interface number
  std::deque<PIRP> mReads;
  std::vector<USHORT> mFunctions;
  std::map<USHORT, Failure> mFailures;
};

}  // namespace kntest
