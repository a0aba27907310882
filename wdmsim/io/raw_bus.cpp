// The raw bus: a bus driver with no hardware whose PDOs answer the PnP manager's questions
// from RawPdoOptions and succeed the state changes, so that tests can build device stacks.
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <wdmsim/io.h>
#include <wdmsim/verifier.h>

#include "io/device_references.h"
#include "io/driver_loading.h"
#include "io/irql_rules.h"
#include "io/raw_bus.h"

namespace wdmsim {
namespace io {
namespace {

constexpr ULONG kAnswerTag = 0x50776152;  // "RawP": pool blocks handed to the PnP manager

struct RawPdo {
  RawPdoOptions options;
  std::vector<RawPdoRequest> requests;
};

struct RawBus {
  std::mutex lock;
  PDRIVER_OBJECT driver = nullptr;
  std::map<const DEVICE_OBJECT*, std::unique_ptr<RawPdo>> pdos;
  unsigned long nextInstance = 1;
};

RawBus& bus() {
  static RawBus* b = new RawBus;
  return *b;
}

RawPdo* FindPdo(const DEVICE_OBJECT* pdo) {
  RawBus& b = bus();
  std::lock_guard<std::mutex> guard(b.lock);
  auto it = b.pdos.find(pdo);
  return it == b.pdos.end() ? nullptr : it->second.get();
}

void Log(RawPdo* raw, UCHAR major, UCHAR minor, NTSTATUS status) {
  RawBus& b = bus();
  std::lock_guard<std::mutex> guard(b.lock);
  raw->requests.push_back({major, minor, status});
}

// A PnP answer string in pool memory that the PnP manager frees. Each text is followed by
// its NUL; a multi-string gets one more NUL at the end.
NTSTATUS AnswerStrings(PIRP irp, const std::vector<std::u16string>& texts, bool multi) {
  size_t units = multi ? 1 : 0;
  for (const auto& text : texts) units += text.size() + 1;
  auto buffer = static_cast<PWCHAR>(ExAllocatePoolWithTag(PagedPool, units * sizeof(WCHAR), kAnswerTag));
  if (buffer == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  PWCHAR at = buffer;
  for (const auto& text : texts) {
    for (char16_t c : text) *at++ = c;
    *at++ = 0;
  }
  if (multi) *at = 0;
  irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(buffer);
  return STATUS_SUCCESS;
}

NTSTATUS AnswerText(PIRP irp, const std::u16string& text) {
  return text.empty() ? irp->IoStatus.Status : AnswerStrings(irp, {text}, false);
}

NTSTATUS QueryId(PIRP irp, const RawPdoOptions& options, BUS_QUERY_ID_TYPE type) {
  switch (type) {
    case BusQueryDeviceID:
      return AnswerStrings(irp, {options.deviceId}, false);
    case BusQueryHardwareIDs:
      return AnswerStrings(irp, options.hardwareIds.empty() ? std::vector<std::u16string>{options.deviceId}
                                                            : options.hardwareIds,
                           true);
    case BusQueryCompatibleIDs:
      return options.compatibleIds.empty() ? irp->IoStatus.Status : AnswerStrings(irp, options.compatibleIds, true);
    case BusQueryInstanceID:
      return AnswerStrings(irp, {options.instanceId}, false);
    default:
      return irp->IoStatus.Status;
  }
}

// A device without hardware: works in S0 only, cannot wake, survives surprise removal.
NTSTATUS QueryCapabilities(PIRP irp, PDEVICE_CAPABILITIES caps) {
  if (caps == nullptr || caps->Version != 1 || caps->Size < sizeof(DEVICE_CAPABILITIES)) return STATUS_UNSUCCESSFUL;
  caps->DeviceState[PowerSystemWorking] = PowerDeviceD0;
  for (int s = PowerSystemSleeping1; s < PowerSystemMaximum; ++s) caps->DeviceState[s] = PowerDeviceD3;
  caps->SystemWake = PowerSystemUnspecified;
  caps->DeviceWake = PowerDeviceUnspecified;
  caps->DeviceD1 = 0;
  caps->DeviceD2 = 0;
  caps->Removable = 1;
  caps->SurpriseRemovalOK = 1;
  caps->RawDeviceOK = 1;
  return STATUS_SUCCESS;
}

NTSTATUS TargetRelation(PIRP irp, PDEVICE_OBJECT pdo) {
  auto relations = static_cast<PDEVICE_RELATIONS>(ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS), kAnswerTag));
  if (relations == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  relations->Count = 1;
  relations->Objects[0] = pdo;
  ReferenceDeviceObject(pdo);  // the PnP manager drops it
  irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(relations);
  return STATUS_SUCCESS;
}

NTSTATUS OnPnp(PDEVICE_OBJECT pdo, const RawPdoOptions& options, PIRP irp, PIO_STACK_LOCATION stack) {
  switch (stack->MinorFunction) {
    case IRP_MN_START_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_REMOVE_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL:
      return STATUS_SUCCESS;
    case IRP_MN_QUERY_CAPABILITIES:
      return QueryCapabilities(irp, stack->Parameters.DeviceCapabilities.Capabilities);
    case IRP_MN_QUERY_ID:
      return QueryId(irp, options, stack->Parameters.QueryId.IdType);
    case IRP_MN_QUERY_DEVICE_TEXT:
      switch (stack->Parameters.QueryDeviceText.DeviceTextType) {
        case DeviceTextDescription: return AnswerText(irp, options.description);
        case DeviceTextLocationInformation: return AnswerText(irp, options.location);
      }
      return irp->IoStatus.Status;
    case IRP_MN_QUERY_DEVICE_RELATIONS:
      if (stack->Parameters.QueryDeviceRelations.Type == TargetDeviceRelation) return TargetRelation(irp, pdo);
      return irp->IoStatus.Status;
    default:
      // A bus driver leaves a request it does not handle as the layers above left it.
      return irp->IoStatus.Status;
  }
}

NTSTATUS NTAPI RawPdoDispatch(PDEVICE_OBJECT pdo, PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  UCHAR major = stack->MajorFunction;
  UCHAR minor = stack->MinorFunction;
  RawPdo* raw = FindPdo(pdo);
  if (raw == nullptr) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", pdo, "request for %p, which is not a raw PDO", (void*)pdo);
    irp->IoStatus.Status = STATUS_NO_SUCH_DEVICE;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_NO_SUCH_DEVICE;
  }
  NTSTATUS status;
  if (raw->options.hook && raw->options.hook(pdo, irp, &status)) {
    Log(raw, major, minor, status);
    return status;
  }
  switch (major) {
    case IRP_MJ_PNP:
      status = OnPnp(pdo, raw->options, irp, stack);
      break;
    case IRP_MJ_POWER:
      // Any power state is fine for no hardware; waking is not possible.
      status = minor == IRP_MN_SET_POWER || minor == IRP_MN_QUERY_POWER ? STATUS_SUCCESS : STATUS_NOT_SUPPORTED;
      break;
    default:
      status = STATUS_NOT_SUPPORTED;
      irp->IoStatus.Information = 0;
      break;
  }
  irp->IoStatus.Status = status;
  Log(raw, major, minor, status);
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

NTSTATUS NTAPI RawBusEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
  for (PDRIVER_DISPATCH& dispatch : driver->MajorFunction) dispatch = RawPdoDispatch;
  return STATUS_SUCCESS;
}

}  // namespace

void ForgetRawBus() {
  RawBus& b = bus();
  std::lock_guard<std::mutex> guard(b.lock);
  b.pdos.clear();
  b.driver = nullptr;
  b.nextInstance = 1;
}

}  // namespace io

PDEVICE_OBJECT CreateRawPdo(const RawPdoOptions& options) {
  io::IrqlAtMost(PASSIVE_LEVEL, "CreateRawPdo", nullptr);
  io::RawBus& b = io::bus();
  std::lock_guard<std::mutex> guard(b.lock);
  if (b.driver == nullptr) b.driver = io::LoadBuiltInDriver(u"wdmsim_rawbus", io::RawBusEntry);
  PDEVICE_OBJECT pdo;
  if (!NT_SUCCESS(IoCreateDevice(b.driver, 0, nullptr, FILE_DEVICE_UNKNOWN,
                                 FILE_AUTOGENERATED_DEVICE_NAME | FILE_DEVICE_SECURE_OPEN, FALSE, &pdo))) {
    return nullptr;
  }
  pdo->Flags |= DO_BUS_ENUMERATED_DEVICE;
  pdo->Flags &= ~DO_DEVICE_INITIALIZING;
  auto raw = std::make_unique<io::RawPdo>();
  raw->options = options;
  if (raw->options.instanceId.empty()) {
    std::string number = std::to_string(b.nextInstance++);
    raw->options.instanceId.assign(number.begin(), number.end());
  }
  b.pdos[pdo] = std::move(raw);
  return pdo;
}

void DeleteRawPdo(PDEVICE_OBJECT pdo) {
  io::IrqlAtMost(PASSIVE_LEVEL, "DeleteRawPdo", pdo);
  bool known;
  {
    io::RawBus& b = io::bus();
    std::lock_guard<std::mutex> guard(b.lock);
    known = b.pdos.erase(pdo) == 1;
  }
  if (!known) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", pdo, "DeleteRawPdo(%p): not a raw PDO", (void*)pdo);
    return;
  }
  IoDeleteDevice(pdo);
}

std::vector<RawPdoRequest> TakeRawPdoRequests(PDEVICE_OBJECT pdo) {
  io::RawBus& b = io::bus();
  std::lock_guard<std::mutex> guard(b.lock);
  std::vector<RawPdoRequest> out;
  auto it = b.pdos.find(pdo);
  if (it != b.pdos.end()) out.swap(it->second->requests);
  return out;
}

}  // namespace wdmsim
