// The USB access layer against the simulated USB stack rather than a double: time-outs that
// cancel a request the stack holds and still wait for it, synchronous and asynchronous
// completions, descriptor reads (short ones included), stalled control requests, an
// alternate setting reaching the device, and a device that drops off mid-transfer.
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdmsim/io.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

#include <usbdlib.h>

#include "knusbconfiguration.h"
#include "knusbconfigurationdesc.h"
#include "knusbinterface.h"
#include "knusbpipe.h"
#include "support_test_driver.h"
#include "usb_device_on_bus.h"

namespace {

using Bytes = std::vector<UCHAR>;
constexpr UCHAR kNotifyIn = 0x86;

struct ReadRecord {
  int calls = 0;
  LONG status = 0x12345678;
  ULONG length = 0xFFFFFFFF;
};

void OnRead(PVOID context, LONG status, PVOID, ULONG length) {
  auto* record = static_cast<ReadRecord*>(context);
  ++record->calls;
  record->status = status;
  record->length = length;
}

class UsbAccessOnSimulatedStack : public kntest::FrameworkTest {
 protected:
  void SetUp() override { mDevice = std::make_unique<kntest::UsbDeviceOnBus>(wdmsim::MakeDemoCompositeFirmware()); }
  void TearDown() override {
    if (mConfiguration.GetConfigurationValue() != 0) mConfiguration.UnconfigureDevice(FALSE, 0);
    mHolder.Release();
    mDevice.reset();
  }
  void Configure() {
    mHolder.SetLowerDevice(&mDevice->lower);
    mConfiguration.mLowerDevice = &mDevice->lower;
    ASSERT_EQ(STATUS_SUCCESS, mHolder.GetAndAllocate(0, 2500));
    ASSERT_EQ(STATUS_SUCCESS, mConfiguration.SetConfiguration(&mHolder, 4096, 0));
    KnUsbInterface* notification = mConfiguration.FindInterface(0xFF, 0xFF, 0x01, 0x00);
    ASSERT_NE(nullptr, notification);
    mNotify = notification->FindPipe(NULL, 0x80, 3);
    ASSERT_NE(nullptr, mNotify);
  }
  uint32_t ElapsedMs(int64_t since) { return static_cast<uint32_t>((mKernel.SystemTime() - since) / 10000); }

  std::unique_ptr<kntest::UsbDeviceOnBus> mDevice;
  KnUsbConfigurationDesc mHolder;
  KnUsbConfiguration mConfiguration;
  KnUsbPipe* mNotify = nullptr;
};

TEST_F(UsbAccessOnSimulatedStack, TimeOutCancelsTheHeldRequestAndWaitsUntilTheStackGaveItBack) {
  Configure();
  // A read on an idle interrupt pipe is held by the host controller until cancelled.
  Bytes buffer(4);
  URB urb;
  RtlZeroMemory(&urb, sizeof(urb));
  UsbBuildInterruptOrBulkTransferRequest(&urb, sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER), mNotify->GetPipeHandle(),
                                         buffer.data(), NULL, 4, USBD_SHORT_TRANSFER_OK, NULL);
  int64_t start = mKernel.SystemTime();
  EXPECT_EQ(STATUS_IO_TIMEOUT, mDevice->lower.SubmitUrbAndWait(&urb, 100));
  EXPECT_EQ(100u, ElapsedMs(start));
  EXPECT_EQ(USBD_STATUS_CANCELED, urb.UrbHeader.Status);
  EXPECT_EQ(0u, wdmsim::LiveIrpCount());  // freed, and only once (a second free is a violation)
  EXPECT_EQ(0u, mDevice->PendingTransfers());

  // The device's answer is on its way when the time-out strikes: the cancel comes too late,
  // the IRP finishes with success, and the caller still learns it timed out, once it is back.
  wdmsim::UsbFaultPoint tooLate;
  tooLate.fault = wdmsim::UsbFault::CompleteAfterCancel;
  wdmsim::ArmUsbFault(tooLate);
  mDevice->firmware().SetLatency(kNotifyIn, 300);
  mDevice->firmware().QueueInData(kNotifyIn, {1, 2, 3, 4});
  UsbBuildInterruptOrBulkTransferRequest(&urb, sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER), mNotify->GetPipeHandle(),
                                         buffer.data(), NULL, 4, USBD_SHORT_TRANSFER_OK, NULL);
  start = mKernel.SystemTime();
  EXPECT_EQ(STATUS_IO_TIMEOUT, mDevice->lower.SubmitUrbAndWait(&urb, 100));
  EXPECT_EQ(300u, ElapsedMs(start));
  EXPECT_EQ(1, wdmsim::UsbFaultHits(wdmsim::UsbFault::CompleteAfterCancel));
  EXPECT_EQ(USBD_STATUS_SUCCESS, urb.UrbHeader.Status);
  EXPECT_EQ((Bytes{1, 2, 3, 4}), buffer);
  EXPECT_EQ(0u, wdmsim::LiveIrpCount());

  // A control pipe that NAKs for ever: a descriptor read times out after its 2500 ms.
  mDevice->firmware().SetHeld(0x00, true);
  USB_DEVICE_DESCRIPTOR device;
  start = mKernel.SystemTime();
  EXPECT_EQ(STATUS_IO_TIMEOUT, mDevice->lower.GetDeviceDescriptor(&device, 2500));
  EXPECT_EQ(2500u, ElapsedMs(start));
  mDevice->firmware().SetHeld(0x00, false);
  EXPECT_EQ(STATUS_SUCCESS, mDevice->lower.GetDeviceDescriptor(&device, 2500));
  EXPECT_EQ(0x4A9B, device.idVendor);
}

struct Completion {
  std::atomic<int> calls{0};
  KIRQL irql = PASSIVE_LEVEL;
  NTSTATUS status = STATUS_PENDING;
};

NTSTATUS OnSubmitted(PDEVICE_OBJECT, PIRP irp, PVOID context) {
  auto* completion = static_cast<Completion*>(context);
  completion->irql = KeGetCurrentIrql();
  completion->status = irp->IoStatus.Status;
  IoFreeIrp(irp);
  ++completion->calls;
  return STATUS_MORE_PROCESSING_REQUIRED;
}

TEST_F(UsbAccessOnSimulatedStack, SubmitUrbCompletesLaterFromTheHostControllerOrAtOnceWhenRefused) {
  USB_DEVICE_DESCRIPTOR device;
  URB urb;
  RtlZeroMemory(&urb, sizeof(urb));
  UsbBuildGetDescriptorRequest(&urb, sizeof(_URB_CONTROL_DESCRIPTOR_REQUEST), USB_DEVICE_DESCRIPTOR_TYPE, 0, 0, &device,
                               NULL, sizeof(device), NULL);
  Completion later;
  BOOLEAN willComplete = FALSE;
  EXPECT_EQ(STATUS_PENDING, mDevice->lower.SubmitUrb(&urb, OnSubmitted, &later, &willComplete));
  EXPECT_TRUE(willComplete);
  EXPECT_EQ(0, later.calls.load());
  mKernel.RunUntilIdle();
  EXPECT_EQ(1, later.calls.load());
  EXPECT_EQ(DISPATCH_LEVEL, later.irql);
  EXPECT_EQ(STATUS_SUCCESS, later.status);

  mDevice->FailNext(URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, STATUS_DEVICE_NOT_CONNECTED, USBD_STATUS_DEVICE_GONE);
  Completion atOnce;
  EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, mDevice->lower.SubmitUrb(&urb, OnSubmitted, &atOnce, &willComplete));
  EXPECT_EQ(1, atOnce.calls.load());  // before SubmitUrb returned
  EXPECT_EQ(PASSIVE_LEVEL, atOnce.irql);
  EXPECT_EQ(1, wdmsim::UsbFaultHits(wdmsim::UsbFault::FailUrb));
  EXPECT_EQ(0u, wdmsim::LiveIrpCount());
}

TEST_F(UsbAccessOnSimulatedStack, DescriptorReadsTakeWhatTheDeviceHasAndStallsFail) {
  const Bytes& set = mDevice->firmware().Description().configurations[1];
  Bytes header(9);
  ULONG returned = 0;
  ASSERT_EQ(STATUS_SUCCESS, mDevice->lower.GetConfigurationDescriptor(1, header.data(), 9, &returned, 2500));
  EXPECT_EQ(9u, returned);
  EXPECT_EQ(Bytes(set.begin(), set.begin() + 9), header);

  // Language 0 falls back to the first entry of the table; 16 bytes hold 7 characters.
  WCHAR text[8];
  ASSERT_EQ(STATUS_SUCCESS, mDevice->lower.GetString(2, 0, text, sizeof(text), 2500));
  EXPECT_EQ(std::u16string(u"wdmsim "), std::u16string(reinterpret_cast<char16_t*>(text)));

  // A string the device lacks stalls: the request fails and the caller hears of it.
  TakeTrace();
  EXPECT_EQ(STATUS_UNSUCCESSFUL, mDevice->lower.GetString(0xEE, 0x0409, text, sizeof(text), 2500));
  EXPECT_NE(std::string::npos, TakeTrace().find("SubmitUrbAndWait: CallDriverAndWait failed"));
  EXPECT_EQ(0, text[0]);
}

TEST_F(UsbAccessOnSimulatedStack, ASetShorterThanItsHeaderClaimsIsKeptWithTheReceivedLength) {
  // wTotalLength claims 64 bytes; the device has 25.
  Bytes set = {9, 0x02, 64, 0, 1, 1, 0, 0x80, 50,     9, 0x04, 0, 0, 1, 0xFF, 0x00, 0x00, 0,
               7, 0x05, 0x81, 0x02, 0x40, 0x00, 0};
  mDevice.reset();  // one bus at a time
  mDevice = std::make_unique<kntest::UsbDeviceOnBus>(set);
  mHolder.SetLowerDevice(&mDevice->lower);
  TakeTrace();
  ASSERT_EQ(STATUS_SUCCESS, mHolder.GetAndAllocate(0, 2500));
  EXPECT_EQ(25u, mHolder.GetLength());
  EXPECT_NE(std::string::npos, TakeTrace().find("Device returned invalid descriptor"));
  EXPECT_NE(nullptr, mHolder.FindNextDescriptor(NULL, USB_ENDPOINT_DESCRIPTOR_TYPE));
}

TEST_F(UsbAccessOnSimulatedStack, AlternateSettingReachesTheDeviceAndItsPipesCarryData) {
  // Interface 0 with a second setting that has a bulk IN endpoint.
  wdmsim::UsbDescriptionBuilder builder(0x4A9B, 0x0077);
  builder.DeviceClass(0xFF, 0, 0).Configuration(1, 0x80, 100);
  builder.Interface(0, 0, 0xFF, 0, 0);
  builder.Interface(0, 1, 0xFF, 0, 0).BulkIn(0x81, 64);
  mDevice.reset();  // one bus at a time
  mDevice = std::make_unique<kntest::UsbDeviceOnBus>(std::make_shared<wdmsim::UsbFirmware>(builder.Build()));
  mHolder.SetLowerDevice(&mDevice->lower);
  mConfiguration.mLowerDevice = &mDevice->lower;
  ASSERT_EQ(STATUS_SUCCESS, mHolder.GetAndAllocate(0, 2500));
  ASSERT_EQ(STATUS_SUCCESS, mConfiguration.SetConfiguration(&mHolder, 4096, 0));
  EXPECT_EQ(0u, mConfiguration.FindInterface(0, 0xFFFF, 0xFFFF, 0xFFFF)->mInterfaceInformation.NumberOfPipes);
  ASSERT_EQ(STATUS_SUCCESS, mConfiguration.SetAlternateSetting(&mHolder, 0, 1, 4096, 2500));
  EXPECT_EQ(1, mDevice->firmware().AlternateSetting(0));
  KnUsbPipe* bulk = mConfiguration.FindInterface(0, 0xFFFF, 0xFFFF, 0xFFFF)->FindPipe(NULL, 0x80, 2);
  ASSERT_NE(nullptr, bulk);
  Bytes buffer(64);
  ReadRecord record;
  EXPECT_EQ(STATUS_PENDING, bulk->Read(buffer.data(), 64, OnRead, &record, NULL));
  mDevice->Send(0x81, {0xC0, 0xFF, 0xEE});
  EXPECT_EQ(1, record.calls);
  EXPECT_EQ(USBD_STATUS_SUCCESS, record.status);
  EXPECT_EQ(3u, record.length);
  EXPECT_EQ(0xEE, buffer[2]);
}

TEST_F(UsbAccessOnSimulatedStack, DeviceDroppingOffMidReadFailsTheReadWithDeviceGone) {
  Configure();
  wdmsim::UsbFaultPoint drop;
  drop.fault = wdmsim::UsbFault::DisconnectMidTransfer;
  drop.endpoint = kNotifyIn;
  wdmsim::ArmUsbFault(drop);
  Bytes buffer(4);
  ReadRecord record;
  BOOLEAN submitted = FALSE;
  EXPECT_EQ(STATUS_PENDING, mNotify->Read(buffer.data(), 4, OnRead, &record, &submitted));
  EXPECT_TRUE(submitted);
  mKernel.RunUntilIdle();
  EXPECT_EQ(1, wdmsim::UsbFaultHits(wdmsim::UsbFault::DisconnectMidTransfer));
  EXPECT_EQ(1, record.calls);
  EXPECT_EQ(static_cast<LONG>(USBD_STATUS_DEVICE_GONE), record.status);
  // Every request after that fails as well.
  EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, mNotify->ResetPipe(2500));
}

}  // namespace
