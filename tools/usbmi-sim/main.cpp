// usbmi-sim: loads the usbmi driver into the simulated Windows kernel, puts it on a device,
// sends it a few requests the way the system would, removes the device, unloads the driver
// and prints what the driver traced and what the verifier found. Exit code 1 when the
// verifier found anything.
#include <ntddk.h>

#include <cstdio>
#include <string>
#include <vector>

#include <wdmsim/debugout.h>
#include <wdmsim/io.h>
#include <wdmsim/kernel.h>
#include <wdmsim/registry.h>
#include <wdmsim/verifier.h>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace {

const char16_t kServiceName[] = u"usbmi";
// Errors, warnings and milestones, and the flow of every request.
const ULONG kTraceMask = 0x7;

std::string Narrow(const std::u16string& text) { return std::string(text.begin(), text.end()); }

void PrintStatus(const char* request, NTSTATUS status) {
  printf("  %-34s status 0x%08X\n", request, static_cast<unsigned>(status));
}

void PrintResult(const char* request, const IO_STATUS_BLOCK& result) {
  printf("  %-34s status 0x%08X  information %llu\n", request, static_cast<unsigned>(result.Status),
         static_cast<unsigned long long>(result.Information));
}

// The hardware identifiers the stack reports: a multi-string that now belongs to us.
void PrintHardwareIds(PDEVICE_OBJECT device) {
  IO_STATUS_BLOCK result = wdmsim::SendPnpIrp(device, IRP_MN_QUERY_ID, [](IO_STACK_LOCATION& location) {
    location.Parameters.QueryId.IdType = BusQueryHardwareIDs;
  });
  PrintStatus("PnP IRP_MN_QUERY_ID (hardware)", result.Status);
  if (NT_SUCCESS(result.Status) && result.Information != 0) {
    const char16_t* id = reinterpret_cast<const char16_t*>(result.Information);
    for (; *id != 0; id += std::char_traits<char16_t>::length(id) + 1) {
      printf("    %s\n", Narrow(id).c_str());
    }
    ExFreePool(reinterpret_cast<PVOID>(result.Information));
  }
}

// One device's life under the driver: AddDevice, requests, removal.
void RunDevice(PDRIVER_OBJECT driver) {
  wdmsim::RawPdoOptions options;
  options.deviceId = u"USB\\VID_1234&PID_5678";
  options.hardwareIds = {u"USB\\VID_1234&PID_5678&REV_0100", u"USB\\VID_1234&PID_5678"};
  PDEVICE_OBJECT pdo = wdmsim::CreateRawPdo(options);

  NTSTATUS status = driver->DriverExtension->AddDevice(driver, pdo);
  PrintStatus("AddDevice", status);
  if (NT_SUCCESS(status)) {
    PrintResult("IRP_MJ_CREATE", wdmsim::SendIrpToStack(pdo, IRP_MJ_CREATE, 0, nullptr, STATUS_SUCCESS));
    PrintResult("IRP_MJ_READ", wdmsim::SendIrpToStack(pdo, IRP_MJ_READ, 0, nullptr, STATUS_SUCCESS));
    PrintResult("IRP_MJ_DEVICE_CONTROL", wdmsim::SendIrpToStack(pdo, IRP_MJ_DEVICE_CONTROL, 0, nullptr,
                                                                STATUS_SUCCESS));
    PrintHardwareIds(pdo);
    PrintResult("PnP IRP_MN_REMOVE_DEVICE", wdmsim::SendPnpIrp(pdo, IRP_MN_REMOVE_DEVICE));
  }
  wdmsim::DeleteRawPdo(pdo);
}

void PrintVerdict(const std::vector<wdmsim::Violation>& violations) {
  printf("\n== verifier\n");
  if (violations.empty()) {
    printf("  clean: no violation, no leak\n");
    return;
  }
  for (const wdmsim::Violation& v : violations) {
    printf("  %s: %s\n", v.bugcheck.c_str(), v.message.c_str());
  }
  printf("  %zu violation(s)\n", violations.size());
}

}  // namespace

int main() {
  // Violations are collected and printed at the end, after the machine's own shutdown
  // checks (pool, IRPs, devices left behind) have run too.
  wdmsim::SetViolationHandler([](const wdmsim::Violation&) {});
  std::string trace;
  {
    wdmsim::Kernel kernel;
    wdmsim::SetDebugSink(wdmsim::DebugSink::Memory);
    wdmsim::RegistrySetDword(wdmsim::ServiceKeyPath(kServiceName), u"TraceMask", kTraceMask);

    printf("== requests\n");
    NTSTATUS status = STATUS_SUCCESS;
    PDRIVER_OBJECT driver = wdmsim::LoadDriver(kServiceName, DriverEntry, &status);
    PrintStatus("DriverEntry", status);
    if (driver != nullptr) {
      RunDevice(driver);
      printf("  %-34s %s\n", "DriverUnload", wdmsim::UnloadDriver(driver) ? "done" : "refused");
    }
    trace = wdmsim::TakeDebugOutput();
  }
  printf("\n== driver trace (mask 0x%X)\n%s", static_cast<unsigned>(kTraceMask), trace.c_str());
  std::vector<wdmsim::Violation> violations = wdmsim::TakeViolations();
  PrintVerdict(violations);
  return violations.empty() ? 0 : 1;
}
