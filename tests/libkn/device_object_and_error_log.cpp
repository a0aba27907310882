// Device objects: CreateDevice binds a platform object to its framework object through the
// extension, DeleteDevice cuts the link and deletes it, a failed creation reaches the
// system error log. KnLogMessage: the error-log entry, its size limit, category codes and
// the object it is logged against.
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

using kntest::Has;

const NTSTATUS kFinalStatus = STATUS_DEVICE_DATA_ERROR;
const ULONG kUniqueValue = 0x5EC0FFEE;

// How "%p" prints a pointer: 16 hex digits.
std::string Pointer(const void* p) {
  char text[20];
  snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
  return text;
}

class DeviceObjectTest : public kntest::FrameworkTest {
 protected:
  void SetUp() override {
    mDriver = kntest::LoadTestDriver();
    ASSERT_NE(nullptr, mDriver);
    gKnTraceMask = 0xFFFFFFFF;
    TakeTrace();
  }
  void TearDown() override { ASSERT_TRUE(wdmsim::UnloadDriver(mDriver)); }
  KnDeviceObject* NewObject() { return new (NonPagedPool, gKnDefaultPoolTag) KnDeviceObject; }

  PDRIVER_OBJECT mDriver = nullptr;
};

class LogMessageTest : public DeviceObjectTest {};

TEST_F(DeviceObjectTest, CreateDeviceBindsTheObjectAndPlacesTheClassAreaBehindThePrivateExtension) {
  for (ULONG size : {0, 1, 64}) {
    SCOPED_TRACE(size);
    KnDeviceObject* object = NewObject();
    ASSERT_EQ(STATUS_SUCCESS, object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, 0x180, FALSE, size));
    PDEVICE_OBJECT deviceObject = object->GetDeviceObject();
    ASSERT_NE(nullptr, deviceObject);
    EXPECT_EQ(mDriver, deviceObject->DriverObject);
    EXPECT_EQ(ULONG(FILE_DEVICE_UNKNOWN), deviceObject->DeviceType);
    EXPECT_EQ(0x180u, deviceObject->Characteristics);
    EXPECT_NE(0u, deviceObject->Flags & DO_DEVICE_INITIALIZING);  // the flags are the creator's business

    KnPrivateDeviceExtension* ext = KnDeviceObject::GetExtension(deviceObject);
    EXPECT_EQ(deviceObject->DeviceExtension, ext);
    EXPECT_EQ(0, memcmp(&ext->mMagicTag, "PrEx", 4));
    EXPECT_EQ(object, ext->mDevObj);
    if (size == 0) {
      EXPECT_EQ(nullptr, ext->mUserExtension);
    } else {
      ASSERT_EQ(reinterpret_cast<PUCHAR>(ext) + sizeof(KnPrivateDeviceExtension), ext->mUserExtension);
      PUCHAR area = static_cast<PUCHAR>(ext->mUserExtension);
      EXPECT_EQ(std::vector<UCHAR>(size, 0), std::vector<UCHAR>(area, area + size));
    }
    // The remove lock works from the start.
    int tag = 0;
    EXPECT_EQ(STATUS_SUCCESS, ext->mRemoveLock.Acquire(reinterpret_cast<PIRP>(&tag)));
    ext->mRemoveLock.Release(reinterpret_cast<PIRP>(&tag));
    EXPECT_TRUE(Has(TakeTrace(), "kntest:KnDeviceObject::CreateDevice: DeviceObject " + Pointer(deviceObject) +
                                     " successfully created\n"));

    // Destroying the framework object takes its platform object along.
    delete object;
    EXPECT_FALSE(wdmsim::IsLiveDeviceObject(deviceObject));
    EXPECT_TRUE(Has(TakeTrace(), "kntest:KnDeviceObject::DeleteDevice: deleting DeviceObject " +
                                     Pointer(deviceObject) + "\n"));
  }
}

TEST_F(DeviceObjectTest, SecondCreateDeviceOnTheSameObjectIsAnAssertion) {
  KnDeviceObject* object = NewObject();
  ASSERT_EQ(STATUS_SUCCESS, object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, 0));
  PDEVICE_OBJECT first = object->GetDeviceObject();
  TakeTrace();
  object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, 0);
  EXPECT_TRUE(Has(TakeTrace(), "kntest:ASSERTION FAILED: (mDeviceObject==NULL)\n"));
  // The assertion only reports: the object now owns the second platform object, and the
  // first one is the test's to clean up.
  EXPECT_NE(first, object->GetDeviceObject());
  KnDeviceObject::GetExtension(first)->mDevObj = NULL;
  IoDeleteDevice(first);
  delete object;
}

TEST_F(DeviceObjectTest, DeleteDeviceCutsTheLinkFirstAndIsSilentWithoutPlatformObject) {
  KnDeviceObject* object = NewObject();
  object->DeleteDevice();  // nothing to delete yet: nothing happens and nothing is said
  EXPECT_EQ("", TakeTrace());

  ASSERT_EQ(STATUS_SUCCESS, object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, 0));
  PDEVICE_OBJECT deviceObject = object->GetDeviceObject();
  // The caller's reference keeps the platform object (and its extension) readable after deletion.
  long before = wdmsim::DeviceObjectReferences(deviceObject);
  EXPECT_EQ(deviceObject, object->GetReferencedDeviceObject());
  EXPECT_EQ(before + 1, wdmsim::DeviceObjectReferences(deviceObject));
  TakeTrace();
  object->DeleteDevice();
  EXPECT_EQ(nullptr, object->GetDeviceObject());
  EXPECT_EQ(nullptr, KnDeviceObject::GetExtension(deviceObject)->mDevObj);
  EXPECT_TRUE(wdmsim::IsDeletePending(deviceObject));
  EXPECT_EQ("kntest:KnDeviceObject::DeleteDevice: deleting DeviceObject " + Pointer(deviceObject) + "\n",
            TakeTrace());

  object->DeleteDevice();
  ObDereferenceObject(deviceObject);
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(deviceObject));
  delete object;
  EXPECT_EQ("", TakeTrace());
}

TEST_F(DeviceObjectTest, FailedCreationIsTracedAndWrittenToTheSystemErrorLog) {
  KnDeviceObject* object = NewObject();
  wdmsim::FailDeviceCreations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, 0));
  EXPECT_EQ(nullptr, object->GetDeviceObject());
  EXPECT_TRUE(Has(TakeTrace(), "kntest:KnDeviceObject::CreateDevice: Cannot create device object, stat=0xC000009A "
                               "(STATUS_INSUFFICIENT_RESOURCES)\n"));

  std::vector<wdmsim::ErrorLogEntry> entries = wdmsim::TakeErrorLogEntries();
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ(mDriver, entries[0].ioObject);  // no device object yet: logged against the driver
  const IO_ERROR_LOG_PACKET& packet = entries[0].Packet();
  EXPECT_EQ(NTSTATUS(0xE0070003), packet.ErrorCode);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, packet.FinalStatus);
  EXPECT_EQ(0u, packet.UniqueErrorValue);
  EXPECT_EQ(std::vector<std::u16string>{u"Unable to create device object."}, entries[0].Strings());
  delete object;
}

// The bytes as hex, for comparisons whose failure shows where they differ.
std::string Hex(const void* bytes, size_t count) {
  std::string text;
  char byte[4];
  for (size_t i = 0; i < count; i++) {
    snprintf(byte, sizeof byte, "%02X ", static_cast<const UCHAR*>(bytes)[i]);
    text += byte;
  }
  return text;
}

TEST_F(LogMessageTest, EntryHoldsTheMessageWithItsTerminatorUpTo200Bytes) {
  struct Case {
    size_t chars;
    size_t entrySize;
    size_t copiedBytes;  // of the message text (a terminator follows only when it fits)
    bool terminated;
  };
  const Case cases[] = {
      {0, 42, 0, true}, {1, 44, 2, true}, {31, 104, 62, true}, {99, 240, 198, true}, {100, 240, 200, false},
      {150, 240, 200, false},
  };
  // The fixed part: every field not set here stays zero.
  IO_ERROR_LOG_PACKET fixed = {};
  fixed.NumberOfStrings = 1;
  fixed.StringOffset = 40;
  fixed.ErrorCode = NTSTATUS(0xA0070002);
  fixed.UniqueErrorValue = kUniqueValue;
  fixed.FinalStatus = kFinalStatus;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.chars);
    std::u16string message;
    for (size_t i = 0; i < c.chars; i++) message += static_cast<char16_t>(u'A' + i % 26);
    KnLogMessage(KnLogMessageCategory_Warning, reinterpret_cast<const WCHAR*>(message.c_str()), kFinalStatus,
                 kUniqueValue, NULL);
    std::vector<wdmsim::ErrorLogEntry> entries = wdmsim::TakeErrorLogEntries();
    ASSERT_EQ(1u, entries.size());
    const std::vector<uint8_t>& bytes = entries[0].packet;
    ASSERT_EQ(c.entrySize, bytes.size());
    EXPECT_EQ(Hex(&fixed, 40), Hex(bytes.data(), 40));
    EXPECT_EQ(0, memcmp(bytes.data() + 40, message.data(), c.copiedBytes));
    if (c.terminated) { EXPECT_EQ("00 00 ", Hex(bytes.data() + 40 + c.copiedBytes, 2)); }
  }
}

TEST_F(LogMessageTest, CategoryChoosesTheErrorCodeAndAnUnknownOneCountsAsError) {
  const struct {
    int category;
    ULONG errorCode;
  } cases[] = {{0, 0x60070001}, {1, 0xA0070002}, {2, 0xE0070003}, {3, 0xE0070003}, {5, 0xE0070003}};
  gKnTraceMask = 0x3;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.category);
    KnLogMessage(static_cast<KnLogMessageCategory>(c.category), L"disk on fire", kFinalStatus, 0, NULL);
    std::vector<wdmsim::ErrorLogEntry> entries = wdmsim::TakeErrorLogEntries();
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(NTSTATUS(c.errorCode), entries[0].Packet().ErrorCode);
    std::string trace = TakeTrace();
    char text[160];
    snprintf(text, sizeof text,
             "kntest:KnLogMessage: Unknown message category %08X, defaulting to KnLogMessageCategory_Error\n",
             c.category);
    EXPECT_TRUE(kntest::HasIf(c.category > 2, trace, text));
    snprintf(text, sizeof text,
             "kntest:KnLogMessage: ErrorCode %08X Status=0xC000009C (STATUS_DEVICE_DATA_ERROR) Message 'disk on "
             "fire'\n",
             c.errorCode);
    EXPECT_TRUE(Has(trace, text));
  }
}

TEST_F(LogMessageTest, EntryGoesAgainstTheDeviceObjectGivenOrNowhere) {
  KnDeviceObject* object = NewObject();
  ASSERT_EQ(STATUS_SUCCESS, object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, 0));
  KnLogMessage(KnLogMessageCategory_Information, L"hello", STATUS_SUCCESS, 1, object->GetDeviceObject());
  std::vector<wdmsim::ErrorLogEntry> entries = wdmsim::TakeErrorLogEntries();
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ(object->GetDeviceObject(), entries[0].ioObject);
  EXPECT_EQ(std::vector<std::u16string>{u"hello"}, entries[0].Strings());
  delete object;
  gKnTraceMask = 0x3;
  TakeTrace();

  // An object that the I/O manager does not know gets no entry.
  DEVICE_OBJECT stranger = {};
  KnLogMessage(KnLogMessageCategory_Error, L"lost", kFinalStatus, 0, &stranger);
  EXPECT_TRUE(wdmsim::TakeErrorLogEntries().empty());
  EXPECT_TRUE(Has(TakeTrace(), "kntest:KnLogMessage: IoAllocateErrorLogEntry failed\n"));

  KnDriverObject* driverObject = gKnDriverObject;
  gKnDriverObject = NULL;
  KnLogMessage(KnLogMessageCategory_Error, L"lost", kFinalStatus, 0, NULL);
  gKnDriverObject = driverObject;
  EXPECT_TRUE(wdmsim::TakeErrorLogEntries().empty());
  EXPECT_EQ("kntest:KnLogMessage: FATAL: gKnDriverObject == NULL\n", TakeTrace());
}

}  // namespace
