// Device objects: CreateDevice binds a platform object to its framework object through the
// extension, DeleteDevice cuts the link and deletes it, and a failed creation reaches the
// system error log.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>

#include <wdmsim/io.h>

#include "kndeviceobject.h"
#include "kntrace.h"
#include "support_test_driver.h"

namespace {

using kntest::FrameworkTest;

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// How "%p" prints a pointer: 16 hex digits.
std::string Pointer(const void* p) {
  char text[20];
  snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
  return text;
}

class DeviceObjectTest : public FrameworkTest {
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

TEST_F(DeviceObjectTest, CreateDeviceBindsTheObjectAndPlacesTheClassAreaBehindThePrivateExtension) {
  const ULONG sizes[] = {0, 1, 64};
  for (ULONG size : sizes) {
    SCOPED_TRACE(size);
    KnDeviceObject* object = NewObject();
    ASSERT_EQ(STATUS_SUCCESS, object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, 0x180, FALSE, size));
    PDEVICE_OBJECT deviceObject = object->GetDeviceObject();
    ASSERT_NE(nullptr, deviceObject);
    EXPECT_EQ(mDriver, deviceObject->DriverObject);
    EXPECT_EQ(ULONG(FILE_DEVICE_UNKNOWN), deviceObject->DeviceType);
    EXPECT_EQ(0x180u, deviceObject->Characteristics);
    // The flags are the creator's business.
    EXPECT_NE(0u, deviceObject->Flags & DO_DEVICE_INITIALIZING);

    KnPrivateDeviceExtension* ext = KnDeviceObject::GetExtension(deviceObject);
    EXPECT_EQ(deviceObject->DeviceExtension, ext);
    EXPECT_EQ(0x78457250u, ext->mMagicTag);
    EXPECT_EQ(0, memcmp(&ext->mMagicTag, "PrEx", 4));
    EXPECT_EQ(object, ext->mDevObj);
    if (size == 0) {
      EXPECT_EQ(nullptr, ext->mUserExtension);
    } else {
      ASSERT_EQ(reinterpret_cast<PUCHAR>(ext) + sizeof(KnPrivateDeviceExtension), ext->mUserExtension);
      PUCHAR area = static_cast<PUCHAR>(ext->mUserExtension);
      for (ULONG i = 0; i < size; i++) ASSERT_EQ(0, area[i]) << i;
    }
    // The remove lock works from the start.
    int tag = 0;
    EXPECT_EQ(STATUS_SUCCESS, ext->mRemoveLock.Acquire(reinterpret_cast<PIRP>(&tag)));
    ext->mRemoveLock.Release(reinterpret_cast<PIRP>(&tag));

    std::string trace = TakeTrace();
    EXPECT_TRUE(Contains(trace, "kntest:KnDeviceObject::CreateDevice: DeviceObject " + Pointer(deviceObject) +
                                    " successfully created\n"))
        << trace;

    // Destroying the framework object takes its platform object along.
    delete object;
    EXPECT_FALSE(wdmsim::IsLiveDeviceObject(deviceObject));
    trace = TakeTrace();
    EXPECT_TRUE(Contains(trace, "kntest:KnDeviceObject::DeleteDevice: deleting DeviceObject " + Pointer(deviceObject) +
                                    "\n"))
        << trace;
  }
}

TEST_F(DeviceObjectTest, SecondCreateDeviceOnTheSameObjectIsAnAssertion) {
  KnDeviceObject* object = NewObject();
  ASSERT_EQ(STATUS_SUCCESS, object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, 0));
  PDEVICE_OBJECT first = object->GetDeviceObject();
  TakeTrace();
  object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, 0);
  std::string trace = TakeTrace();
  EXPECT_TRUE(Contains(trace, "kntest:ASSERTION FAILED: (mDeviceObject==NULL)\n")) << trace;
  // The assertion only reports: the object now owns the second platform object, and the
  // first one is the test's to clean up.
  EXPECT_NE(first, object->GetDeviceObject());
  KnDeviceObject::GetExtension(first)->mDevObj = NULL;
  IoDeleteDevice(first);
  delete object;
}

TEST_F(DeviceObjectTest, DeleteDeviceCutsTheLinkFirstAndIsSilentWithoutPlatformObject) {
  KnDeviceObject* object = NewObject();
  // Nothing to delete yet: nothing happens and nothing is said.
  object->DeleteDevice();
  EXPECT_EQ("", TakeTrace());

  ASSERT_EQ(STATUS_SUCCESS, object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, 0));
  PDEVICE_OBJECT deviceObject = object->GetDeviceObject();
  // A reference keeps the platform object (and its extension) readable after deletion.
  ObReferenceObject(deviceObject);
  TakeTrace();
  object->DeleteDevice();
  EXPECT_EQ(nullptr, object->GetDeviceObject());
  EXPECT_EQ(nullptr, KnDeviceObject::GetExtension(deviceObject)->mDevObj);
  EXPECT_TRUE(wdmsim::IsDeletePending(deviceObject));
  EXPECT_EQ("kntest:KnDeviceObject::DeleteDevice: deleting DeviceObject " + Pointer(deviceObject) + "\n",
            TakeTrace());

  object->DeleteDevice();
  EXPECT_EQ("", TakeTrace());
  ObDereferenceObject(deviceObject);
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(deviceObject));
  delete object;
  EXPECT_EQ("", TakeTrace());
}

TEST_F(DeviceObjectTest, ReferencedDeviceObjectCarriesAReferenceForTheCaller) {
  KnDeviceObject* object = NewObject();
  ASSERT_EQ(STATUS_SUCCESS, object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, 0));
  long before = wdmsim::DeviceObjectReferences(object->GetDeviceObject());
  PDEVICE_OBJECT referenced = object->GetReferencedDeviceObject();
  EXPECT_EQ(object->GetDeviceObject(), referenced);
  EXPECT_EQ(before + 1, wdmsim::DeviceObjectReferences(referenced));
  ObDereferenceObject(referenced);
  EXPECT_EQ(before, wdmsim::DeviceObjectReferences(referenced));
  delete object;
}

TEST_F(DeviceObjectTest, FailedCreationIsTracedAndWrittenToTheSystemErrorLog) {
  KnDeviceObject* object = NewObject();
  wdmsim::FailDeviceCreations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, 0));
  EXPECT_EQ(nullptr, object->GetDeviceObject());
  std::string trace = TakeTrace();
  EXPECT_TRUE(Contains(trace,
                       "kntest:KnDeviceObject::CreateDevice: Cannot create device object, stat=0xC000009A "
                       "(STATUS_INSUFFICIENT_RESOURCES)\n"))
      << trace;

  std::vector<wdmsim::ErrorLogEntry> entries = wdmsim::TakeErrorLogEntries();
  ASSERT_EQ(1u, entries.size());
  // No device object yet: the entry is logged against the driver object.
  EXPECT_EQ(mDriver, entries[0].ioObject);
  const IO_ERROR_LOG_PACKET& packet = entries[0].Packet();
  EXPECT_EQ(NTSTATUS(0xE0070003), packet.ErrorCode);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, packet.FinalStatus);
  EXPECT_EQ(0u, packet.UniqueErrorValue);
  ASSERT_EQ(1u, entries[0].Strings().size());
  EXPECT_EQ(u"Unable to create device object.", entries[0].Strings()[0]);
  delete object;
}

}  // namespace
