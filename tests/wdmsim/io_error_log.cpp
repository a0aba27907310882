// The system error log keeps what drivers write, byte for byte.
#include <gtest/gtest.h>

#include <cstring>

#include "io_test_driver.h"

namespace {

using ErrorLog = iotest::IoTest;

TEST_F(ErrorLog, EntrySizeIsLimitedAndEntriesStartZeroed) {
  PDEVICE_OBJECT device = driver.AddDevice(iotest::CompleteWith(STATUS_SUCCESS));
  EXPECT_EQ(IoAllocateErrorLogEntry(device, ERROR_LOG_MAXIMUM_SIZE + 1), nullptr);
  auto entry = static_cast<UCHAR*>(IoAllocateErrorLogEntry(device, ERROR_LOG_MAXIMUM_SIZE));
  ASSERT_NE(entry, nullptr);
  for (int i = 0; i < ERROR_LOG_MAXIMUM_SIZE; ++i) ASSERT_EQ(entry[i], 0) << i;
  IoFreeErrorLogEntry(entry);
  EXPECT_TRUE(wdmsim::TakeErrorLogEntries().empty());

  // Only device and driver objects can log.
  int notAnObject = 0;
  EXPECT_EQ(IoAllocateErrorLogEntry(nullptr, 48), nullptr);
  EXPECT_EQ(IoAllocateErrorLogEntry(&notAnObject, 48), nullptr);
}

TEST_F(ErrorLog, WrittenEntryIsKeptWithItsObjectAndInsertionString) {
  const char16_t message[] = u"Unable to create device object.";
  const UCHAR size = 40 + sizeof message;
  auto packet = static_cast<PIO_ERROR_LOG_PACKET>(IoAllocateErrorLogEntry(driver.driver(), size));
  ASSERT_NE(packet, nullptr);
  packet->NumberOfStrings = 1;
  packet->StringOffset = 40;
  packet->ErrorCode = static_cast<NTSTATUS>(0xE0070003);
  packet->UniqueErrorValue = 0x5EED;
  packet->FinalStatus = STATUS_INSUFFICIENT_RESOURCES;
  memcpy(reinterpret_cast<UCHAR*>(packet) + 40, message, sizeof message);
  std::vector<uint8_t> written(reinterpret_cast<UCHAR*>(packet), reinterpret_cast<UCHAR*>(packet) + size);
  IoWriteErrorLogEntry(packet);

  auto entries = wdmsim::TakeErrorLogEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].ioObject, driver.driver());
  EXPECT_EQ(entries[0].packet, written);
  EXPECT_EQ(entries[0].Packet().UniqueErrorValue, 0x5EEDu);
  EXPECT_EQ(entries[0].Packet().FinalStatus, STATUS_INSUFFICIENT_RESOURCES);
  ASSERT_EQ(entries[0].Strings().size(), 1u);
  EXPECT_EQ(entries[0].Strings()[0], u"Unable to create device object.");
  EXPECT_TRUE(wdmsim::TakeErrorLogEntries().empty());

  wdmsim_test::ExpectViolations expected;
  IoWriteErrorLogEntry(packet);
  EXPECT_EQ(expected.Count("DRIVER_VERIFIER_IOMANAGER_VIOLATION"), 1);
  EXPECT_TRUE(wdmsim::TakeErrorLogEntries().empty());
}

}  // namespace
