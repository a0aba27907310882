// The entry point: the service name becomes the trace prefix, "TraceMask" of the service
// key becomes the trace mask, the dispatch table is filled, and every failure on the way
// leaves the driver unloaded without leaking.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>

#include <wdmsim/debugout.h>
#include <wdmsim/io.h>
#include <wdmsim/pool.h>
#include <wdmsim/registry.h>

#include "kndriverobject.h"
#include "knunicodestring.h"
#include "kntrace.h"
#include "support_test_driver.h"

namespace {

using kntest::FrameworkTest;
using kntest::Has;
using kntest::HasIf;
using kntest::LoadTestDriver;
using kntest::TestDriver;

// A DRIVER_OBJECT of our own, for entry-point calls with registry paths that the system
// would never pass (no backslash) or while a driver object already exists.
struct HandMadeDriverObject {
  HandMadeDriverObject() {
    driver.DriverExtension = &extension;
    extension.DriverObject = &driver;
  }
  DRIVER_OBJECT driver = {};
  DRIVER_EXTENSION extension = {};
};

NTSTATUS CallEntry(HandMadeDriverObject* object, const std::u16string& path) {
  UNICODE_STRING registryPath;
  registryPath.Buffer = reinterpret_cast<PWSTR>(const_cast<char16_t*>(path.c_str()));
  registryPath.Length = static_cast<USHORT>(path.size() * 2);
  registryPath.MaximumLength = registryPath.Length;
  return DriverEntry(&object->driver, &registryPath);
}

const std::u16string kServicesPath = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\";

class DriverEntryTest : public FrameworkTest {};

TEST_F(DriverEntryTest, TraceMaskComesFromTheServiceKeyElseTheBuiltInOneStays) {
  struct Case {
    bool present;  // TraceMask in the service key
    ULONG mask;
    bool flowTraced;
  };
  // Without the value the built-in mask 3 stays: the key is opened for reading, so the
  // default's write-back fails and is traced.
  const Case cases[] = {{false, 3, false}, {true, 0x7, true}, {true, 0xFFFFFFFB, false}, {true, 0x0, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.mask);
    gKnTraceMask = 3;
    if (c.present) wdmsim::RegistrySetDword(kServicesPath + u"kntest", u"TraceMask", c.mask);
    PDRIVER_OBJECT driver = LoadTestDriver();
    ASSERT_NE(nullptr, driver);
    EXPECT_EQ(c.mask, gKnTraceMask);
    EXPECT_NE(nullptr, driver->DriverExtension->AddDevice);
    EXPECT_EQ(c.present, wdmsim::RegistryGetValue(kServicesPath + u"kntest", u"TraceMask").has_value());
    std::string trace = TakeTrace();
    EXPECT_TRUE(
        HasIf(!c.present, trace, "kntest:KnRegistryKey::GetDwordValue: SetDword(TraceMask) failed, stat=0xC0000022"));
    EXPECT_TRUE(HasIf(c.flowTraced, trace, "kntest:KnDriverObject::DriverEntry: Registry path is "
                                           "'\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kntest'\n"));
    EXPECT_TRUE(HasIf(c.flowTraced, trace, "kntest:DriverEntry returns 0x00000000 (STATUS_SUCCESS)\n"));
    // Bit 0x2: the milestone follows the mask just read, not the built-in one.
    EXPECT_TRUE(HasIf((c.mask & 0x2) != 0, trace, "\n**** kntest:DriverEntry ****\n"));
    ASSERT_TRUE(wdmsim::UnloadDriver(driver));
    EXPECT_EQ(nullptr, gKnDriverObject);
    EXPECT_TRUE(HasIf((c.mask & 0x2) != 0, TakeTrace(), "**** kntest:DriverUnload ****\n\n"));
  }
  EXPECT_EQ(4, TestDriver().unloadCalls);
}

TEST_F(DriverEntryTest, TracePrefixIsTheLastPathComponentCutTo31Characters) {
  struct Case {
    std::u16string path;
    const char* prefix;
  };
  const std::u16string name31 = u"abcdefghijklmnopqrstuvwxyz01234";
  const Case cases[] = {
      {kServicesPath + u"usbmi", "usbmi"},
      {kServicesPath + name31, "abcdefghijklmnopqrstuvwxyz01234"},
      {kServicesPath + name31 + u"5", "abcdefghijklmnopqrstuvwxyz01234"},
      {u"plainname", "plainname"},
      {u"Zabcdefghijklmnopqrstuvwxyz0123456789", "Zabcdefghijklmnopqrstuvwxyz0123"},
      {u"a\\b\\", ""},
      // Each UTF-16 unit keeps its low byte: U+0141 becomes 'A', U+2163 becomes 'c'.
      {kServicesPath + u"x\u0141y\u2163", "xAyc"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.path.begin(), c.path.end()));
    gKnTraceMask = 3;
    KnTraceSetPrefix("");
    HandMadeDriverObject object;
    EXPECT_EQ(STATUS_SUCCESS, CallEntry(&object, c.path));
    EXPECT_STREQ(c.prefix, gKnTracePrefix);
    ASSERT_NE(nullptr, object.driver.DriverUnload);
    object.driver.DriverUnload(&object.driver);
    EXPECT_EQ(nullptr, gKnDriverObject);
    TakeTrace();
  }
}

TEST_F(DriverEntryTest, UnopenableServiceKeyIsTracedAndTheDriverLoadsWithTheBuiltInMask) {
  HandMadeDriverObject object;
  EXPECT_EQ(STATUS_SUCCESS, CallEntry(&object, kServicesPath + u"nosuchservice"));
  EXPECT_EQ(3u, gKnTraceMask);
  EXPECT_TRUE(Has(TakeTrace(), "nosuchservice:KnDriverObject::DriverEntry: open registry path "
                               "'\\Registry\\Machine\\System\\CurrentControlSet\\Services\\nosuchservice' failed, "
                               "stat=0xC0000034 (STATUS_OBJECT_NAME_NOT_FOUND)\n"));
  EXPECT_NE(nullptr, object.driver.MajorFunction[IRP_MJ_PNP]);
  // The framework keeps its own terminated copy of the path the system lent it.
  ASSERT_NE(nullptr, gKnDriverObject);
  const KnUnicodeString& copy = gKnDriverObject->GetRegistryPath();
  EXPECT_EQ(KnUnicodeStringKind_KnAllocated, copy.GetKind());
  EXPECT_EQ((kServicesPath.size() + 13) * 2, copy.Length);
  EXPECT_EQ(copy.Length + 2, copy.MaximumLength);
  EXPECT_EQ(0, copy.Buffer[copy.Length / 2]);
  EXPECT_EQ(1u, wdmsim::LivePoolBlockCount(KN_UNICODE_STRING_TAG));
  object.driver.DriverUnload(&object.driver);
  EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(KN_UNICODE_STRING_TAG));
}

TEST_F(DriverEntryTest, FailuresOfTheEntryPointLeaveNoDriverObjectBehind) {
  // No driver object at all.
  TestDriver().failCreateInstance = true;
  NTSTATUS status = STATUS_SUCCESS;
  EXPECT_EQ(nullptr, LoadTestDriver(kntest::kTestServiceName, &status));
  EXPECT_EQ(STATUS_UNSUCCESSFUL, status);
  EXPECT_EQ(nullptr, gKnDriverObject);
  EXPECT_TRUE(Has(TakeTrace(), ":DriverEntry: FATAL, CreateDriverInstance failed, terminating driver\n"));
  TestDriver().failCreateInstance = false;

  // The driver class refuses to start: its status comes back, and no dispatch entry is set.
  TestDriver().onDriverEntryStatus = STATUS_DEVICE_CONFIGURATION_ERROR;
  HandMadeDriverObject object;
  EXPECT_EQ(STATUS_DEVICE_CONFIGURATION_ERROR, CallEntry(&object, kServicesPath + u"kntest"));
  for (PDRIVER_DISPATCH dispatch : object.driver.MajorFunction) EXPECT_EQ(nullptr, dispatch);
  EXPECT_EQ(nullptr, object.driver.DriverExtension->AddDevice);
  EXPECT_EQ(nullptr, object.driver.DriverUnload);
  EXPECT_EQ(nullptr, gKnDriverObject);
  std::string trace = TakeTrace();
  EXPECT_TRUE(Has(trace, "kntest:KnDriverObject::DriverEntry: OnDriverEntry failed, stat=0xC0000182 "
                         "(STATUS_DEVICE_CONFIGURATION_ERROR)\n"));
  EXPECT_TRUE(Has(trace, "kntest:DriverEntry: gKnDriverObject->DriverEntry failed, stat=0xC0000182"));
  TestDriver().onDriverEntryStatus = STATUS_SUCCESS;

  // No pool for the registry path copy: the path's bytes plus the terminator were asked for.
  wdmsim::FailPoolAllocationsWithTag(KN_UNICODE_STRING_TAG);
  EXPECT_EQ(nullptr, LoadTestDriver(kntest::kTestServiceName, &status));
  wdmsim::ClearPoolFaults();
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, status);
  EXPECT_EQ(nullptr, gKnDriverObject);
  const size_t pathBytes = (kServicesPath.size() + 6) * 2;
  EXPECT_TRUE(Has(TakeTrace(), ":KnDriverObject::DriverEntry: FATAL: alloc registry path buffer (" +
                                        std::to_string(pathBytes + 2) + " bytes) failed\n"));
  EXPECT_EQ(2, TestDriver().instancesCreated);
  EXPECT_EQ(0, TestDriver().unloadCalls);
  EXPECT_EQ(0, wdmsim::TakeRtlAssertCount());
}

TEST_F(DriverEntryTest, SecondEntryWhileADriverObjectExistsIsAPlatformAssertion) {
  PDRIVER_OBJECT driver = LoadTestDriver();
  ASSERT_NE(nullptr, driver);
  KnDriverObject* first = gKnDriverObject;
  EXPECT_EQ(0, wdmsim::TakeRtlAssertCount());
  TakeTrace();

  HandMadeDriverObject second;
  CallEntry(&second, kServicesPath + u"kntest");
  EXPECT_EQ(1, wdmsim::TakeRtlAssertCount());
  EXPECT_TRUE(Has(TakeTrace(), "gKnDriverObject==NULL"));

  // The assertion only reports: the second object replaced the first. Put things back.
  second.driver.DriverUnload(&second.driver);
  gKnDriverObject = first;
  ASSERT_TRUE(wdmsim::UnloadDriver(driver));
  EXPECT_EQ(2, TestDriver().unloadCalls);
}

}  // namespace
