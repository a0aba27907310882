// The lower device on a device PDO of the simulated USB hub: attach and detach, waiting for
// an IRP with and without a time-out (a time-out cancels and still waits for the IRP), the
// port cycle, the identifier query and device properties.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdmsim/io.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

#include <usbdlib.h>

#include "support_test_driver.h"
#include "usb_device_on_bus.h"

namespace {

using Bytes = std::vector<UCHAR>;

constexpr char16_t kProductText[] = u"Lower device test stick";

wdmsim::UsbDeviceDescription TestStick() {
  wdmsim::UsbDescriptionBuilder builder(0x4A9B, 0x0071);
  builder.DeviceClass(0xFF, 0, 0).Product(kProductText).Configuration(1, 0x80, 100).Interface(0, 0, 0xFF, 0, 0);
  return builder.Build();
}

class LowerDeviceOnBus : public kntest::FrameworkTest {
 protected:
  void SetUp() override {
    mDevice = std::make_unique<kntest::UsbDeviceOnBus>(std::make_shared<wdmsim::UsbFirmware>(TestStick()));
  }
  void TearDown() override { mDevice.reset(); }
  uint32_t ElapsedMs(int64_t since) { return static_cast<uint32_t>((mKernel.SystemTime() - since) / 10000); }

  std::unique_ptr<kntest::UsbDeviceOnBus> mDevice;
};

TEST_F(LowerDeviceOnBus, AttachRecordsBothDeviceObjectsAndDetachClearsThem) {
  KnPnPLowerDeviceUsb& lower = mDevice->lower;
  EXPECT_EQ(mDevice->Pdo(), lower.GetLowerDeviceObject());
  EXPECT_EQ(mDevice->Pdo(), lower.GetPhysicalDeviceObject());
  EXPECT_EQ(mDevice->Pdo()->StackSize, lower.GetStackSize());
  EXPECT_EQ(mDevice->Pdo(), wdmsim::AttachedToDevice(mDevice->Device()));
  lower.DetachFromPnpDeviceStack();
  EXPECT_EQ(nullptr, lower.GetLowerDeviceObject());
  EXPECT_EQ(nullptr, lower.GetPhysicalDeviceObject());
  EXPECT_EQ(nullptr, wdmsim::AttachedToDevice(mDevice->Device()));
  lower.DetachFromPnpDeviceStack();  // a second detach does nothing
}

// Every request goes through SubmitUrbAndWait, which allocates the IRP: every row also shows
// that the IRP was freed exactly once (a leak is left live, a second free is a violation).
TEST_F(LowerDeviceOnBus, CallDriverAndWaitReturnsOnlyOnceTheIrpIsBack) {
  enum class Request { DeviceDescriptor, MissingDescriptor, FrameNumber, AbortUnknownPipe };
  struct Case {
    const char* name;
    Request request;
    uint32_t latencyMs;  // of the device's control pipe
    bool held;           // the control pipe NAKs until released
    bool completeAfterCancel;
    ULONG timeoutMs;
    NTSTATUS expected;
    USBD_STATUS urbStatus;
    uint32_t elapsedMs;
  } cases[] = {
      {"answered in the dispatch routine", Request::FrameNumber, 0, false, false, 1000, STATUS_SUCCESS,
       USBD_STATUS_SUCCESS, 0},
      {"refused in the dispatch routine", Request::AbortUnknownPipe, 0, false, false, 1000, STATUS_INVALID_PARAMETER,
       USBD_STATUS_INVALID_PIPE_HANDLE, 0},
      {"stalled by the device", Request::MissingDescriptor, 0, false, false, 0, STATUS_UNSUCCESSFUL,
       USBD_STATUS_STALL_PID, 0},
      {"no time-out waits as long as it takes", Request::DeviceDescriptor, 600000, false, false, 0, STATUS_SUCCESS,
       USBD_STATUS_SUCCESS, 600000},
      {"back a millisecond before the time-out", Request::DeviceDescriptor, 999, false, false, 1000, STATUS_SUCCESS,
       USBD_STATUS_SUCCESS, 999},
      {"a millisecond too late: cancelled", Request::DeviceDescriptor, 1001, false, false, 1000, STATUS_IO_TIMEOUT,
       USBD_STATUS_CANCELED, 1000},
      {"never answered: cancelled", Request::DeviceDescriptor, 0, true, false, 50, STATUS_IO_TIMEOUT,
       USBD_STATUS_CANCELED, 50},
      // The answer is on its way when the time-out strikes: the cancel comes too late, the
      // IRP finishes with success, and the caller still hears of the time-out once it is back.
      {"finished despite the cancel", Request::DeviceDescriptor, 300, false, true, 100, STATUS_IO_TIMEOUT,
       USBD_STATUS_SUCCESS, 300},
  };
  const Bytes& deviceDescriptor = mDevice->firmware().Description().device;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    wdmsim::ClearUsbFaults();
    mDevice->firmware().SetLatency(0x00, c.latencyMs);
    mDevice->firmware().SetHeld(0x00, c.held);
    if (c.completeAfterCancel) {
      wdmsim::UsbFaultPoint tooLate;
      tooLate.fault = wdmsim::UsbFault::CompleteAfterCancel;
      wdmsim::ArmUsbFault(tooLate);
    }
    URB urb;
    RtlZeroMemory(&urb, sizeof(urb));
    Bytes buffer(18, 0xEE);
    switch (c.request) {
      case Request::DeviceDescriptor:
      case Request::MissingDescriptor:
        UsbBuildGetDescriptorRequest(&urb, sizeof(_URB_CONTROL_DESCRIPTOR_REQUEST),
                                     c.request == Request::DeviceDescriptor ? USB_DEVICE_DESCRIPTOR_TYPE : 0x06, 0, 0,
                                     buffer.data(), NULL, 18, NULL);
        break;
      case Request::FrameNumber:
        urb.UrbHeader.Length = sizeof(_URB_GET_CURRENT_FRAME_NUMBER);
        urb.UrbHeader.Function = URB_FUNCTION_GET_CURRENT_FRAME_NUMBER;
        break;
      case Request::AbortUnknownPipe:
        urb.UrbHeader.Length = sizeof(_URB_PIPE_REQUEST);
        urb.UrbHeader.Function = URB_FUNCTION_ABORT_PIPE;
        urb.UrbPipeRequest.PipeHandle = reinterpret_cast<USBD_PIPE_HANDLE>(0x5A5A0);
        break;
    }
    const int64_t start = mKernel.SystemTime();
    EXPECT_EQ(c.expected, mDevice->lower.SubmitUrbAndWait(&urb, c.timeoutMs));
    EXPECT_EQ(c.elapsedMs, ElapsedMs(start));
    EXPECT_EQ(c.urbStatus, urb.UrbHeader.Status);
    EXPECT_EQ(c.completeAfterCancel ? 1 : 0, wdmsim::UsbFaultHits(wdmsim::UsbFault::CompleteAfterCancel));
    if (c.request == Request::DeviceDescriptor) {
      const bool delivered = c.urbStatus == USBD_STATUS_SUCCESS;
      EXPECT_EQ(delivered ? 18u : 0u, urb.UrbControlDescriptorRequest.TransferBufferLength);
      if (delivered) {
        EXPECT_EQ(deviceDescriptor, buffer);
      }
    }
    EXPECT_EQ(0u, wdmsim::LiveIrpCount());
    EXPECT_EQ(0u, mDevice->PendingTransfers());
  }
  mDevice->firmware().SetHeld(0x00, false);
}

TEST_F(LowerDeviceOnBus, CylePortMakesTheHubReplugTheDeviceUnderANewPdo) {
  const PDEVICE_OBJECT before = mDevice->Pdo();
  const int64_t start = mKernel.SystemTime();
  EXPECT_EQ(STATUS_SUCCESS, mDevice->lower.CylePort(2500));
  EXPECT_EQ(0u, ElapsedMs(start));
  EXPECT_EQ(0u, wdmsim::LiveIrpCount());
  const PDEVICE_OBJECT after = mDevice->Port().pdo;
  EXPECT_NE(nullptr, after);
  EXPECT_NE(before, after);

  // The PDO below us has left the bus: whatever is sent to it fails.
  TakeTrace();
  EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, mDevice->lower.CylePort(2500));
  EXPECT_NE(std::string::npos, TakeTrace().find("KnPnPLowerDeviceUsb::CylePort: CallDriverAndWait failed"));
  USB_DEVICE_DESCRIPTOR descriptor;
  EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, mDevice->lower.GetDeviceDescriptor(&descriptor, 2500));
  EXPECT_EQ(0u, wdmsim::LiveIrpCount());
}

TEST_F(LowerDeviceOnBus, QueryIdHandsOverTheHubsStringOrKeepsThePresetStatus) {
  PWCHAR id = reinterpret_cast<PWCHAR>(static_cast<ULONG_PTR>(0x5A5A));
  // The stick has no container ID of its own: the hub's PDO leaves that query to the PnP manager.
  EXPECT_EQ(STATUS_NOT_SUPPORTED, mDevice->lower.QueryId(BusQueryContainerID, &id));
  EXPECT_EQ(nullptr, id);
  EXPECT_NE(std::string::npos, TakeTrace().find("KnTargetDevice::QueryId: IRP failed with status"));

  ASSERT_EQ(STATUS_SUCCESS, mDevice->lower.QueryId(BusQueryDeviceID, &id));
  ASSERT_NE(nullptr, id);
  EXPECT_EQ(std::u16string(u"USB\\VID_4A9B&PID_0071"), std::u16string(reinterpret_cast<char16_t*>(id)));
  ExFreePool(id);

  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mDevice->lower.QueryId(BusQueryDeviceID, &id));
  EXPECT_EQ(nullptr, id);
  EXPECT_NE(std::string::npos, TakeTrace().find("KnTargetDevice::QueryId: IoBuildSynchronousFsdRequest failed"));
  EXPECT_EQ(0u, wdmsim::LiveIrpCount());
}

TEST_F(LowerDeviceOnBus, GetDevicePropertyPassesBufferTooSmallWithTheNeededLength) {
  WCHAR small[2];
  ULONG needed = 0;
  EXPECT_EQ(STATUS_BUFFER_TOO_SMALL,
            mDevice->lower.GetDeviceProperty(DevicePropertyDeviceDescription, sizeof(small), small, &needed));
  EXPECT_EQ(sizeof(kProductText), needed);
  EXPECT_NE(std::string::npos, TakeTrace().find("KnPnPLowerDevice::GetDeviceProperty: IoGetDeviceProperty 0 failed"));
  WCHAR large[64];
  EXPECT_EQ(STATUS_SUCCESS,
            mDevice->lower.GetDeviceProperty(DevicePropertyDeviceDescription, sizeof(large), large, &needed));
  EXPECT_EQ(std::u16string(kProductText), std::u16string(reinterpret_cast<char16_t*>(large)));
}

}  // namespace
