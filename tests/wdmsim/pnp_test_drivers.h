// What the PnP manager tests build on: small function and bus drivers that the PnP
// manager loads through INFs, with behaviours a test sets per service, a log of what
// their device objects saw, and INF text for them.
#pragma once
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdm.h>

#include <wdmsim/io.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pnpmanager.h>

namespace pnptest {

// How the FDOs of one service behave. A minor code listed in refuse is completed with
// that status instead of being passed down (for IRP_MN_START_DEVICE: after the lower
// stack started).
struct DriverBehaviour {
  NTSTATUS addDevice = STATUS_SUCCESS;
  std::map<UCHAR, NTSTATUS> refuse;
  // A bus driver: answers bus relations with these PDOs (raw PDOs the test created), each
  // referenced as the contract demands unless forgetReferences is set.
  bool bus = false;
  std::vector<PDEVICE_OBJECT> children;
  bool forgetReferences = false;
  // Virtual milliseconds the FDO spends in IRP_MN_START_DEVICE after the lower stack.
  ULONG startDelayMs = 0;
  // A faulty driver: passes IRP_MN_REMOVE_DEVICE down but keeps its device object.
  bool keepDeviceOnRemove = false;
};

// Registers the services' images (one DriverEntry shared by all) and keeps their
// behaviours and log. One at a time; destroy it before the Kernel.
class TestDrivers {
 public:
  TestDrivers();
  ~TestDrivers();
  DriverBehaviour& Add(const std::u16string& service);
  DriverBehaviour& Behaviour(const std::u16string& service);

  // "<service> <MINOR_NAME>" per PnP request an FDO received (with "+" appended when the
  // FDO handler starts and "-" when it returns, if tracing entries), "<service> AddDevice"
  // and "<service> Unload".
  std::vector<std::string> TakeLog();
  void TraceEntries(bool on);
  // FDOs of a service still alive.
  int LiveFdos(const std::u16string& service);
  // Detaches and deletes an FDO the driver kept (keepDeviceOnRemove).
  void DeleteKeptFdo(PDEVICE_OBJECT fdo);
};

// INF text with one NTamd64 model per (description, IDs) for service.
struct Model {
  std::string description;
  std::vector<std::string> ids;
};
std::string InfFor(const std::string& service, const std::vector<Model>& models, const std::string& hwAddReg = "");
// Installs it and fails the test on an error.
void Install(const std::string& service, const std::vector<Model>& models, const std::string& hwAddReg = "");

// A raw PDO with these IDs and texts whose bus reports UniqueID as given.
PDEVICE_OBJECT CreateDevice(const std::u16string& deviceId, const std::vector<std::u16string>& hardwareIds,
                            const std::vector<std::u16string>& compatibleIds = {}, const std::u16string& instanceId = u"",
                            bool uniqueId = false);

std::vector<std::string> Names(wdmsim::DeviceNodeId node);

// A machine with the test bus driver ("pnpbus", bound to WDMSIM\BUS) and the test
// function driver ("pnpfunc", bound to WDMSIM\FUNC) installed, and a raw PDO for the bus
// (deleted with the fixture: the test removes the bus's node first).
class BusTest : public ::testing::Test {
 protected:
  BusTest();
  ~BusTest() override;
  wdmsim::Kernel kernel;
  TestDrivers drivers;
  PDEVICE_OBJECT busPdo = nullptr;
};

}  // namespace pnptest
