// Fault points of the simulated stack: each one changes exactly the requests it matches,
// as often as it was armed, and counts what it did.
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include <wdmsim/io.h>
#include <wdmsim/kernel.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

#include "usb_bus_device_fixture.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint8_t kNotifyIn = 0x86;

class UsbBusFaultPoints : public usbtest::DemoDeviceOnBus {
 protected:
  void ConfigureNotify() { notifyPipe = Configure()[kNotifyIn]; }
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
  ConfigureNotify();
  EXPECT_EQ(1, wdmsim::UsbFaultHits(wdmsim::UsbFault::FailUrb));
}

TEST_F(UsbBusFaultPoints, CompleteLateAddsItsDelayToTheMatchingEndpoint) {
  ConfigureNotify();
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
  ConfigureNotify();
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
  ConfigureNotify();
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
  EXPECT_EQ(nullptr, wdmsim::GetUsbPortState(bus->RootHub(), kPort).pdo);
  bus->Enumerate();
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(pdo));
}

}  // namespace
