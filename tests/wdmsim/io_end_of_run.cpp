// What a run leaves behind in the I/O manager is reported when the machine shuts down, and
// the next machine starts clean.
#include <gtest/gtest.h>

#include <wdmsim/kernel.h>

#include "io_test_driver.h"

namespace {

using iotest::CountViolations;

NTSTATUS NTAPI DoNothingEntry(PDRIVER_OBJECT, PUNICODE_STRING) { return STATUS_SUCCESS; }

int gUnloads = 0;
void NTAPI CountUnload(PDRIVER_OBJECT) { ++gUnloads; }

NTSTATUS NTAPI Fail(PDRIVER_OBJECT driver, PUNICODE_STRING) {
  driver->DriverUnload = CountUnload;
  return STATUS_UNSUCCESSFUL;
}

NTSTATUS NTAPI LeaveDeviceAndFail(PDRIVER_OBJECT driver, PUNICODE_STRING path) {
  PDEVICE_OBJECT device;
  IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
  return Fail(driver, path);
}

TEST(IoEndOfRun, EverythingLeftBehindIsReportedOnceAndFreed) {
  wdmsim_test::ExpectViolations expected;
  PIRP neverSent = nullptr;
  PIRP heldByDriver = nullptr;
  PDEVICE_OBJECT device = nullptr;
  {
    wdmsim::Kernel kernel;
    PDRIVER_OBJECT driver = wdmsim::LoadDriver(u"iotest_leaky", DoNothingEntry);
    ASSERT_NE(driver, nullptr);
    ASSERT_EQ(IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device), STATUS_SUCCESS);
    driver->MajorFunction[IRP_MJ_READ] = [](PDEVICE_OBJECT, PIRP irp) -> NTSTATUS {
      IoMarkIrpPending(irp);
      return STATUS_PENDING;  // and forgets it
    };
    neverSent = IoAllocateIrp(1, FALSE);
    heldByDriver = IoAllocateIrp(1, FALSE);
    IoGetNextIrpStackLocation(heldByDriver)->MajorFunction = IRP_MJ_READ;
    IoCallDriver(device, heldByDriver);
    UCHAR buffer[16];
    IoAllocateMdl(buffer, sizeof buffer, FALSE, FALSE, nullptr);
    IoAllocateErrorLogEntry(device, 48);
    wdmsim::CreateRawPdo();
    EXPECT_EQ(expected.Total(), 0);
  }
  auto violations = wdmsim::TakeViolations();
  char text[64];
  snprintf(text, sizeof text, "IRP %p (IoAllocateIrp) was never sent", (void*)neverSent);
  EXPECT_EQ(CountViolations(violations, "IRP_LEAK", text), 1);
  snprintf(text, sizeof text, "last sent to device %p with major 0x03", (void*)device);
  EXPECT_EQ(CountViolations(violations, "IRP_LEAK", text), 1);
  EXPECT_EQ(CountViolations(violations, "MDL_LEAK", "16 bytes"), 1);
  EXPECT_EQ(CountViolations(violations, "ERROR_LOG_ENTRY_LEAK"), 1);
  EXPECT_EQ(CountViolations(violations, "DEVICE_OBJECT_LEAK", "of driver iotest_leaky was never deleted"), 1);
  EXPECT_EQ(CountViolations(violations, "DEVICE_OBJECT_LEAK", "of driver wdmsim_rawbus"), 1);
  EXPECT_EQ(CountViolations(violations, "DRIVER_OBJECT_LEAK", "iotest_leaky"), 1);
  // The raw bus is part of the machine, not a leak of the test.
  EXPECT_EQ(CountViolations(violations, "DRIVER_OBJECT_LEAK", "wdmsim_rawbus"), 0);
  EXPECT_EQ(expected.Total(), 7);

  wdmsim::Kernel next;
  EXPECT_EQ(wdmsim::LiveIrpCount(), 0u);
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(device));
}

// A failed DriverEntry leaves no driver and gets no unload call, unless it left a device
// behind: then its driver object stays for the report.
TEST(IoEndOfRun, FailedDriverEntryIsUnloadedUnlessItLeftADevice) {
  for (bool leaveDevice : {false, true}) {
    SCOPED_TRACE(leaveDevice ? "device left" : "nothing left");
    gUnloads = 0;
    wdmsim_test::ExpectViolations expected;
    {
      wdmsim::Kernel kernel;
      NTSTATUS status = STATUS_SUCCESS;
      EXPECT_EQ(wdmsim::LoadDriver(u"iotest_messy", leaveDevice ? LeaveDeviceAndFail : Fail, &status), nullptr);
      EXPECT_EQ(status, STATUS_UNSUCCESSFUL);
      EXPECT_EQ(expected.Count("DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS"), leaveDevice ? 1 : 0);
    }
    EXPECT_EQ(gUnloads, 0);
    EXPECT_EQ(expected.Count("DEVICE_OBJECT_LEAK"), leaveDevice ? 1 : 0);
    EXPECT_EQ(expected.Count("DRIVER_OBJECT_LEAK"), leaveDevice ? 1 : 0);
    EXPECT_EQ(expected.Total(), leaveDevice ? 3 : 0);
  }
}

}  // namespace
