// The driver class of the framework's tests: libkn needs a CreateDriverInstance, and the
// tests decide through TestDriverSettings how the driver's entry, AddDevice and unload go.
#pragma once

#include <ntddk.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <wdmsim/debugout.h>
#include <wdmsim/kernel.h>

#include "kndriverobject.h"
#include "kndeviceobject.h"
#include "libknnewdelete.h"

namespace kntest {

// Whether text holds part; the message (shown by a failing EXPECT_TRUE or EXPECT_FALSE)
// quotes the whole text.
inline testing::AssertionResult Has(const std::string& text, const std::string& part) {
  const bool found = text.find(part) != std::string::npos;
  return (found ? testing::AssertionSuccess() : testing::AssertionFailure())
         << "'" << part << (found ? "' in:\n" : "' not in:\n") << text;
}
// Passes when text holds part exactly if expected.
inline testing::AssertionResult HasIf(bool expected, const std::string& text, const std::string& part) {
  testing::AssertionResult found = Has(text, part);
  return bool(found) == expected ? testing::AssertionSuccess() : found;
}

const char16_t kTestServiceName[] = u"kntest";

struct TestDriverSettings {
  bool failCreateInstance = false;          // CreateDriverInstance returns NULL
  NTSTATUS onDriverEntryStatus = STATUS_SUCCESS;
  // Called by OnAddDevice; without it AddDevice succeeds and creates nothing.
  std::function<NTSTATUS(PDRIVER_OBJECT, PDEVICE_OBJECT)> onAddDevice;
  int instancesCreated = 0;                 // by CreateDriverInstance
  int unloadCalls = 0;                      // OnDriverUnload calls
};

// The settings the next driver entry and the running driver read. ResetTestDriver()
// restores the defaults and zeroes the counters.
TestDriverSettings& TestDriver();
void ResetTestDriver();

// Loads the framework's entry point as the service serviceName (the service key is
// created if missing). NULL when the entry point failed; *status gets its result.
PDRIVER_OBJECT LoadTestDriver(const std::u16string& serviceName = kTestServiceName, NTSTATUS* status = nullptr);

// A framework device object of class T (created the way the framework creates objects)
// with its platform object, ready for requests. NULL if either could not be created.
template <class T>
T* CreateBoundDevice(ULONG extensionSize = 0) {
  T* object = new (NonPagedPool, gKnDefaultPoolTag) T;
  if (object == NULL) return NULL;
  if (!NT_SUCCESS(object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, FILE_DEVICE_SECURE_OPEN, FALSE, extensionSize))) {
    delete object;
    return NULL;
  }
  object->GetDeviceObject()->Flags &= ~DO_DEVICE_INITIALIZING;
  return object;
}

// A test on a fresh simulated machine with the framework's globals as after image load:
// test driver defaults, trace mask 3, no prefix, debug output and assertion count cleared.
// The machine's shutdown after the test reports any pool block, IRP or device left behind.
class FrameworkTest : public testing::Test {
 protected:
  FrameworkTest();
  // Everything traced (or asserted by the platform) since the last call.
  std::string TakeTrace() { return wdmsim::TakeDebugOutput(); }

  wdmsim::Kernel mKernel;
};

}  // namespace kntest
