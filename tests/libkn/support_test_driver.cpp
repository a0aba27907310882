#include "support_test_driver.h"

#include <wdmsim/io.h>

#include "kntrace.h"
#include "libknnewdelete.h"

namespace kntest {
namespace {

TestDriverSettings gSettings;

class TestDriverObject : public KnDriverObject {
 public:
  NTSTATUS OnDriverEntry(PDRIVER_OBJECT, PUNICODE_STRING) override { return gSettings.onDriverEntryStatus; }
  void OnDriverUnload(PDRIVER_OBJECT) override { gSettings.unloadCalls++; }
  NTSTATUS OnAddDevice(PDRIVER_OBJECT driverObject, PDEVICE_OBJECT pdo) override {
    return gSettings.onAddDevice ? gSettings.onAddDevice(driverObject, pdo) : STATUS_SUCCESS;
  }
};

}  // namespace

TestDriverSettings& TestDriver() { return gSettings; }

void ResetTestDriver() { gSettings = TestDriverSettings(); }

FrameworkTest::FrameworkTest() {
  ResetTestDriver();
  wdmsim::SetDebugSink(wdmsim::DebugSink::Memory);
  gKnTraceMask = 3;
  KnTraceSetPrefix("");
  wdmsim::TakeDebugOutput();
  wdmsim::TakeRtlAssertCount();
}

PDRIVER_OBJECT LoadTestDriver(const std::u16string& serviceName, NTSTATUS* status) {
  return wdmsim::LoadDriver(serviceName, DriverEntry, status);
}

}  // namespace kntest

KnDriverObject* CreateDriverInstance() {
  if (kntest::gSettings.failCreateInstance) {
    return NULL;
  }
  kntest::gSettings.instancesCreated++;
  return new (NonPagedPool, gKnDefaultPoolTag) kntest::TestDriverObject;
}
