// URB submission: the synchronous path frees its IRP once, the asynchronous path calls the
// completion routine exactly once, and allocation failures are reported without a call.
#include <usbdlib.h>
#include <usbioctl.h>

#include <atomic>

#include <wdmsim/io.h>

#include "usb_stack_double.h"

namespace {

using kntest::LowerDeviceTest;
using kntest::UsbStackDouble;

struct CompletionRecord {
  std::atomic<int> calls{0};
  NTSTATUS status = STATUS_PENDING;
  KEVENT done;
};

NTSTATUS OnUrbComplete(PDEVICE_OBJECT, PIRP irp, PVOID context) {
  auto* record = static_cast<CompletionRecord*>(context);
  record->status = irp->IoStatus.Status;
  IoFreeIrp(irp);
  record->calls++;
  KeSetEvent(&record->done, IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

void BuildDeviceDescriptorUrb(URB* urb, USB_DEVICE_DESCRIPTOR* descriptor) {
  RtlZeroMemory(urb, sizeof(*urb));
  UsbBuildGetDescriptorRequest(urb, sizeof(_URB_CONTROL_DESCRIPTOR_REQUEST), USB_DEVICE_DESCRIPTOR_TYPE, 0, 0,
                               descriptor, NULL, sizeof(*descriptor), NULL);
}

TEST_F(LowerDeviceTest, SubmitUrbAndWaitLeavesTheUrbStatusToTheCaller) {
  URB urb;
  USB_DEVICE_DESCRIPTOR descriptor;
  BuildDeviceDescriptorUrb(&urb, &descriptor);
  // A bus error inside a successful IRP: the operation succeeds, the URB tells the story.
  mStack->SetUrbStatus(USBD_STATUS_STALL_PID);
  EXPECT_EQ(STATUS_SUCCESS, mLower.SubmitUrbAndWait(&urb, 0));
  EXPECT_EQ(USBD_STATUS_STALL_PID, urb.UrbHeader.Status);
  EXPECT_EQ(sizeof(descriptor), urb.UrbControlDescriptorRequest.TransferBufferLength);
  EXPECT_EQ(USB_DEVICE_DESCRIPTOR_TYPE, descriptor.bDescriptorType);

  mStack->SetMode(UsbStackDouble::Mode::Pend, STATUS_SUCCESS, 0);
  EXPECT_EQ(STATUS_IO_TIMEOUT, mLower.SubmitUrbAndWait(&urb, 1000));
  EXPECT_EQ(1, mStack->Cancelled());
  EXPECT_EQ(0u, wdmsim::LiveIrpCount());
  EXPECT_NE(std::string::npos, TakeTrace().find("KnPnPLowerDeviceUsb::SubmitUrbAndWait: CallDriverAndWait failed"));

  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mLower.SubmitUrbAndWait(&urb, 0));
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, [&] { wdmsim::FailIrpAllocations(1); return mLower.CylePort(0); }());
  std::string trace = TakeTrace();
  EXPECT_NE(std::string::npos, trace.find("KnPnPLowerDeviceUsb::SubmitUrbAndWait: FATAL! IoAllocateIrp failed."));
  EXPECT_NE(std::string::npos, trace.find("KnPnPLowerDeviceUsb::CylePort: FATAL! IoAllocateIrp failed."));
}

TEST_F(LowerDeviceTest, SubmitUrbCallsTheCompletionRoutineExactlyOncePerSentIrp) {
  struct Case {
    UsbStackDouble::Mode mode;
    NTSTATUS stackStatus;
    uint32_t pendMs;
    NTSTATUS returned;
    NTSTATUS completed;
  } cases[] = {
      {UsbStackDouble::Mode::Answer, STATUS_SUCCESS, 0, STATUS_SUCCESS, STATUS_SUCCESS},
      {UsbStackDouble::Mode::Fail, STATUS_DEVICE_NOT_CONNECTED, 0, STATUS_DEVICE_NOT_CONNECTED,
       STATUS_DEVICE_NOT_CONNECTED},
      {UsbStackDouble::Mode::Pend, STATUS_SUCCESS, 20, STATUS_PENDING, STATUS_SUCCESS},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(int(c.mode));
    mStack->SetMode(c.mode, c.stackStatus, c.pendMs);
    URB urb;
    USB_DEVICE_DESCRIPTOR descriptor;
    BuildDeviceDescriptorUrb(&urb, &descriptor);
    CompletionRecord record;
    KeInitializeEvent(&record.done, NotificationEvent, FALSE);
    BOOLEAN willComplete = FALSE;
    EXPECT_EQ(c.returned, mLower.SubmitUrb(&urb, OnUrbComplete, &record, &willComplete));
    EXPECT_TRUE(willComplete);
    if (c.mode != UsbStackDouble::Mode::Pend) EXPECT_EQ(1, record.calls.load());  // before returning
    KeWaitForSingleObject(&record.done, Executive, KernelMode, FALSE, NULL);
    mKernel.RunUntilIdle();
    EXPECT_EQ(1, record.calls.load());
    EXPECT_EQ(c.completed, record.status);
    EXPECT_EQ(0u, wdmsim::LiveIrpCount());
  }
  EXPECT_NE(std::string::npos, TakeTrace().find("KnPnPLowerDeviceUsb::SubmitUrb: CallDriver failed"));
}

TEST_F(LowerDeviceTest, SubmitUrbWithoutAnIrpNeverCallsTheCompletionRoutine) {
  URB urb;
  USB_DEVICE_DESCRIPTOR descriptor;
  BuildDeviceDescriptorUrb(&urb, &descriptor);
  CompletionRecord record;
  KeInitializeEvent(&record.done, NotificationEvent, FALSE);
  BOOLEAN willComplete = TRUE;
  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mLower.SubmitUrb(&urb, OnUrbComplete, &record, &willComplete));
  EXPECT_FALSE(willComplete);
  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mLower.SubmitUrb(&urb, OnUrbComplete, &record, NULL));
  mKernel.RunUntilIdle();
  EXPECT_EQ(0, record.calls.load());
  EXPECT_TRUE(mStack->TakeRequests().empty());
  EXPECT_NE(std::string::npos, TakeTrace().find("KnPnPLowerDeviceUsb::SubmitUrb: FATAL! IoAllocateIrp failed."));
}

}  // namespace
