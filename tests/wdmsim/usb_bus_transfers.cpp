// URBs executed by a device PDO of the simulated stack: descriptors, selection with real
// handles, bulk and interrupt transfers with latency in virtual time, short transfers,
// stalls and pipe resets, cancellation and abort.
#include <cstring>
#include <map>
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

constexpr uint8_t kVendorIn = 0x85, kVendorOut = 0x03, kNotifyIn = 0x86;

using UsbBusTransfers = usbtest::DemoDeviceOnBus;

TEST_F(UsbBusTransfers, DescriptorsArriveAsynchronouslyAtDispatchLevelAndShortReadsGetWhatFits) {
  Bytes device(18, 0xEE);
  usbtest::Urb urb = usbtest::DescriptorRequest(USB_DEVICE_DESCRIPTOR_TYPE, 0, 0, device.data(), 18);
  {
    usbtest::PendingUrb pending(pdo, urb.get());
    EXPECT_EQ(STATUS_PENDING, pending.dispatchStatus());  // the host controller answers later
    kernel.RunUntilIdle();
    ASSERT_TRUE(pending.done());
    EXPECT_EQ(1, pending.completions());
    EXPECT_EQ(DISPATCH_LEVEL, pending.completionIrql());
    EXPECT_EQ(STATUS_SUCCESS, pending.status());
  }
  EXPECT_EQ(firmware->Description().device, device);

  // Every read gets min(asked, bLength or wTotalLength) bytes and nothing past them; what
  // the device lacks stalls.
  const wdmsim::UsbDeviceDescription& d = firmware->Description();
  struct Case {
    uint8_t type, index;
    ULONG length;
    const Bytes* source;  // nullptr: the device stalls
    ULONG expected;
  };
  const Case cases[] = {
      {1, 0, 8, &d.device, 8},       {1, 0, 17, &d.device, 17},   {1, 0, 18, &d.device, 18},
      {1, 0, 19, &d.device, 18},     {1, 0, 0xFFFF, &d.device, 18},
      {2, 0, 9, &d.configurations[0], 9}, {2, 0, 179, &d.configurations[0], 179},
      {2, 0, 180, &d.configurations[0], 180}, {2, 0, 181, &d.configurations[0], 180},
      {2, 1, 255, &d.configurations[1], 91}, {2, 2, 9, nullptr, 0},  // no third configuration
      {6, 0, 10, nullptr, 0},                                          // no device qualifier
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "type " << int(c.type) << " index " << int(c.index) << " length " << c.length);
    Bytes buffer(c.length + 8, 0xEE);
    urb = usbtest::DescriptorRequest(c.type, c.index, 0, buffer.data(), c.length);
    if (c.source == nullptr) {
      EXPECT_EQ(STATUS_UNSUCCESSFUL, usbtest::SubmitUrb(pdo, urb.get()));
      EXPECT_EQ(USBD_STATUS_STALL_PID, urb->UrbHeader.Status);
      continue;
    }
    ASSERT_EQ(STATUS_SUCCESS, usbtest::SubmitUrb(pdo, urb.get()));
    EXPECT_EQ(c.expected, urb->UrbControlDescriptorRequest.TransferBufferLength);
    Bytes expected(c.source->begin(), c.source->begin() + c.expected);
    expected.resize(buffer.size(), 0xEE);
    EXPECT_EQ(expected, buffer);
  }

  // A string in the table's language; an index the device lacks stalls.
  Bytes text(64);
  urb = usbtest::DescriptorRequest(USB_STRING_DESCRIPTOR_TYPE, d.device[15], 0x0409, text.data(), 64);
  ASSERT_EQ(STATUS_SUCCESS, usbtest::SubmitUrb(pdo, urb.get()));
  EXPECT_EQ(2 + 2 * 28u, urb->UrbControlDescriptorRequest.TransferBufferLength);  // "wdmsim Demo Composite Device"
  EXPECT_EQ('w', text[2]);
  urb = usbtest::DescriptorRequest(USB_STRING_DESCRIPTOR_TYPE, 0xEE, 0x0409, text.data(), 64);
  EXPECT_EQ(STATUS_UNSUCCESSFUL, usbtest::SubmitUrb(pdo, urb.get()));
  EXPECT_EQ(USBD_STATUS_STALL_PID, urb->UrbHeader.Status);
}

TEST_F(UsbBusTransfers, SelectionHandsOutFreshHandlesAndStaleOnesAreRefused) {
  std::map<uint8_t, USBD_PIPE_HANDLE> first = Configure();
  EXPECT_EQ(1, firmware->Configuration());
  ASSERT_EQ(9u, first.size());  // 0x81..0x86 IN, 0x01..0x03 OUT
  std::vector<USBD_PIPE_HANDLE> seen;
  for (auto& [endpoint, handle] : first) {
    EXPECT_NE(nullptr, handle);
    for (USBD_PIPE_HANDLE other : seen) EXPECT_NE(other, handle);
    seen.push_back(handle);
  }
  USBD_CONFIGURATION_HANDLE firstConfiguration = configuration;
  std::map<uint8_t, USBD_PIPE_HANDLE> second = Configure();
  EXPECT_NE(firstConfiguration, configuration);
  EXPECT_NE(first[kVendorIn], second[kVendorIn]);

  // The old handle is stale: refused like the real stack refuses it, and nothing reaches the device.
  firmware->QueueInData(kVendorIn, {1, 2, 3});
  Bytes buffer(8);
  usbtest::Urb read = usbtest::BulkOrInterrupt(first[kVendorIn], buffer.data(), 8, USBD_SHORT_TRANSFER_OK);
  EXPECT_EQ(STATUS_INVALID_PARAMETER, usbtest::SubmitUrb(pdo, read.get()));
  EXPECT_EQ(USBD_STATUS_INVALID_PIPE_HANDLE, read->UrbHeader.Status);
  EXPECT_EQ(1u, firmware->QueuedInChunks(kVendorIn));
  read = usbtest::BulkOrInterrupt(second[kVendorIn], buffer.data(), 8, USBD_SHORT_TRANSFER_OK);
  EXPECT_EQ(STATUS_SUCCESS, usbtest::SubmitUrb(pdo, read.get()));
  EXPECT_EQ(3u, read->UrbBulkOrInterruptTransfer.TransferBufferLength);

  // A select-interface with the first configuration handle is stale as well.
  usbtest::Urb select(GET_SELECT_INTERFACE_REQUEST_SIZE(2));
  UsbBuildSelectInterfaceRequest(select.get(), GET_SELECT_INTERFACE_REQUEST_SIZE(2), firstConfiguration, 4, 0);
  EXPECT_EQ(STATUS_INVALID_PARAMETER, usbtest::SubmitUrb(pdo, select.get()));

  // Unconfiguring: the device leaves its configuration and every handle goes stale.
  usbtest::Urb unconfigure(sizeof(_URB_SELECT_CONFIGURATION));
  UsbBuildSelectConfigurationRequest(unconfigure.get(), sizeof(_URB_SELECT_CONFIGURATION), nullptr);
  EXPECT_EQ(STATUS_SUCCESS, usbtest::SubmitUrb(pdo, unconfigure.get()));
  EXPECT_EQ(0, firmware->Configuration());
  usbtest::Urb reset = usbtest::PipeRequest(URB_FUNCTION_RESET_PIPE, second[kVendorIn]);
  EXPECT_EQ(STATUS_INVALID_PARAMETER, usbtest::SubmitUrb(pdo, reset.get()));
  EXPECT_EQ(USBD_STATUS_INVALID_PIPE_HANDLE, reset->UrbHeader.Status);
}

TEST_F(UsbBusTransfers, DataMovesInTheDirectionOfThePipeAndShortReadsAreNoError) {
  std::map<uint8_t, USBD_PIPE_HANDLE> pipes = Configure();
  // OUT pipe, though the client's flags say IN: the pipe decides.
  Bytes out = {0x11, 0x22, 0x33};
  usbtest::Urb write = usbtest::BulkOrInterrupt(pipes[kVendorOut], out.data(), 3, USBD_TRANSFER_DIRECTION_IN);
  ASSERT_EQ(STATUS_SUCCESS, usbtest::SubmitUrb(pdo, write.get()));
  EXPECT_EQ(0u, write->UrbBulkOrInterruptTransfer.TransferFlags & USBD_TRANSFER_DIRECTION_IN);
  EXPECT_EQ(std::vector<Bytes>{out}, firmware->TakeOutData(kVendorOut));

  // 512 bytes asked, 4 arrive. The EHCI controller ignores USBD_SHORT_TRANSFER_OK on bulk and
  // interrupt pipes: a short packet is no error, with the flag or without it.
  Bytes buffer(512, 0xEE);
  firmware->QueueInData(kVendorIn, {1, 2, 3, 4});
  usbtest::Urb read = usbtest::BulkOrInterrupt(pipes[kVendorIn], buffer.data(), 512, USBD_SHORT_TRANSFER_OK);
  ASSERT_EQ(STATUS_SUCCESS, usbtest::SubmitUrb(pdo, read.get()));
  EXPECT_EQ(4u, read->UrbBulkOrInterruptTransfer.TransferBufferLength);
  EXPECT_NE(0u, read->UrbBulkOrInterruptTransfer.TransferFlags & USBD_TRANSFER_DIRECTION_IN);
  EXPECT_EQ((Bytes{1, 2, 3, 4, 0xEE}), Bytes(buffer.begin(), buffer.begin() + 5));
  firmware->QueueInData(kVendorIn, {5, 6});
  read = usbtest::BulkOrInterrupt(pipes[kVendorIn], buffer.data(), 512, 0);
  EXPECT_EQ(STATUS_SUCCESS, usbtest::SubmitUrb(pdo, read.get()));
  EXPECT_EQ(USBD_STATUS_SUCCESS, read->UrbHeader.Status);
  EXPECT_EQ(2u, read->UrbBulkOrInterruptTransfer.TransferBufferLength);
  EXPECT_EQ((Bytes{5, 6, 3}), Bytes(buffer.begin(), buffer.begin() + 3));
  // Exactly the size asked, and the pipe was never halted by the short ones.
  firmware->QueueInData(kVendorIn, Bytes(512, 7));
  read = usbtest::BulkOrInterrupt(pipes[kVendorIn], buffer.data(), 512, 0);
  EXPECT_EQ(STATUS_SUCCESS, usbtest::SubmitUrb(pdo, read.get()));
  EXPECT_EQ(512u, read->UrbBulkOrInterruptTransfer.TransferBufferLength);
}

TEST_F(UsbBusTransfers, LatencyIsVirtualTimeAndAWaitingReadCanBeCancelledOnce) {
  std::map<uint8_t, USBD_PIPE_HANDLE> pipes = Configure();
  firmware->SetLatency(kNotifyIn, 30);
  firmware->QueueInData(kNotifyIn, {0xA1, 0xA2, 0xA3, 0xA4});
  Bytes buffer(4);
  usbtest::Urb read = usbtest::BulkOrInterrupt(pipes[kNotifyIn], buffer.data(), 4, USBD_SHORT_TRANSFER_OK);
  {
    usbtest::PendingUrb pending(pdo, read.get());
    kernel.Advance(29);
    EXPECT_FALSE(pending.done());
    kernel.Advance(1);
    ASSERT_TRUE(pending.done());
    EXPECT_EQ(STATUS_SUCCESS, pending.status());
    EXPECT_EQ(DISPATCH_LEVEL, pending.completionIrql());
  }
  EXPECT_EQ((Bytes{0xA1, 0xA2, 0xA3, 0xA4}), buffer);

  // Nothing to read: the transfer waits until cancelled, then completes exactly once.
  read = usbtest::BulkOrInterrupt(pipes[kNotifyIn], buffer.data(), 4, USBD_SHORT_TRANSFER_OK);
  {
    usbtest::PendingUrb pending(pdo, read.get());
    kernel.Advance(1000);
    EXPECT_FALSE(pending.done());
    EXPECT_EQ(1u, wdmsim::GetUsbPortState(bus->RootHub(), kPort).pendingTransfers);
    EXPECT_TRUE(pending.Cancel());
    kernel.RunUntilIdle();
    ASSERT_TRUE(pending.done());
    EXPECT_EQ(1, pending.completions());
    EXPECT_EQ(STATUS_CANCELLED, pending.status());
    EXPECT_EQ(USBD_STATUS_CANCELED, read->UrbHeader.Status);
    EXPECT_EQ(0u, read->UrbBulkOrInterruptTransfer.TransferBufferLength);
  }
  // Data that comes later goes to the next read.
  read = usbtest::BulkOrInterrupt(pipes[kNotifyIn], buffer.data(), 4, USBD_SHORT_TRANSFER_OK);
  usbtest::PendingUrb waiting(pdo, read.get());
  kernel.Advance(5);
  EXPECT_FALSE(waiting.done());
  firmware->QueueInData(kNotifyIn, {9});
  kernel.Advance(30);
  EXPECT_TRUE(waiting.done());
  EXPECT_EQ(1u, read->UrbBulkOrInterruptTransfer.TransferBufferLength);
}

TEST_F(UsbBusTransfers, AbortCompletesThePipesTransfersBeforeItself) {
  std::map<uint8_t, USBD_PIPE_HANDLE> pipes = Configure();
  Bytes a(8), b(8), c(8);
  usbtest::Urb readA = usbtest::BulkOrInterrupt(pipes[kVendorIn], a.data(), 8, USBD_SHORT_TRANSFER_OK);
  usbtest::Urb readB = usbtest::BulkOrInterrupt(pipes[kVendorIn], b.data(), 8, USBD_SHORT_TRANSFER_OK);
  usbtest::Urb other = usbtest::BulkOrInterrupt(pipes[kNotifyIn], c.data(), 8, USBD_SHORT_TRANSFER_OK);
  usbtest::PendingUrb first(pdo, readA.get());
  usbtest::PendingUrb second(pdo, readB.get());
  usbtest::PendingUrb untouched(pdo, other.get());
  kernel.RunUntilIdle();
  usbtest::Urb abort = usbtest::PipeRequest(URB_FUNCTION_ABORT_PIPE, pipes[kVendorIn]);
  EXPECT_EQ(STATUS_SUCCESS, usbtest::SubmitUrb(pdo, abort.get()));
  for (usbtest::PendingUrb* p : {&first, &second}) {
    ASSERT_TRUE(p->done());
    EXPECT_EQ(STATUS_CANCELLED, p->status());
  }
  EXPECT_EQ(USBD_STATUS_CANCELED, readA->UrbHeader.Status);
  EXPECT_FALSE(untouched.done());
  // The aborted pipe works on; the other one is cancelled by its owner.
  firmware->QueueInData(kVendorIn, {4});
  readA = usbtest::BulkOrInterrupt(pipes[kVendorIn], a.data(), 8, USBD_SHORT_TRANSFER_OK);
  EXPECT_EQ(STATUS_SUCCESS, usbtest::SubmitUrb(pdo, readA.get()));
  untouched.Cancel();
  kernel.RunUntilIdle();
}

TEST_F(UsbBusTransfers, AStallHaltsThePipeUntilItIsReset) {
  std::map<uint8_t, USBD_PIPE_HANDLE> pipes = Configure();
  firmware->SetHalted(kVendorIn, true);
  Bytes buffer(8);
  usbtest::Urb read = usbtest::BulkOrInterrupt(pipes[kVendorIn], buffer.data(), 8, USBD_SHORT_TRANSFER_OK);
  EXPECT_EQ(STATUS_UNSUCCESSFUL, usbtest::SubmitUrb(pdo, read.get()));
  EXPECT_EQ(USBD_STATUS_STALL_PID, read->UrbHeader.Status);

  // The host keeps the pipe halted, even after the device recovered by itself.
  firmware->SetHalted(kVendorIn, false);
  firmware->QueueInData(kVendorIn, {1});
  EXPECT_EQ(STATUS_UNSUCCESSFUL, usbtest::SubmitUrb(pdo, read.get()));
  EXPECT_EQ(USBD_STATUS_ENDPOINT_HALTED, read->UrbHeader.Status);
  EXPECT_EQ(1u, firmware->QueuedInChunks(kVendorIn));

  firmware->SetHalted(kVendorIn, true);
  firmware->TakeControlLog();
  usbtest::Urb reset = usbtest::PipeRequest(URB_FUNCTION_RESET_PIPE, pipes[kVendorIn]);
  ASSERT_EQ(STATUS_SUCCESS, usbtest::SubmitUrb(pdo, reset.get()));
  std::vector<wdmsim::UsbControlRecord> log = firmware->TakeControlLog();
  ASSERT_EQ(1u, log.size());
  EXPECT_EQ((wdmsim::UsbSetupPacket{0x02, USB_REQUEST_CLEAR_FEATURE, USB_FEATURE_ENDPOINT_STALL, kVendorIn, 0}),
            log[0].setup);
  EXPECT_FALSE(firmware->IsHalted(kVendorIn));
  read = usbtest::BulkOrInterrupt(pipes[kVendorIn], buffer.data(), 8, USBD_SHORT_TRANSFER_OK);
  EXPECT_EQ(STATUS_SUCCESS, usbtest::SubmitUrb(pdo, read.get()));
  EXPECT_EQ(1u, read->UrbBulkOrInterruptTransfer.TransferBufferLength);
}

TEST_F(UsbBusTransfers, VendorRequestsReachTheFirmwareAndUnknownOnesStall) {
  firmware->SetRequestAnswer(0xC1, 0x42, wdmsim::UsbRequestAnswer::Reply({7, 8, 9}));
  Bytes buffer(16, 0xEE);
  usbtest::Urb urb = usbtest::VendorOrClass(URB_FUNCTION_VENDOR_INTERFACE, true, 0x42, 0x1234, 5, buffer.data(), 16);
  ASSERT_EQ(STATUS_SUCCESS, usbtest::SubmitUrb(pdo, urb.get()));
  EXPECT_EQ(3u, urb->UrbControlVendorClassRequest.TransferBufferLength);
  EXPECT_EQ((Bytes{7, 8, 9, 0xEE}), Bytes(buffer.begin(), buffer.begin() + 4));
  std::vector<wdmsim::UsbControlRecord> log = firmware->TakeControlLog();
  ASSERT_EQ(1u, log.size());
  EXPECT_EQ((wdmsim::UsbSetupPacket{0xC1, 0x42, 0x1234, 5, 16}), log[0].setup);

  urb = usbtest::VendorOrClass(URB_FUNCTION_VENDOR_DEVICE, false, 0x43, 0, 0, buffer.data(), 2);
  EXPECT_EQ(STATUS_UNSUCCESSFUL, usbtest::SubmitUrb(pdo, urb.get()));
  EXPECT_EQ(USBD_STATUS_STALL_PID, urb->UrbHeader.Status);
}

}  // namespace
