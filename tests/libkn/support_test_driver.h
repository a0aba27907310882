// The driver class of the framework's tests: libkn needs a CreateDriverInstance, and the
// tests decide through TestDriverSettings how the driver's entry, AddDevice and unload go.
#pragma once

#include <ntddk.h>

#include <functional>
#include <string>

#include "kndriverobject.h"

namespace kntest {

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

}  // namespace kntest
