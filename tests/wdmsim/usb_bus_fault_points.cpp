// Fault points of the simulated stack: each one changes exactly the requests it matches,
// as often as it was armed, and counts what it did.
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include <wdmsim/io.h>
#include <wdmsim/kernel.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

#include "usb_bus_requests.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint8_t kNotifyIn = 0x86;

class UsbBusFaultPoints : public ::testing::Test {
 protected:
  void SetUp() override {
    firmware = wdmsim::MakeDemoCompositeFirmware();
    bus = std::make_unique<wdmsim::UsbTestBus>();
    pdo = bus->Attach(firmware);
    ASSERT_NE(nullptr, pdo);
  }
  void TearDown() override { bus.reset(); }

  NTSTATUS Configure() {
    usbtest::ConfigurationRequest request(firmware->Description().configurations[0]);
    NTSTATUS status = usbtest::SubmitUrb(pdo, request.urb());
    for (size_t i = 0; i < request.count(); ++i) {
      PUSBD_INTERFACE_INFORMATION info = request.Interface(i);
      for (ULONG p = 0; p < info->NumberOfPipes; ++p) {
        if (info->Pipes[p].EndpointAddress == kNotifyIn) notifyPipe = info->Pipes[p].PipeHandle;
      }
    }
    return status;
  }

  wdmsim::Kernel kernel;
  std::shared_ptr<wdmsim::UsbFirmware> firmware;
  std::unique_ptr<wdmsim::UsbTestBus> bus;
  PDEVICE_OBJECT pdo = nullptr;
  USBD_PIPE_HANDLE notifyPipe = nullptr;
};

TEST_F(UsbBusFaultPoints, FailUrbFailsTheMatchingFunctionSynchronouslyAndOnlyOnce) {
  wdmsim::UsbFaultPoint fail;
  fail.fault = wdmsim::UsbFault::FailUrb;
  fail.urbFunction = URB_FUNCTION_SELECT_CONFIGURATION;
  fail.irpStatus = STATUS_INSUFFICIENT_RESOURCES;
  fail.urbStatus = USBD_STATUS_INSUFFICIENT_RESOURCES;
  wdmsim::ArmUsbFault(fail);

  Bytes device(18);
  usbtest::Urb descriptor = usbtest::DescriptorRequest(USB_DEVICE_DESCRIPTOR_TYPE, 0, 0, device.data(), 18);
  EXPECT_EQ(STATUS_SUCCESS, usbtest::SubmitUrb(pdo, descriptor.get()));  // another function: untouched
  EXPECT_EQ(0, wdmsim::UsbFaultHits(wdmsim::UsbFault::FailUrb));

  usbtest::ConfigurationRequest request(firmware->Description().configurations[0]);
  {
    usbtest::PendingUrb pending(pdo, request.urb());
    EXPECT_TRUE(pending.done());  // completed inside the dispatch routine
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, pending.dispatchStatus());
    EXPECT_EQ(PASSIVE_LEVEL, pending.completionIrql());
  }
  EXPECT_EQ(USBD_STATUS_INSUFFICIENT_RESOURCES, request.urb()->UrbHeader.Status);
  EXPECT_EQ(0, firmware->Configuration());
  EXPECT_EQ(1, wdmsim::UsbFaultHits(wdmsim::UsbFault::FailUrb));
  EXPECT_EQ(STATUS_SUCCESS, Configure());
  EXPECT_EQ(1, wdmsim::UsbFaultHits(wdmsim::UsbFault::FailUrb));
}

TEST_F(UsbBusFaultPoints, CompleteLateAddsItsDelayToTheMatchingEndpoint) {
  ASSERT_EQ(STATUS_SUCCESS, Configure());
  wdmsim::UsbFaultPoint late;
  late.fault = wdmsim::UsbFault::CompleteLate;
  late.endpoint = kNotifyIn;
  late.delayMs = 500;
  wdmsim::ArmUsbFault(late);
  firmware->QueueInData(kNotifyIn, {1, 2, 3, 4});
  Bytes buffer(4);
  usbtest::Urb read = usbtest::BulkOrInterrupt(notifyPipe, buffer.data(), 4, USBD_SHORT_TRANSFER_OK);
  usbtest::PendingUrb pending(pdo, read.get());
  kernel.Advance(499);
  EXPECT_FALSE(pending.done());
  kernel.Advance(1);
  EXPECT_TRUE(pending.done());
  EXPECT_EQ(STATUS_SUCCESS, pending.status());
  EXPECT_EQ(1, wdmsim::UsbFaultHits(wdmsim::UsbFault::CompleteLate));
}

TEST_F(UsbBusFaultPoints, CompleteAfterCancelDeliversTheResultOfACancelledTransfer) {
  ASSERT_EQ(STATUS_SUCCESS, Configure());
  wdmsim::UsbFaultPoint late;
  late.fault = wdmsim::UsbFault::CompleteAfterCancel;
  wdmsim::ArmUsbFault(late);
  firmware->SetLatency(kNotifyIn, 50);
  firmware->QueueInData(kNotifyIn, {0x5A});
  Bytes buffer(4);
  usbtest::Urb read = usbtest::BulkOrInterrupt(notifyPipe, buffer.data(), 4, USBD_SHORT_TRANSFER_OK);
  usbtest::PendingUrb pending(pdo, read.get());
  kernel.Advance(10);
  EXPECT_TRUE(pending.Cancel());
  kernel.RunUntilIdle();
  EXPECT_FALSE(pending.done());
  EXPECT_EQ(1, wdmsim::UsbFaultHits(wdmsim::UsbFault::CompleteAfterCancel));
  kernel.Advance(40);
  ASSERT_TRUE(pending.done());
  EXPECT_EQ(1, pending.completions());
  EXPECT_EQ(STATUS_SUCCESS, pending.status());
  EXPECT_EQ(0x5A, buffer[0]);
}

TEST_F(UsbBusFaultPoints, DisconnectMidTransferFailsItAndTheHubReportsTheDeviceMissing) {
  ASSERT_EQ(STATUS_SUCCESS, Configure());
  wdmsim::UsbFaultPoint drop;
  drop.fault = wdmsim::UsbFault::DisconnectMidTransfer;
  drop.urbFunction = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
  wdmsim::ArmUsbFault(drop);
  firmware->QueueInData(kNotifyIn, {1});
  Bytes buffer(4);
  usbtest::Urb read = usbtest::BulkOrInterrupt(notifyPipe, buffer.data(), 4, USBD_SHORT_TRANSFER_OK);
  EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, usbtest::SubmitUrb(pdo, read.get()));
  EXPECT_EQ(USBD_STATUS_DEVICE_GONE, read->UrbHeader.Status);
  EXPECT_EQ(1, wdmsim::UsbFaultHits(wdmsim::UsbFault::DisconnectMidTransfer));
  EXPECT_TRUE(firmware->IsDisconnected());
  kernel.RunUntilIdle();
  EXPECT_EQ(nullptr, wdmsim::GetUsbPortState(bus->RootHub(), 1).pdo);
  bus->Enumerate();
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(pdo));
}

}  // namespace
