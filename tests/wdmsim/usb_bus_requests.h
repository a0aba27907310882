// What the USB bus tests send to the simulated stack: internal device control requests
// (URBs among them) built the way a client driver builds them, and PnP queries.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <wdmsim/io.h>
#include <wdmsim/usbbus.h>

#include <usb.h>
#include <usbdlib.h>
#include <usbioctl.h>

#include "io_test_driver.h"

namespace usbtest {

// An internal device control request to the top of the stack that device belongs to,
// waited for at PASSIVE_LEVEL. Returns the IRP's status.
NTSTATUS SendInternal(PDEVICE_OBJECT device, ULONG code, PVOID argument1);
NTSTATUS SubmitUrb(PDEVICE_OBJECT device, PURB urb);

// An IRP carrying the URB that the test completes, cancels and frees itself.
class PendingUrb {
 public:
  PendingUrb(PDEVICE_OBJECT device, PURB urb);
  ~PendingUrb();
  NTSTATUS dispatchStatus() const { return mDispatchStatus; }
  bool done() const;
  NTSTATUS status() const;  // the IRP's final status once done
  int completions() const { return mCompletions; }
  KIRQL completionIrql() const { return mIrql; }
  BOOLEAN Cancel();

 private:
  static NTSTATUS NTAPI OnComplete(PDEVICE_OBJECT, PIRP irp, PVOID context);
  PIRP mIrp = nullptr;
  NTSTATUS mDispatchStatus = STATUS_PENDING;
  int mCompletions = 0;
  KIRQL mIrql = PASSIVE_LEVEL;
};

// Zero-filled URBs shaped as the DDK builders shape them.
struct Urb {
  std::vector<uint8_t> bytes;
  explicit Urb(size_t size) : bytes(size, 0) {}
  PURB get() { return reinterpret_cast<PURB>(bytes.data()); }
  PURB operator->() { return get(); }
};
Urb DescriptorRequest(uint8_t type, uint8_t index, uint16_t language, void* buffer, ULONG length);
Urb BulkOrInterrupt(USBD_PIPE_HANDLE pipe, void* buffer, ULONG length, ULONG flags);
Urb PipeRequest(USHORT function, USBD_PIPE_HANDLE pipe);
Urb VendorOrClass(USHORT function, bool in, uint8_t request, uint16_t value, uint16_t index, void* buffer,
                  ULONG length);

// A select-configuration URB for every interface of the set in alternate setting 0, built by
// USBD_CreateConfigurationRequestEx; freed by the destructor.
class ConfigurationRequest {
 public:
  explicit ConfigurationRequest(const std::vector<uint8_t>& set);
  ~ConfigurationRequest();
  PURB urb() const { return mUrb; }
  PUSBD_INTERFACE_INFORMATION Interface(size_t i) const { return mList[i].Interface; }
  size_t count() const { return mList.size() - 1; }

 private:
  std::vector<uint8_t> mSet;
  std::vector<USBD_INTERFACE_LIST_ENTRY> mList;
  PURB mUrb = nullptr;
};

using iotest::QueryIds;
using iotest::QueryText;

}  // namespace usbtest
