// URB submission on the simulated USB stack: the synchronous path leaves the URB's status to
// the caller and frees its IRP once; the asynchronous path calls the completion routine
// exactly once, before returning when the stack answers in its dispatch routine and from the
// host controller otherwise; allocation failures are reported without a call.
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdmsim/io.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

#include <usbdlib.h>
#include <usbioctl.h>

#include "support_test_driver.h"
#include "usb_device_on_bus.h"

namespace {

struct Completion {
  std::atomic<int> calls{0};
  KIRQL irql = HIGH_LEVEL;
  NTSTATUS status = STATUS_PENDING;
  KEVENT done;
  Completion() { KeInitializeEvent(&done, NotificationEvent, FALSE); }
};

NTSTATUS OnSubmitted(PDEVICE_OBJECT, PIRP irp, PVOID context) {
  auto* completion = static_cast<Completion*>(context);
  completion->irql = KeGetCurrentIrql();
  completion->status = irp->IoStatus.Status;
  IoFreeIrp(irp);
  ++completion->calls;
  KeSetEvent(&completion->done, IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

void BuildDeviceDescriptorUrb(URB* urb, USB_DEVICE_DESCRIPTOR* descriptor) {
  RtlZeroMemory(urb, sizeof(*urb));
  UsbBuildGetDescriptorRequest(urb, sizeof(_URB_CONTROL_DESCRIPTOR_REQUEST), USB_DEVICE_DESCRIPTOR_TYPE, 0, 0,
                               descriptor, NULL, sizeof(*descriptor), NULL);
}

class UrbSubmission : public kntest::FrameworkTest {
 protected:
  void SetUp() override { mDevice = std::make_unique<kntest::UsbDeviceOnBus>(wdmsim::MakeDemoCompositeFirmware()); }
  void TearDown() override { mDevice.reset(); }

  std::unique_ptr<kntest::UsbDeviceOnBus> mDevice;
};

TEST_F(UrbSubmission, SubmitUrbAndWaitLeavesTheUrbStatusToTheCaller) {
  URB urb;
  USB_DEVICE_DESCRIPTOR descriptor;
  BuildDeviceDescriptorUrb(&urb, &descriptor);
  // A bus error inside a successful IRP: the operation succeeds, the URB tells the story.
  mDevice->FailNext(URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, STATUS_SUCCESS, USBD_STATUS_STALL_PID);
  EXPECT_EQ(STATUS_SUCCESS, mDevice->lower.SubmitUrbAndWait(&urb, 0));
  EXPECT_EQ(1, wdmsim::UsbFaultHits(wdmsim::UsbFault::FailUrb));
  EXPECT_EQ(USBD_STATUS_STALL_PID, urb.UrbHeader.Status);

  // A failed IRP is the result, and the caller hears of it.
  BuildDeviceDescriptorUrb(&urb, &descriptor);
  mDevice->FailNext(URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, STATUS_DEVICE_DATA_ERROR, USBD_STATUS_DEV_NOT_RESPONDING);
  TakeTrace();
  EXPECT_EQ(STATUS_DEVICE_DATA_ERROR, mDevice->lower.SubmitUrbAndWait(&urb, 0));
  EXPECT_EQ(USBD_STATUS_DEV_NOT_RESPONDING, urb.UrbHeader.Status);
  EXPECT_NE(std::string::npos, TakeTrace().find("KnPnPLowerDeviceUsb::SubmitUrbAndWait: CallDriverAndWait failed"));

  BuildDeviceDescriptorUrb(&urb, &descriptor);
  EXPECT_EQ(STATUS_SUCCESS, mDevice->lower.SubmitUrbAndWait(&urb, 0));
  EXPECT_EQ(USBD_STATUS_SUCCESS, urb.UrbHeader.Status);
  EXPECT_EQ(sizeof(descriptor), urb.UrbControlDescriptorRequest.TransferBufferLength);
  EXPECT_EQ(wdmsim::kDemoVendorId, descriptor.idVendor);

  // No IRP: nothing is sent.
  mDevice->TakeFunctions();
  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mDevice->lower.SubmitUrbAndWait(&urb, 0));
  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mDevice->lower.CylePort(0));
  EXPECT_TRUE(mDevice->TakeFunctions().empty());
  EXPECT_EQ(mDevice->Pdo(), mDevice->Port().pdo);  // the port was not cycled
  std::string trace = TakeTrace();
  EXPECT_NE(std::string::npos, trace.find("KnPnPLowerDeviceUsb::SubmitUrbAndWait: FATAL! IoAllocateIrp failed."));
  EXPECT_NE(std::string::npos, trace.find("KnPnPLowerDeviceUsb::CylePort: FATAL! IoAllocateIrp failed."));
  EXPECT_EQ(0u, wdmsim::LiveIrpCount());
}

TEST_F(UrbSubmission, SubmitUrbCallsTheCompletionRoutineExactlyOncePerSentIrp) {
  enum class Answer { InDispatch, RefusedInDispatch, FromHostController };
  struct Case {
    const char* name;
    Answer answer;
    NTSTATUS returned;
    NTSTATUS completed;
    KIRQL irql;
  } cases[] = {
      // The current frame number needs no bus time: the stack answers at once.
      {"answered in the dispatch routine", Answer::InDispatch, STATUS_SUCCESS, STATUS_SUCCESS, PASSIVE_LEVEL},
      // A transfer on a pipe no selection handed out (the device is not even configured).
      {"refused in the dispatch routine", Answer::RefusedInDispatch, STATUS_INVALID_PARAMETER,
       STATUS_INVALID_PARAMETER, PASSIVE_LEVEL},
      {"answered by the host controller", Answer::FromHostController, STATUS_PENDING, STATUS_SUCCESS, DISPATCH_LEVEL},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    URB urb;
    USB_DEVICE_DESCRIPTOR descriptor;
    BuildDeviceDescriptorUrb(&urb, &descriptor);
    if (c.answer == Answer::InDispatch) {
      urb.UrbHeader.Length = sizeof(_URB_GET_CURRENT_FRAME_NUMBER);
      urb.UrbHeader.Function = URB_FUNCTION_GET_CURRENT_FRAME_NUMBER;
    }
    // The device answers after 10 ms of virtual time, which cannot pass while this thread runs:
    // whether the routine ran before SubmitUrb returned does not depend on the host's timing.
    mDevice->firmware().SetLatency(0x00, c.answer == Answer::FromHostController ? 10 : 0);
    if (c.answer == Answer::RefusedInDispatch) {
      RtlZeroMemory(&urb, sizeof(urb));
      UsbBuildInterruptOrBulkTransferRequest(&urb, sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER),
                                             reinterpret_cast<USBD_PIPE_HANDLE>(0x5A5A0), &descriptor, NULL,
                                             sizeof(descriptor), USBD_SHORT_TRANSFER_OK, NULL);
    }
    TakeTrace();
    Completion completion;
    BOOLEAN willComplete = FALSE;
    EXPECT_EQ(c.returned, mDevice->lower.SubmitUrb(&urb, OnSubmitted, &completion, &willComplete));
    EXPECT_TRUE(willComplete);
    EXPECT_EQ(c.answer == Answer::FromHostController ? 0 : 1, completion.calls.load());  // before returning?
    EXPECT_EQ(NT_SUCCESS(c.returned), TakeTrace().find("KnPnPLowerDeviceUsb::SubmitUrb: CallDriver failed") ==
                                          std::string::npos);
    KeWaitForSingleObject(&completion.done, Executive, KernelMode, FALSE, NULL);
    mKernel.RunUntilIdle();
    EXPECT_EQ(1, completion.calls.load());
    EXPECT_EQ(c.completed, completion.status);
    EXPECT_EQ(c.irql, completion.irql);
    EXPECT_EQ(0u, wdmsim::LiveIrpCount());
  }
}

TEST_F(UrbSubmission, SubmitUrbWithoutAnIrpNeverCallsTheCompletionRoutine) {
  URB urb;
  USB_DEVICE_DESCRIPTOR descriptor;
  BuildDeviceDescriptorUrb(&urb, &descriptor);
  Completion completion;
  BOOLEAN willComplete = TRUE;
  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mDevice->lower.SubmitUrb(&urb, OnSubmitted, &completion, &willComplete));
  EXPECT_FALSE(willComplete);
  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mDevice->lower.SubmitUrb(&urb, OnSubmitted, &completion, NULL));
  mKernel.RunUntilIdle();
  EXPECT_EQ(0, completion.calls.load());
  EXPECT_TRUE(mDevice->TakeFunctions().empty());
  EXPECT_NE(std::string::npos, TakeTrace().find("KnPnPLowerDeviceUsb::SubmitUrb: FATAL! IoAllocateIrp failed."));
}

}  // namespace
