// The usbmi driver class: its entry creates the 1 MB trace log before anything else,
// AddDevice puts one parent Device on each device stack, and unload leaves nothing behind.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>
#include <vector>

#include <wdmsim/debugout.h>
#include <wdmsim/io.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pool.h>

#include "kndriverobject.h"
#include "kntrace.h"
#include "kntracelogbuffer.h"

namespace {

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class DriverTest : public testing::Test {
 protected:
  void SetUp() override {
    wdmsim::SetDebugSink(wdmsim::DebugSink::Memory);
    gKnTraceMask = 3;
    KnTraceSetPrefix("");
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    mDriver = wdmsim::LoadDriver(u"usbmi", DriverEntry, &status);
    ASSERT_NE(nullptr, mDriver);
    ASSERT_EQ(STATUS_SUCCESS, status);
    gKnTraceMask = 0x7;
    wdmsim::TakeDebugOutput();
  }
  void TearDown() override {
    if (mDriver != nullptr) {
      ASSERT_TRUE(wdmsim::UnloadDriver(mDriver));
    }
  }

  NTSTATUS AddDevice(PDEVICE_OBJECT pdo) { return mDriver->DriverExtension->AddDevice(mDriver, pdo); }

  wdmsim::Kernel mKernel;
  PDRIVER_OBJECT mDriver = nullptr;
};

TEST_F(DriverTest, EntryCreatesTheTraceLogAndUnloadDestroysIt) {
  EXPECT_EQ(1024u, KnTraceGetLogBufferSizeKb());
  ASSERT_NE(nullptr, gKnTraceLogBuffer);
  EXPECT_EQ(1u, wdmsim::LivePoolBlockCount(KN_POOLTAG("BcrT")));
  // The log was there before the driver object: the entry's own milestone is in it.
  const char* log = reinterpret_cast<const char*>(gKnTraceLogBuffer->GetMemory());
  std::string ring(log + 256, log + gKnTraceLogBuffer->GetSize());
  EXPECT_TRUE(Contains(ring, "**** usbmi:DriverEntry ****"));

  ASSERT_TRUE(wdmsim::UnloadDriver(mDriver));
  mDriver = nullptr;
  EXPECT_EQ(0u, KnTraceGetLogBufferSizeKb());
  EXPECT_EQ(nullptr, gKnTraceLogBuffer);
  EXPECT_EQ(nullptr, gKnDriverObject);
  EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(KN_POOLTAG("BcrT")));
  EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(KN_POOLTAG("LbKn")));
  EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(KN_POOLTAG("UStr")));
}

TEST_F(DriverTest, AddDeviceAttachesOneParentDeviceThatRemovalDeletes) {
  PDEVICE_OBJECT pdo = wdmsim::CreateRawPdo();
  ASSERT_EQ(STATUS_SUCCESS, AddDevice(pdo));
  PDEVICE_OBJECT fdo = pdo->AttachedDevice;
  ASSERT_NE(nullptr, fdo);
  EXPECT_EQ(mDriver, fdo->DriverObject);
  EXPECT_EQ(pdo, wdmsim::AttachedToDevice(fdo));
  EXPECT_EQ(ULONG(FILE_DEVICE_UNKNOWN), fdo->DeviceType);
  EXPECT_EQ(ULONG(FILE_DEVICE_SECURE_OPEN), fdo->Characteristics);
  EXPECT_EQ(ULONG(DO_BUFFERED_IO | DO_POWER_PAGABLE), fdo->Flags & (DO_BUFFERED_IO | DO_POWER_PAGABLE |
                                                                     DO_DEVICE_INITIALIZING));
  EXPECT_EQ(2, fdo->StackSize);
  EXPECT_TRUE(wdmsim::DeviceObjectName(fdo).empty());
  // The parent and nothing else: the driver object keeps no reference of its own.
  EXPECT_EQ(2u, wdmsim::LivePoolBlockCount(gKnDefaultPoolTag));
  std::string trace = wdmsim::TakeDebugOutput();
  EXPECT_TRUE(Contains(trace, "usbmi:[Driver::OnAddDevice\n")) << trace;
  EXPECT_TRUE(Contains(trace, "usbmi:]Driver::OnAddDevice (00000000)\n")) << trace;

  // A read is not the parent's business; a system-control request goes down untouched.
  IO_STATUS_BLOCK read = wdmsim::SendIrpToStack(pdo, IRP_MJ_READ, 0, nullptr, STATUS_SUCCESS, 0x77);
  EXPECT_EQ(STATUS_NOT_SUPPORTED, read.Status);
  EXPECT_EQ(0u, read.Information);
  wdmsim::TakeRawPdoRequests(pdo);
  wdmsim::SendIrpToStack(pdo, IRP_MJ_SYSTEM_CONTROL, IRP_MN_QUERY_ALL_DATA, nullptr, STATUS_NOT_SUPPORTED);
  std::vector<wdmsim::RawPdoRequest> below = wdmsim::TakeRawPdoRequests(pdo);
  ASSERT_EQ(1u, below.size());
  EXPECT_EQ(IRP_MJ_SYSTEM_CONTROL, below[0].majorFunction);
  EXPECT_EQ(IRP_MN_QUERY_ALL_DATA, below[0].minorFunction);

  IO_STATUS_BLOCK removal = wdmsim::SendPnpIrp(pdo, IRP_MN_REMOVE_DEVICE);
  EXPECT_EQ(STATUS_SUCCESS, removal.Status);
  EXPECT_EQ(nullptr, pdo->AttachedDevice);
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(fdo));
  EXPECT_EQ(1u, wdmsim::LivePoolBlockCount(gKnDefaultPoolTag));  // the driver object
  wdmsim::DeleteRawPdo(pdo);
}

TEST_F(DriverTest, FailedAddDeviceLeavesNoDeviceBehind) {
  PDEVICE_OBJECT pdo = wdmsim::CreateRawPdo();

  // No platform object: the parent object is deleted again.
  wdmsim::FailDeviceCreations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, AddDevice(pdo));
  EXPECT_EQ(nullptr, pdo->AttachedDevice);
  std::string trace = wdmsim::TakeDebugOutput();
  EXPECT_TRUE(Contains(trace, "usbmi:Device::OnAddDevice: CreateDevice failed, stat=0xC000009A")) << trace;
  EXPECT_TRUE(Contains(trace, "usbmi:Driver::OnAddDevice: device->OnAddDevice failed, stat=0xC000009A")) << trace;
  EXPECT_TRUE(Contains(trace, "usbmi:]Driver::OnAddDevice (C000009A)\n")) << trace;
  EXPECT_EQ(1u, wdmsim::TakeErrorLogEntries().size());

  // No pool for the parent object itself.
  wdmsim::FailPoolAllocationsWithTag(gKnDefaultPoolTag);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, AddDevice(pdo));
  wdmsim::ClearPoolFaults();
  EXPECT_TRUE(Contains(wdmsim::TakeDebugOutput(), "usbmi:Driver::OnAddDevice: new Device failed\n"));
  EXPECT_EQ(nullptr, pdo->AttachedDevice);
  EXPECT_EQ(1u, wdmsim::LivePoolBlockCount(gKnDefaultPoolTag));  // the driver object
  wdmsim::DeleteRawPdo(pdo);
}

}  // namespace
