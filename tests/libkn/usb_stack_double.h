// A USB stack below a lower device under test: a raw PDO that answers internal USB requests
// at once from a descriptor source, fails them, or keeps them pending until a virtual-time
// deadline or their cancellation.
#pragma once
#include <ntddk.h>
#include <usb.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <wdmsim/usbdevice.h>

#include "knpnplowerdeviceusb.h"
#include "support_test_driver.h"

namespace kntest {

class UsbStackDouble {
 public:
  enum class Mode { Answer, Fail, Pend };

  // Answers GET_DESCRIPTOR from the firmware (the demo composite device by default).
  explicit UsbStackDouble(std::unique_ptr<wdmsim::UsbFirmware> firmware = nullptr);
  ~UsbStackDouble();

  PDEVICE_OBJECT Pdo() const { return mPdo; }

  // Answer: complete at once. Fail: complete at once with the failure status.
  // Pend: keep the IRP; it completes with pendStatus after pendMs of virtual time
  // (0 = never), or STATUS_CANCELLED when cancelled first.
  void SetMode(Mode mode, NTSTATUS failOrPendStatus = STATUS_UNSUCCESSFUL, uint32_t pendMs = 0);
  // Replaces the firmware for descriptor requests: bytes for (type, index, language);
  // answers are clipped to the request's buffer length.
  void SetDescriptorSource(std::function<std::vector<uint8_t>(uint8_t, uint8_t, uint16_t)> source);
  // USBD status written into every answered URB (success by default).
  void SetUrbStatus(USBD_STATUS status) { mUrbStatus = status; }

  struct Seen {
    ULONG ioControlCode;
    uint8_t descriptorType;
    uint8_t index;
    uint16_t languageId;
    ULONG bufferLength;
  };
  std::vector<Seen> TakeRequests();
  int Cancelled() const { return mCancelled; }

 private:
  struct Pending;
  bool OnRequest(PIRP irp, NTSTATUS* dispatchStatus);
  void Answer(PIRP irp);
  static void NTAPI OnCancel(PDEVICE_OBJECT device, PIRP irp);
  static void NTAPI OnPendExpired(PKDPC dpc, PVOID context, PVOID arg1, PVOID arg2);

  std::unique_ptr<wdmsim::UsbFirmware> mFirmware;
  std::function<std::vector<uint8_t>(uint8_t, uint8_t, uint16_t)> mSource;
  PDEVICE_OBJECT mPdo = nullptr;
  Mode mMode = Mode::Answer;
  NTSTATUS mStatus = STATUS_UNSUCCESSFUL;
  uint32_t mPendMs = 0;
  USBD_STATUS mUrbStatus = USBD_STATUS_SUCCESS;
  std::vector<Seen> mSeen;
  std::vector<std::unique_ptr<Pending>> mPending;
  int mCancelled = 0;
};

// A framework device object attached through mLower to a UsbStackDouble's PDO.
class LowerDeviceTest : public FrameworkTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  PDRIVER_OBJECT mDriver = nullptr;
  KnDeviceObject* mDevice = nullptr;
  std::unique_ptr<UsbStackDouble> mStack;
  KnPnPLowerDeviceUsb mLower;
};

}  // namespace kntest
