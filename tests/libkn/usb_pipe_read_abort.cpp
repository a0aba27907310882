// KnUsbPipe on the simulated USB stack: reads that complete with data, reads cancelled by an
// abort, reads whose context or IRP cannot be allocated, and reset/abort failures.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdmsim/io.h>
#include <wdmsim/pool.h>
#include <wdmsim/usbbus.h>

#include "knusbconfiguration.h"
#include "knusbconfigurationdesc.h"
#include "knusbinterface.h"
#include "knusbpipe.h"
#include "support_test_driver.h"
#include "usb_device_on_bus.h"

namespace {

std::vector<UCHAR> OneInterfaceSet() {
  std::vector<UCHAR> set = {
      9, 0x02, 0, 0, 1, 1, 0, 0x80, 50,
      9, 0x04, 0, 0, 2, 0xFF, 0x00, 0x00, 0,
      7, 0x05, 0x81, 0x02, 0x40, 0x00, 0,   // bulk IN
      7, 0x05, 0x82, 0x03, 0x08, 0x00, 8,   // interrupt IN
  };
  set[2] = static_cast<UCHAR>(set.size());
  return set;
}

using kntest::ReadRecord;
constexpr auto OnRead = &ReadRecord::OnRead;

constexpr ULONG kUsbtTag = 0x54425355;

class UsbPipeTest : public kntest::FrameworkTest {
 protected:
  void SetUp() override {
    mStack.reset(new kntest::UsbDeviceOnBus(OneInterfaceSet()));
    mConfiguration.mLowerDevice = &mStack->lower;
    mHolder.Attach(reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(const_cast<UCHAR*>(mStack->Set())));
    ASSERT_EQ(mConfiguration.SetConfiguration(&mHolder, 4096, 0), STATUS_SUCCESS);
    mInterface = mConfiguration.FindInterface(0, 0xFFFF, 0xFFFF, 0xFFFF);
    ASSERT_NE(mInterface, nullptr);
    mBulk = mInterface->FindPipe(NULL, 0x80, 2);
    mInterrupt = mInterface->FindPipe(NULL, 0x80, 3);
    ASSERT_TRUE(mBulk && mInterrupt);
    mStack->TakeFunctions();
    TakeTrace();
  }
  void TearDown() override {
    mConfiguration.UnconfigureDevice(FALSE, 0);
    mHolder.Detach();
    mStack.reset();
  }

  std::unique_ptr<kntest::UsbDeviceOnBus> mStack;
  KnUsbConfiguration mConfiguration;
  KnUsbConfigurationDesc mHolder;
  KnUsbInterface* mInterface = nullptr;
  KnUsbPipe* mBulk = nullptr;
  KnUsbPipe* mInterrupt = nullptr;
};

TEST_F(UsbPipeTest, ReadDeliversTheBytesOnceAndFreesItsContext) {
  UCHAR buffer[16];
  memset(buffer, 0xEE, sizeof(buffer));
  ReadRecord record;
  BOOLEAN submitted = 7;
  EXPECT_EQ(mInterrupt->Read(buffer, 8, OnRead, &record, &submitted), STATUS_PENDING);
  EXPECT_EQ(submitted, TRUE);
  EXPECT_EQ(record.calls, 0);
  EXPECT_EQ(wdmsim::LivePoolBlockCount(kUsbtTag), 1u);
  mStack->Send(0x82, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
  EXPECT_EQ(record.calls, 1);
  EXPECT_EQ(record.status, USBD_STATUS_SUCCESS);
  EXPECT_EQ(record.buffer, buffer);
  EXPECT_EQ(record.length, 8u);  // never more than the read asked for
  EXPECT_EQ(buffer[7], 8);
  EXPECT_EQ(buffer[8], 0xEE);
  EXPECT_EQ(wdmsim::LivePoolBlockCount(kUsbtTag), 0u);
  EXPECT_EQ(mStack->TakeFunctions(), std::vector<USHORT>{URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER});

  // A short packet is fine and reports its own length; no submitted flag is needed.
  EXPECT_EQ(mBulk->Read(buffer, 16, OnRead, &record, NULL), STATUS_PENDING);
  mStack->Send(0x81, {0x42});
  EXPECT_EQ(record.calls, 2);
  EXPECT_EQ(record.length, 1u);
}

TEST_F(UsbPipeTest, AbortCancelsOnlyThatPipesReadsWithTheUsbdStatus) {
  UCHAR bulkBuffer[8], interruptBuffer[8];
  ReadRecord bulk, interrupt;
  EXPECT_EQ(mBulk->Read(bulkBuffer, 8, OnRead, &bulk, NULL), STATUS_PENDING);
  EXPECT_EQ(mInterrupt->Read(interruptBuffer, 8, OnRead, &interrupt, NULL), STATUS_PENDING);
  EXPECT_EQ(mStack->PendingTransfers(), 2u);

  EXPECT_EQ(mInterrupt->AbortPipe(1000), STATUS_SUCCESS);
  EXPECT_EQ(interrupt.calls, 1);
  EXPECT_EQ(interrupt.status, static_cast<LONG>(USBD_STATUS_CANCELED));  // not STATUS_CANCELLED
  EXPECT_EQ(interrupt.length, 0u);
  EXPECT_EQ(bulk.calls, 0);
  EXPECT_EQ(mStack->PendingTransfers(), 1u);

  EXPECT_EQ(mBulk->AbortPipe(1000), STATUS_SUCCESS);
  EXPECT_EQ(bulk.calls, 1);
  EXPECT_EQ(bulk.status, static_cast<LONG>(USBD_STATUS_CANCELED));
  EXPECT_EQ(interrupt.calls, 1);  // exactly once
  EXPECT_EQ(mStack->TakeFunctions(),
            (std::vector<USHORT>{URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER, URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER,
                                 URB_FUNCTION_ABORT_PIPE, URB_FUNCTION_ABORT_PIPE}));
  EXPECT_EQ(wdmsim::LivePoolBlockCount(kUsbtTag), 0u);
}

TEST_F(UsbPipeTest, IrpStatusIsReportedWhenOnlyTheIrpFailed) {
  UCHAR buffer[8];
  ReadRecord record;
  mStack->FailNext(URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER, STATUS_DEVICE_NOT_CONNECTED, USBD_STATUS_SUCCESS);
  BOOLEAN submitted = FALSE;
  EXPECT_EQ(mBulk->Read(buffer, 8, OnRead, &record, &submitted), STATUS_DEVICE_NOT_CONNECTED);
  EXPECT_EQ(submitted, TRUE);
  EXPECT_EQ(record.calls, 1);
  EXPECT_EQ(record.status, STATUS_DEVICE_NOT_CONNECTED);

  mStack->FailNext(URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER, STATUS_UNSUCCESSFUL, USBD_STATUS_STALL_PID);
  EXPECT_EQ(mBulk->Read(buffer, 8, OnRead, &record, NULL), STATUS_UNSUCCESSFUL);
  EXPECT_EQ(record.calls, 2);
  EXPECT_EQ(record.status, static_cast<LONG>(USBD_STATUS_STALL_PID));
}

TEST_F(UsbPipeTest, ReadAllocationFailuresSendNothingAndCallNoCallback) {
  UCHAR buffer[8];
  ReadRecord record;
  BOOLEAN submitted = TRUE;
  wdmsim::FailPoolAllocationsWithTag(kUsbtTag);
  EXPECT_EQ(mBulk->Read(buffer, 8, OnRead, &record, &submitted), STATUS_NO_MEMORY);
  EXPECT_EQ(submitted, FALSE);
  EXPECT_NE(TakeTrace().find("KnUsbPipe::Read allocate with"), std::string::npos);
  wdmsim::ClearPoolFaults();

  // The context is allocated, the IRP is not.
  submitted = TRUE;
  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(mBulk->Read(buffer, 8, OnRead, &record, &submitted), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(submitted, FALSE);
  EXPECT_EQ(record.calls, 0);
  EXPECT_TRUE(mStack->TakeFunctions().empty());
  EXPECT_EQ(wdmsim::LivePoolBlockCount(kUsbtTag), 0u);
}

TEST_F(UsbPipeTest, ResetAndAbortReachTheStackAndStaleHandlesAreRefused) {
  EXPECT_EQ(mBulk->ResetPipe(2500), STATUS_SUCCESS);
  EXPECT_EQ(mStack->TakeFunctions(), std::vector<USHORT>{URB_FUNCTION_RESET_PIPE});

  // A pipe that kept the handle of an earlier selection is refused by the stack.
  KnUsbInterface leftover;
  leftover.mLowerDevice = &mStack->lower;
  KnUsbPipe* stale = leftover.AddPipe();
  ASSERT_NE(stale, nullptr);
  stale->SetPipeInformation(mBulk->GetPipeInformation());
  EXPECT_EQ(mConfiguration.UnconfigureDevice(TRUE, 2500), STATUS_SUCCESS);
  ASSERT_EQ(mConfiguration.SetConfiguration(&mHolder, 4096, 0), STATUS_SUCCESS);
  KnUsbPipe* fresh = mConfiguration.FindInterface(0, 0xFFFF, 0xFFFF, 0xFFFF)->FindPipe(NULL, 0x80, 2);
  ASSERT_NE(fresh, nullptr);
  EXPECT_NE(fresh->GetPipeHandle(), stale->GetPipeHandle());
  TakeTrace();
  EXPECT_EQ(stale->ResetPipe(2500), STATUS_INVALID_PARAMETER);
  EXPECT_NE(TakeTrace().find(" ResetPipe failed c000000d"), std::string::npos);
  EXPECT_EQ(fresh->ResetPipe(2500), STATUS_SUCCESS);
  // A read on the stale handle is refused before the device sees it: its data stays queued
  // for the read on the fresh one.
  mStack->firmware().QueueInData(0x81, {0x42});
  UCHAR buffer[8];
  ReadRecord record;
  EXPECT_EQ(stale->Read(buffer, 8, OnRead, &record, NULL), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(record.calls, 1);
  EXPECT_EQ(record.status, static_cast<LONG>(USBD_STATUS_INVALID_PIPE_HANDLE));
  EXPECT_EQ(mStack->firmware().QueuedInChunks(0x81), 1u);
  EXPECT_EQ(fresh->Read(buffer, 8, OnRead, &record, NULL), STATUS_PENDING);
  mKernel.RunUntilIdle();
  EXPECT_EQ(record.calls, 2);
  EXPECT_EQ(record.status, static_cast<LONG>(USBD_STATUS_SUCCESS));
  EXPECT_EQ(buffer[0], 0x42);

  mStack->FailNext(URB_FUNCTION_ABORT_PIPE, STATUS_IO_TIMEOUT, USBD_STATUS_SUCCESS);
  TakeTrace();
  EXPECT_EQ(fresh->AbortPipe(1000), STATUS_IO_TIMEOUT);
  EXPECT_NE(TakeTrace().find(" AbortPipe failed c00000b5"), std::string::npos);
  mStack->FailNext(URB_FUNCTION_RESET_PIPE, STATUS_IO_TIMEOUT, USBD_STATUS_SUCCESS);
  EXPECT_EQ(fresh->ResetPipe(1000), STATUS_IO_TIMEOUT);
  EXPECT_NE(TakeTrace().find(" ResetPipe failed c00000b5"), std::string::npos);
}

TEST_F(UsbPipeTest, DeviceDroppingOffMidReadFailsTheReadWithDeviceGone) {
  wdmsim::UsbFaultPoint drop;
  drop.fault = wdmsim::UsbFault::DisconnectMidTransfer;
  drop.endpoint = 0x82;
  wdmsim::ArmUsbFault(drop);
  UCHAR buffer[8];
  ReadRecord record;
  BOOLEAN submitted = FALSE;
  EXPECT_EQ(mInterrupt->Read(buffer, 8, OnRead, &record, &submitted), STATUS_PENDING);
  EXPECT_TRUE(submitted);
  mKernel.RunUntilIdle();
  EXPECT_EQ(wdmsim::UsbFaultHits(wdmsim::UsbFault::DisconnectMidTransfer), 1);
  EXPECT_EQ(record.calls, 1);
  EXPECT_EQ(record.status, static_cast<LONG>(USBD_STATUS_DEVICE_GONE));
  EXPECT_EQ(wdmsim::LivePoolBlockCount(kUsbtTag), 0u);
  // Every request after that fails as well.
  EXPECT_EQ(mInterrupt->ResetPipe(2500), STATUS_DEVICE_NOT_CONNECTED);
  EXPECT_EQ(mBulk->Read(buffer, 8, OnRead, &record, NULL), STATUS_DEVICE_NOT_CONNECTED);
  EXPECT_EQ(record.calls, 2);
}

}  // namespace
