// What the I/O manager tests build on: a driver whose devices dispatch to functions the
// test supplies, kernel threads a test can start and join, and violation messages.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <atomic>

#include <gtest/gtest.h>

#include <wdm.h>

#include <wdmsim/io.h>
#include <wdmsim/kernel.h>
#include <wdmsim/verifier.h>

#include "expect_violation.h"

namespace iotest {

using Dispatch = std::function<NTSTATUS(PDEVICE_OBJECT device, PIRP irp)>;

// Loads a driver on construction; every device it creates runs its own Dispatch for every
// major function. The destructor detaches and deletes the devices, newest first, and
// unloads the driver.
class TestDriver {
 public:
  explicit TestDriver(const std::u16string& serviceName = u"iotest");
  ~TestDriver();
  TestDriver(const TestDriver&) = delete;
  TestDriver& operator=(const TestDriver&) = delete;

  PDRIVER_OBJECT driver() const { return mDriver; }
  // A device attached on top of below's stack (when given), with extensionSize bytes of
  // extension for the test after the driver's own bookkeeping.
  PDEVICE_OBJECT AddDevice(Dispatch dispatch, PDEVICE_OBJECT below = nullptr, ULONG extensionSize = 0);
  // The test's part of the device extension.
  static void* Extension(PDEVICE_OBJECT device);
  // Detaches and deletes one device early.
  void RemoveDevice(PDEVICE_OBJECT device);

 private:
  PDRIVER_OBJECT mDriver = nullptr;
  std::vector<PDEVICE_OBJECT> mDevices;
};

// Dispatch behaviours.
Dispatch CompleteWith(NTSTATUS status, ULONG_PTR information = 0);
// Sends the request on to lower, reusing the current stack location.
Dispatch SkipTo(PDEVICE_OBJECT lower);

// A system thread (PsCreateSystemThread) running body; Join waits for it to end.
class SystemThread {
 public:
  explicit SystemThread(std::function<void()> body);
  ~SystemThread();
  void Join();

 private:
  static void NTAPI Start(PVOID context);
  std::function<void()> mBody;
  PVOID mThread = nullptr;
};

// A machine with a TestDriver loaded, and IRPs of the test's own.
class IoTest : public ::testing::Test {
 protected:
  // An IRP sized for top's stack with a read in its first location. Its completion routine
  // (by default one that counts in takeBacks) returns STATUS_MORE_PROCESSING_REQUIRED, so
  // the IRP stays with the test, which frees it.
  PIRP OwnIrp(PDEVICE_OBJECT top, PIO_COMPLETION_ROUTINE routine = nullptr, PVOID context = nullptr);

  wdmsim::Kernel kernel;
  TestDriver driver;
  std::atomic<int> takeBacks{0};
};

inline const char kIoViolation[] = "DRIVER_VERIFIER_IOMANAGER_VIOLATION";

// PnP answers of device's stack, freed after reading; empty when the query failed.
std::vector<std::u16string> QueryIds(PDEVICE_OBJECT device, BUS_QUERY_ID_TYPE type);
std::u16string QueryText(PDEVICE_OBJECT device, DEVICE_TEXT_TYPE type);

// Violations recorded since the last call whose bugcheck is bugcheck and whose message
// contains text.
int CountViolations(const std::vector<wdmsim::Violation>& violations, const std::string& bugcheck,
                    const std::string& text = std::string());

}  // namespace iotest
