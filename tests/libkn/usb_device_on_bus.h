// A device with one configuration set on the simulated USB bus, and a device object of the
// framework's test driver attached to its PDO through `lower`: the real stack below the
// USB access layer, with the fault points and inspection of <wdmsim/usbbus.h> at hand.
#pragma once
#include <memory>
#include <vector>

#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

#include <ntddk.h>
#include <usb.h>

#include "knpnplowerdeviceusb.h"

namespace kntest {

class UsbDeviceOnBus {
 public:
  // The set is taken as given (wTotalLength, counts and all); the device descriptor claims
  // one configuration.
  explicit UsbDeviceOnBus(std::vector<UCHAR> configurationSet);
  explicit UsbDeviceOnBus(std::shared_ptr<wdmsim::UsbFirmware> firmware);
  ~UsbDeviceOnBus();

  KnPnPLowerDeviceUsb lower;
  wdmsim::UsbFirmware& firmware() { return *mFirmware; }
  PDEVICE_OBJECT Pdo() const { return mPdo; }
  PDEVICE_OBJECT Device() const { return mDevice; }  // ours, attached to Pdo() through `lower`
  // The port the device is plugged into, as the hub sees it now.
  wdmsim::UsbPortState Port() const;
  const UCHAR* Set() const { return mSet.data(); }

  // URB functions the device PDO received, oldest first.
  std::vector<USHORT> TakeFunctions() { return wdmsim::TakeUsbUrbLog(mPdo); }
  // The next URB of that function fails with these statuses in the stack's dispatch routine.
  void FailNext(USHORT function, NTSTATUS irpStatus, USBD_STATUS urbStatus);
  size_t PendingTransfers() const { return Port().pendingTransfers; }
  // The device sends data on the endpoint; the host controller delivers it before this returns.
  void Send(UCHAR endpoint, const std::vector<UCHAR>& data);
  bool IsValidPipe(USBD_PIPE_HANDLE handle) const { return wdmsim::IsCurrentUsbPipeHandle(mPdo, handle); }
  USBD_CONFIGURATION_HANDLE ConfigurationHandle() const { return wdmsim::CurrentUsbConfigurationHandle(mPdo); }

 private:
  void Plug();

  std::vector<UCHAR> mSet;
  std::shared_ptr<wdmsim::UsbFirmware> mFirmware;
  std::unique_ptr<wdmsim::UsbTestBus> mBus;
  PDRIVER_OBJECT mDriver = nullptr;
  PDEVICE_OBJECT mPdo = nullptr;
  PDEVICE_OBJECT mDevice = nullptr;
};

// What a pipe's read callback reported, and how often it was called.
struct ReadRecord {
  int calls = 0;
  LONG status = 0x12345678;
  PVOID buffer = nullptr;
  ULONG length = 0xFFFFFFFF;

  static void OnRead(PVOID context, LONG status, PVOID buffer, ULONG length) {
    ReadRecord* record = static_cast<ReadRecord*>(context);
    ++record->calls;
    record->status = status;
    record->buffer = buffer;
    record->length = length;
  }
};

}  // namespace kntest
