// The lower device: attach/detach, waiting for IRPs with and without time-out, identifier query.
#include <usbioctl.h>

#include <wdmsim/io.h>
#include <wdmsim/pnp.h>

#include "usb_stack_double.h"

namespace {

using kntest::LowerDeviceTest;
using kntest::UsbStackDouble;

TEST_F(LowerDeviceTest, AttachRecordsBothDeviceObjectsAndDetachClearsThem) {
  EXPECT_EQ(mStack->Pdo(), mLower.GetLowerDeviceObject());
  EXPECT_EQ(mStack->Pdo(), mLower.GetPhysicalDeviceObject());
  EXPECT_EQ(mStack->Pdo()->StackSize, mLower.GetStackSize());
  EXPECT_EQ(mStack->Pdo(), wdmsim::AttachedToDevice(mDevice->GetDeviceObject()));
  mLower.DetachFromPnpDeviceStack();
  EXPECT_EQ(nullptr, mLower.GetLowerDeviceObject());
  EXPECT_EQ(nullptr, mLower.GetPhysicalDeviceObject());
  mLower.DetachFromPnpDeviceStack();  // a second detach does nothing
}

// The cycle-port IRP is allocated by the lower device, so every outcome also shows whether it
// was freed exactly once (the machine's shutdown reports a leaked IRP, the verifier a double free).
TEST_F(LowerDeviceTest, CallDriverAndWaitReturnsTheIrpStatusWhateverTheLowerDriverDoes) {
  struct Case {
    UsbStackDouble::Mode mode;
    NTSTATUS stackStatus;
    uint32_t pendMs;
    ULONG timeoutMs;
    NTSTATUS expected;
    int cancels;
  } cases[] = {
      {UsbStackDouble::Mode::Answer, STATUS_SUCCESS, 0, 0, STATUS_SUCCESS, 0},                  // synchronous
      {UsbStackDouble::Mode::Fail, STATUS_DEVICE_NOT_CONNECTED, 0, 0, STATUS_DEVICE_NOT_CONNECTED, 0},
      {UsbStackDouble::Mode::Pend, STATUS_SUCCESS, 600000, 0, STATUS_SUCCESS, 0},              // no time-out: waits
      {UsbStackDouble::Mode::Pend, STATUS_SUCCESS, 999, 1000, STATUS_SUCCESS, 0},              // back just in time
      {UsbStackDouble::Mode::Pend, STATUS_SUCCESS, 1001, 1000, STATUS_IO_TIMEOUT, 1},          // cancelled
      {UsbStackDouble::Mode::Pend, STATUS_SUCCESS, 0, 50, STATUS_IO_TIMEOUT, 1},               // held for ever
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "mode " << int(c.mode) << " pend " << c.pendMs << " timeout " << c.timeoutMs);
    mStack->SetMode(c.mode, c.stackStatus, c.pendMs);
    int cancelledBefore = mStack->Cancelled();
    int64_t before = mKernel.SystemTime();
    EXPECT_EQ(c.expected, mLower.CylePort(c.timeoutMs));
    EXPECT_EQ(c.cancels, mStack->Cancelled() - cancelledBefore);
    EXPECT_EQ(0u, wdmsim::LiveIrpCount());
    if (c.mode == UsbStackDouble::Mode::Pend) {
      // Waited for the IRP's own completion or for the time-out, never less.
      uint32_t waitedMs = static_cast<uint32_t>((mKernel.SystemTime() - before) / 10000);
      uint32_t expectedMs = c.expected == STATUS_IO_TIMEOUT ? c.timeoutMs : c.pendMs;
      EXPECT_EQ(expectedMs, waitedMs);
    }
    auto seen = mStack->TakeRequests();
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ(static_cast<ULONG>(IOCTL_INTERNAL_USB_CYCLE_PORT), seen[0].ioControlCode);
  }
}

TEST_F(LowerDeviceTest, QueryIdKeepsThePresetStatusWhenNobodyAnswersAndHandsOverTheString) {
  PWCHAR id = reinterpret_cast<PWCHAR>(static_cast<ULONG_PTR>(0x5A5A));
  // The raw PDO leaves location queries of a device without a location unanswered.
  EXPECT_EQ(STATUS_NOT_SUPPORTED, mLower.QueryId(BusQueryContainerID, &id));
  EXPECT_EQ(nullptr, id);
  EXPECT_NE(std::string::npos, TakeTrace().find("KnTargetDevice::QueryId: IRP failed with status"));

  ASSERT_EQ(STATUS_SUCCESS, mLower.QueryId(BusQueryDeviceID, &id));
  ASSERT_NE(nullptr, id);
  EXPECT_EQ(std::u16string(u"WDMSIM\\RAW"), std::u16string(reinterpret_cast<char16_t*>(id)));
  ExFreePool(id);
  EXPECT_EQ(0u, wdmsim::LiveIrpCount());
}

TEST_F(LowerDeviceTest, QueryIdWithoutAnIrpReportsInsufficientResources) {
  PWCHAR id = nullptr;
  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mLower.QueryId(BusQueryDeviceID, &id));
  EXPECT_EQ(nullptr, id);
  EXPECT_NE(std::string::npos, TakeTrace().find("KnTargetDevice::QueryId: IoBuildSynchronousFsdRequest failed"));
}

TEST_F(LowerDeviceTest, GetDevicePropertyPassesBufferTooSmallWithTheNeededLength) {
  wdmsim::RegisterDeviceNode(mStack->Pdo(), u"USB\\VID_4A9B&PID_0042\\1");
  wdmsim::SetDeviceStringProperty(mStack->Pdo(), DevicePropertyDeviceDescription, u"wdmsim raw device");
  WCHAR small[2];
  ULONG needed = 0;
  EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, mLower.GetDeviceProperty(DevicePropertyDeviceDescription, sizeof(small), small,
                                                              &needed));
  EXPECT_EQ(sizeof(u"wdmsim raw device"), needed);
  EXPECT_NE(std::string::npos, TakeTrace().find("KnPnPLowerDevice::GetDeviceProperty: IoGetDeviceProperty"));
  WCHAR large[64];
  EXPECT_EQ(STATUS_SUCCESS, mLower.GetDeviceProperty(DevicePropertyDeviceDescription, sizeof(large), large, &needed));
  EXPECT_EQ(std::u16string(u"wdmsim raw device"), std::u16string(reinterpret_cast<char16_t*>(large)));
  wdmsim::ForgetDeviceNode(mStack->Pdo());
}

}  // namespace
