// What a run leaves behind in the I/O manager is reported when the machine shuts down, and
// the next machine starts clean.
#include <gtest/gtest.h>

#include <wdmsim/kernel.h>

#include "io_test_driver.h"

namespace {

using iotest::CountViolations;

NTSTATUS NTAPI DoNothingEntry(PDRIVER_OBJECT, PUNICODE_STRING) { return STATUS_SUCCESS; }

NTSTATUS NTAPI LeaveDeviceAndFail(PDRIVER_OBJECT driver, PUNICODE_STRING) {
  PDEVICE_OBJECT device;
  IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
  return STATUS_UNSUCCESSFUL;
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

TEST(IoEndOfRun, DriverEntryThatFailsButLeavesADeviceKeepsItsDriverObjectForTheReport) {
  wdmsim_test::ExpectViolations expected;
  {
    wdmsim::Kernel kernel;
    NTSTATUS status;
    EXPECT_EQ(wdmsim::LoadDriver(u"iotest_messy", LeaveDeviceAndFail, &status), nullptr);
    EXPECT_EQ(status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(expected.Count("DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS"), 1);
  }
  EXPECT_EQ(expected.Count("DEVICE_OBJECT_LEAK"), 1);
  EXPECT_EQ(expected.Count("DRIVER_OBJECT_LEAK"), 1);
}

TEST(IoEndOfRun, CleanRunReportsNothing) {
  wdmsim_test::ExpectViolations expected;
  {
    wdmsim::Kernel kernel;
    PDEVICE_OBJECT pdo = wdmsim::CreateRawPdo();
    {
      iotest::TestDriver driver;  // detaches, deletes and unloads on the way out
      driver.AddDevice(iotest::SkipTo(pdo), pdo);
      EXPECT_EQ(wdmsim::SendPnpIrp(pdo, IRP_MN_START_DEVICE).Status, STATUS_SUCCESS);
    }
    PIRP irp = IoAllocateIrp(2, FALSE);
    IoFreeIrp(irp);
    wdmsim::DeleteRawPdo(pdo);
  }
  EXPECT_EQ(expected.Total(), 0);
}

}  // namespace
