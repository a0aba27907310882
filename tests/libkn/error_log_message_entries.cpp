// KnLogMessage: the system error-log entry, its size limit, category codes and the object
// it is logged against.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <algorithm>
#include <string>
#include <vector>

#include <wdmsim/io.h>

#include "kndeviceobject.h"
#include "kntrace.h"
#include "knutils.h"
#include "support_test_driver.h"

namespace {

using kntest::FrameworkTest;

const NTSTATUS kFinalStatus = STATUS_DEVICE_DATA_ERROR;
const ULONG kUniqueValue = 0x5EC0FFEE;

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::u16string Text(size_t length) {
  std::u16string text;
  for (size_t i = 0; i < length; i++) text += static_cast<char16_t>(u'A' + i % 26);
  return text;
}

const WCHAR* Wide(const std::u16string& text) { return reinterpret_cast<const WCHAR*>(text.c_str()); }

class LogMessageTest : public FrameworkTest {
 protected:
  void SetUp() override {
    mDriver = kntest::LoadTestDriver();
    ASSERT_NE(nullptr, mDriver);
    TakeTrace();
  }
  void TearDown() override { ASSERT_TRUE(wdmsim::UnloadDriver(mDriver)); }

  PDRIVER_OBJECT mDriver = nullptr;
};

TEST_F(LogMessageTest, EntryHoldsTheMessageWithItsTerminatorUpTo200Bytes) {
  struct Case {
    size_t chars;
    size_t entrySize;
    size_t copiedBytes;  // of the message text (a terminator follows only when it fits)
    bool terminated;
  };
  const Case cases[] = {
      {0, 42, 0, true},       {1, 44, 2, true},        {31, 104, 62, true},
      {99, 240, 198, true},   {100, 240, 200, false},  {150, 240, 200, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.chars);
    std::u16string message = Text(c.chars);
    KnLogMessage(KnLogMessageCategory_Warning, Wide(message), kFinalStatus, kUniqueValue, NULL);
    std::vector<wdmsim::ErrorLogEntry> entries = wdmsim::TakeErrorLogEntries();
    ASSERT_EQ(1u, entries.size());
    const std::vector<uint8_t>& bytes = entries[0].packet;
    ASSERT_EQ(c.entrySize, bytes.size());
    // Entries can be shorter than the packet structure (which ends in dump data): read the
    // fixed fields from the bytes.
    IO_ERROR_LOG_PACKET packet = {};
    memcpy(&packet, bytes.data(), std::min(bytes.size(), sizeof packet));
    EXPECT_EQ(1, packet.NumberOfStrings);
    EXPECT_EQ(40, packet.StringOffset);
    EXPECT_EQ(NTSTATUS(0xA0070002), packet.ErrorCode);
    EXPECT_EQ(kUniqueValue, packet.UniqueErrorValue);
    EXPECT_EQ(kFinalStatus, packet.FinalStatus);
    // Everything else in the fixed part stays zero.
    EXPECT_EQ(0, packet.MajorFunctionCode);
    EXPECT_EQ(0, packet.RetryCount);
    EXPECT_EQ(0, packet.DumpDataSize);
    EXPECT_EQ(0, packet.EventCategory);
    EXPECT_EQ(0u, packet.SequenceNumber);
    EXPECT_EQ(0u, packet.IoControlCode);
    EXPECT_EQ(0, packet.DeviceOffset.QuadPart);
    EXPECT_EQ(0, memcmp(bytes.data() + 40, message.data(), c.copiedBytes));
    if (c.terminated) {
      EXPECT_EQ(0, bytes[40 + c.copiedBytes]);
      EXPECT_EQ(0, bytes[41 + c.copiedBytes]);
    }
  }
}

TEST_F(LogMessageTest, CategoryChoosesTheErrorCodeAndAnUnknownOneCountsAsError) {
  struct Case {
    int category;
    ULONG errorCode;
    bool unknown;
  };
  const Case cases[] = {
      {0, 0x60070001, false}, {1, 0xA0070002, false}, {2, 0xE0070003, false}, {3, 0xE0070003, true},
      {5, 0xE0070003, true},
  };
  gKnTraceMask = 0x3;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.category);
    KnLogMessage(static_cast<KnLogMessageCategory>(c.category), L"disk on fire", kFinalStatus, 0, NULL);
    std::vector<wdmsim::ErrorLogEntry> entries = wdmsim::TakeErrorLogEntries();
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(NTSTATUS(c.errorCode), entries[0].Packet().ErrorCode);
    std::string trace = TakeTrace();
    char unknown[120];
    snprintf(unknown, sizeof unknown,
             "kntest:KnLogMessage: Unknown message category %08X, defaulting to KnLogMessageCategory_Error\n",
             c.category);
    EXPECT_EQ(c.unknown, Contains(trace, unknown)) << trace;
    char logged[160];
    snprintf(logged, sizeof logged,
             "kntest:KnLogMessage: ErrorCode %08X Status=0xC000009C (STATUS_DEVICE_DATA_ERROR) Message 'disk on "
             "fire'\n",
             c.errorCode);
    EXPECT_TRUE(Contains(trace, logged)) << trace;
  }
}

TEST_F(LogMessageTest, EntryGoesAgainstTheDeviceObjectWhenOneIsGiven) {
  KnDeviceObject* object = new (NonPagedPool, gKnDefaultPoolTag) KnDeviceObject;
  ASSERT_EQ(STATUS_SUCCESS, object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, 0));
  KnLogMessage(KnLogMessageCategory_Information, L"hello", STATUS_SUCCESS, 1, object->GetDeviceObject());
  std::vector<wdmsim::ErrorLogEntry> entries = wdmsim::TakeErrorLogEntries();
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ(object->GetDeviceObject(), entries[0].ioObject);
  EXPECT_EQ(std::vector<std::u16string>{u"hello"}, entries[0].Strings());
  delete object;
}

TEST_F(LogMessageTest, NothingIsLoggedWithoutAnObjectOrAnEntry) {
  // An object that the I/O manager does not know gets no entry.
  DEVICE_OBJECT stranger = {};
  KnLogMessage(KnLogMessageCategory_Error, L"lost", kFinalStatus, 0, &stranger);
  EXPECT_TRUE(wdmsim::TakeErrorLogEntries().empty());
  EXPECT_EQ("kntest:KnLogMessage: IoAllocateErrorLogEntry failed\n", TakeTrace());

  KnDriverObject* driverObject = gKnDriverObject;
  gKnDriverObject = NULL;
  KnLogMessage(KnLogMessageCategory_Error, L"lost", kFinalStatus, 0, NULL);
  gKnDriverObject = driverObject;
  EXPECT_TRUE(wdmsim::TakeErrorLogEntries().empty());
  EXPECT_EQ("kntest:KnLogMessage: FATAL: gKnDriverObject == NULL\n", TakeTrace());
}

}  // namespace
