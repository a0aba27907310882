// Driver objects: loading (DriverEntry), the system's default dispatch routine, unloading.
#include <cstdlib>
#include <cstring>

#include <wdmsim/io.h>
#include <wdmsim/registry.h>
#include <wdmsim/verifier.h>

#include "io/driver_loading.h"
#include "io/irql_rules.h"
#include "io/object_table.h"

namespace wdmsim {
namespace io {
namespace {

const char16_t kServicesKey[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\";
WCHAR kHardwareDatabaseText[] = L"\\REGISTRY\\MACHINE\\HARDWARE\\DESCRIPTION\\SYSTEM";
UNICODE_STRING kHardwareDatabase = {sizeof(kHardwareDatabaseText) - sizeof(WCHAR), sizeof(kHardwareDatabaseText),
                                    kHardwareDatabaseText};

// What every major function does until the driver sets its own routine.
NTSTATUS NTAPI InvalidDeviceRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  if (IoGetCurrentIrpStackLocation(Irp)->MajorFunction == IRP_MJ_POWER) {
    PoStartNextPowerIrp(Irp);
  }
  Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
  Irp->IoStatus.Information = 0;
  IoCompleteRequest(Irp, IO_NO_INCREMENT);
  return STATUS_INVALID_DEVICE_REQUEST;
}

UNICODE_STRING Counted(const std::u16string& text) {
  UNICODE_STRING s;
  s.Length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
  s.MaximumLength = static_cast<USHORT>(s.Length + sizeof(WCHAR));
  s.Buffer = reinterpret_cast<PWSTR>(const_cast<char16_t*>(text.c_str()));
  return s;
}

PDRIVER_OBJECT CreateDriverObject(const std::u16string& serviceName, PDRIVER_INITIALIZE entry, bool builtIn) {
  auto driver = static_cast<PDRIVER_OBJECT>(std::calloc(1, sizeof(DRIVER_OBJECT) + sizeof(DRIVER_EXTENSION)));
  driver->Type = IO_TYPE_DRIVER;
  driver->Size = sizeof(DRIVER_OBJECT);
  driver->DriverExtension = reinterpret_cast<PDRIVER_EXTENSION>(driver + 1);
  driver->DriverExtension->DriverObject = driver;
  driver->DriverInit = entry;
  driver->HardwareDatabase = &kHardwareDatabase;
  for (PDRIVER_DISPATCH& dispatch : driver->MajorFunction) dispatch = InvalidDeviceRequest;

  ObjectTable& table = Objects();
  std::lock_guard<std::mutex> guard(table.lock);
  DriverRecord& record = table.drivers[driver];
  record.serviceName = serviceName;
  record.driverName = u"\\Driver\\" + serviceName;
  record.builtIn = builtIn;
  driver->DriverExtension->ServiceKeyName = Counted(record.serviceName);
  driver->DriverName = Counted(record.driverName);
  return driver;
}

PDRIVER_OBJECT Load(const std::u16string& serviceName, PDRIVER_INITIALIZE entry, bool builtIn, NTSTATUS* status) {
  PDRIVER_OBJECT driver = CreateDriverObject(serviceName, entry, builtIn);

  // The path is the system's and lives only for the call, as on Windows: a driver that
  // keeps the pointer instead of copying the text reads garbage afterwards.
  std::u16string path = ServiceKeyPath(serviceName);
  size_t bytes = (path.size() + 1) * sizeof(WCHAR);
  auto buffer = static_cast<PWSTR>(std::malloc(bytes));
  memcpy(buffer, path.c_str(), bytes);
  UNICODE_STRING registryPath = {static_cast<USHORT>(bytes - sizeof(WCHAR)), static_cast<USHORT>(bytes), buffer};
  NTSTATUS result = entry(driver, &registryPath);
  memset(buffer, 0xDD, bytes);
  std::free(buffer);
  if (status != nullptr) *status = result;
  if (NT_SUCCESS(result)) return driver;

  PDEVICE_OBJECT leftOver;
  {
    ObjectTable& table = Objects();
    std::lock_guard<std::mutex> guard(table.lock);
    leftOver = driver->DeviceObject;
    if (leftOver == nullptr) table.drivers.erase(driver);
  }
  if (leftOver == nullptr) {
    FreeDriverObject(driver);
  } else {
    // Kept: the device objects point at it. The end of the run reports both.
    ReportViolation("DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS", driver,
                    "DriverEntry of %s failed with 0x%08x but left device object %p behind",
                    Narrow(serviceName).c_str(), (unsigned)result, (void*)leftOver);
  }
  return nullptr;
}

}  // namespace

void FreeDriverObject(PDRIVER_OBJECT driver) {
  memset(driver, 0xDD, sizeof(DRIVER_OBJECT) + sizeof(DRIVER_EXTENSION));
  std::free(driver);
}

PDRIVER_OBJECT LoadBuiltInDriver(const std::u16string& name, PDRIVER_INITIALIZE entry) {
  return Load(name, entry, true, nullptr);
}

}  // namespace io

std::u16string ServiceKeyPath(const std::u16string& serviceName) { return io::kServicesKey + serviceName; }

PDRIVER_OBJECT LoadDriver(const std::u16string& serviceName, PDRIVER_INITIALIZE entry, NTSTATUS* status) {
  io::IrqlAtMost(PASSIVE_LEVEL, "LoadDriver", nullptr);
  std::u16string path = ServiceKeyPath(serviceName);
  if (!RegistryKeyExists(path)) RegistryCreateKey(path);
  return io::Load(serviceName, entry, false, status);
}

bool UnloadDriver(PDRIVER_OBJECT driver) {
  io::IrqlAtMost(PASSIVE_LEVEL, "UnloadDriver", driver);
  io::ObjectTable& table = io::Objects();
  std::string name;
  PDEVICE_OBJECT remaining = nullptr;
  bool known;
  {
    std::lock_guard<std::mutex> guard(table.lock);
    auto it = table.drivers.find(driver);
    known = it != table.drivers.end() && !it->second.unloading;
    if (known) {
      name = io::Narrow(it->second.serviceName);
      remaining = driver->DeviceObject;
      if (remaining == nullptr) it->second.unloading = true;
    }
  }
  if (!known) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", driver, "UnloadDriver(%p): not a loaded driver object",
                    (void*)driver);
    return false;
  }
  if (remaining == nullptr) {
    if (driver->DriverUnload != nullptr) driver->DriverUnload(driver);
    std::lock_guard<std::mutex> guard(table.lock);
    remaining = driver->DeviceObject;
    if (remaining == nullptr) {
      table.drivers.erase(driver);
    } else {
      table.drivers[driver].unloading = false;
    }
  }
  if (remaining != nullptr) {
    // Windows defers the unload until the last device object is gone; here that is a
    // device object the test or the driver forgot.
    ReportViolation("DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS", driver,
                    "driver %s cannot be unloaded: its device object %p still exists", name.c_str(),
                    (void*)remaining);
    return false;
  }
  io::FreeDriverObject(driver);
  return true;
}

}  // namespace wdmsim
