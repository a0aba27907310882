// PnP requests to a node's stack. Every one is a new IRP to the top of the stack with
// IoStatus.Status preset to STATUS_NOT_SUPPORTED (wdmsim::SendPnpIrp), sent from the PnP
// thread at PASSIVE_LEVEL; answers in pool memory are copied and freed here.
#include "pnp/pnp_requests.h"

#include <wdmsim/io.h>
#include <wdmsim/verifier.h>

namespace wdmsim {
namespace pnp {
namespace {

const char* IdTypeName(BUS_QUERY_ID_TYPE type) {
  switch (type) {
    case BusQueryDeviceID: return "DeviceID";
    case BusQueryHardwareIDs: return "HardwareIDs";
    case BusQueryCompatibleIDs: return "CompatibleIDs";
    case BusQueryInstanceID: return "InstanceID";
    case BusQueryDeviceSerialNumber: return "DeviceSerialNumber";
    case BusQueryContainerID: return "ContainerID";
  }
  return "?";
}

IO_STATUS_BLOCK Send(Node* node, UCHAR minor, const std::string& name,
                     const std::function<void(IO_STACK_LOCATION&)>& setup = nullptr) {
  IO_STATUS_BLOCK result = SendPnpIrp(node->info.pdo, minor, setup);
  Record(node, name, result.Status);
  return result;
}

// Strings of an answer block: one string, or a list closed by an empty string.
std::vector<std::u16string> TakeStrings(ULONG_PTR information, bool list) {
  std::vector<std::u16string> strings;
  auto at = reinterpret_cast<const char16_t*>(information);
  for (;;) {
    std::u16string text(at);
    at += text.size() + 1;
    if (list && text.empty()) break;
    strings.push_back(text);
    if (!list) break;
  }
  ExFreePool(reinterpret_cast<PVOID>(information));
  return strings;
}

std::optional<std::vector<std::u16string>> QueryIdAnswer(Node* node, BUS_QUERY_ID_TYPE type, bool list) {
  IO_STATUS_BLOCK answer = Send(node, IRP_MN_QUERY_ID, std::string("QUERY_ID ") + IdTypeName(type),
                                [type](IO_STACK_LOCATION& stack) { stack.Parameters.QueryId.IdType = type; });
  if (!NT_SUCCESS(answer.Status) || answer.Information == 0) return std::nullopt;
  return TakeStrings(answer.Information, list);
}

}  // namespace

const char* MinorFunctionName(UCHAR minorFunction) {
  switch (minorFunction) {
    case IRP_MN_START_DEVICE: return "START_DEVICE";
    case IRP_MN_QUERY_REMOVE_DEVICE: return "QUERY_REMOVE_DEVICE";
    case IRP_MN_REMOVE_DEVICE: return "REMOVE_DEVICE";
    case IRP_MN_CANCEL_REMOVE_DEVICE: return "CANCEL_REMOVE_DEVICE";
    case IRP_MN_STOP_DEVICE: return "STOP_DEVICE";
    case IRP_MN_QUERY_STOP_DEVICE: return "QUERY_STOP_DEVICE";
    case IRP_MN_CANCEL_STOP_DEVICE: return "CANCEL_STOP_DEVICE";
    case IRP_MN_QUERY_DEVICE_RELATIONS: return "QUERY_DEVICE_RELATIONS";
    case IRP_MN_QUERY_CAPABILITIES: return "QUERY_CAPABILITIES";
    case IRP_MN_QUERY_RESOURCES: return "QUERY_RESOURCES";
    case IRP_MN_QUERY_RESOURCE_REQUIREMENTS: return "QUERY_RESOURCE_REQUIREMENTS";
    case IRP_MN_QUERY_DEVICE_TEXT: return "QUERY_DEVICE_TEXT";
    case IRP_MN_FILTER_RESOURCE_REQUIREMENTS: return "FILTER_RESOURCE_REQUIREMENTS";
    case IRP_MN_EJECT: return "EJECT";
    case IRP_MN_QUERY_ID: return "QUERY_ID";
    case IRP_MN_QUERY_PNP_DEVICE_STATE: return "QUERY_PNP_DEVICE_STATE";
    case IRP_MN_QUERY_BUS_INFORMATION: return "QUERY_BUS_INFORMATION";
    case IRP_MN_SURPRISE_REMOVAL: return "SURPRISE_REMOVAL";
  }
  return "?";
}

NTSTATUS SendStateRequest(Node* node, UCHAR minorFunction) {
  NTSTATUS status = Send(node, minorFunction, MinorFunctionName(minorFunction)).Status;
  // After a remove only the bus driver's PDO may be left: every driver above detaches and
  // deletes its device object while handling it.
  PDEVICE_OBJECT above = node->info.pdo->AttachedDevice;
  if (minorFunction == IRP_MN_REMOVE_DEVICE && above != nullptr) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", above,
                    "device object %p is still attached above PDO %p after IRP_MN_REMOVE_DEVICE", (void*)above,
                    (void*)node->info.pdo);
  }
  return status;
}

std::optional<std::u16string> QueryIdString(Node* node, BUS_QUERY_ID_TYPE type) {
  auto strings = QueryIdAnswer(node, type, false);
  if (!strings) return std::nullopt;
  return strings->front();
}

std::vector<std::u16string> QueryIdList(Node* node, BUS_QUERY_ID_TYPE type) {
  auto strings = QueryIdAnswer(node, type, true);
  return strings ? *strings : std::vector<std::u16string>();
}

std::optional<std::u16string> QueryText(Node* node, DEVICE_TEXT_TYPE type) {
  const char* name = type == DeviceTextDescription ? "QUERY_DEVICE_TEXT Description" : "QUERY_DEVICE_TEXT Location";
  IO_STATUS_BLOCK answer = Send(node, IRP_MN_QUERY_DEVICE_TEXT, name, [type](IO_STACK_LOCATION& stack) {
    stack.Parameters.QueryDeviceText.DeviceTextType = type;
    stack.Parameters.QueryDeviceText.LocaleId = 0x409;
  });
  if (!NT_SUCCESS(answer.Status) || answer.Information == 0) return std::nullopt;
  return TakeStrings(answer.Information, false).front();
}

bool QueryCapabilities(Node* node, DEVICE_CAPABILITIES* caps) {
  *caps = DEVICE_CAPABILITIES();
  caps->Size = sizeof(DEVICE_CAPABILITIES);
  caps->Version = 1;
  caps->Address = 0xFFFFFFFF;
  caps->UINumber = 0xFFFFFFFF;
  IO_STATUS_BLOCK answer = Send(node, IRP_MN_QUERY_CAPABILITIES, "QUERY_CAPABILITIES",
                                [caps](IO_STACK_LOCATION& stack) { stack.Parameters.DeviceCapabilities.Capabilities = caps; });
  return NT_SUCCESS(answer.Status);
}

void QueryAndDiscard(Node* node, UCHAR minorFunction) {
  IO_STATUS_BLOCK answer = Send(node, minorFunction, MinorFunctionName(minorFunction));
  if (NT_SUCCESS(answer.Status) && answer.Information != 0) ExFreePool(reinterpret_cast<PVOID>(answer.Information));
}

std::optional<ULONG> QueryPnpDeviceState(Node* node) {
  IO_STATUS_BLOCK answer = Send(node, IRP_MN_QUERY_PNP_DEVICE_STATE, "QUERY_PNP_DEVICE_STATE");
  if (!NT_SUCCESS(answer.Status)) return std::nullopt;
  return static_cast<ULONG>(answer.Information);
}

std::optional<std::vector<PDEVICE_OBJECT>> QueryBusRelations(Node* node) {
  IO_STATUS_BLOCK answer = Send(node, IRP_MN_QUERY_DEVICE_RELATIONS, "QUERY_DEVICE_RELATIONS BusRelations",
                                [](IO_STACK_LOCATION& stack) { stack.Parameters.QueryDeviceRelations.Type = BusRelations; });
  if (!NT_SUCCESS(answer.Status)) return std::nullopt;
  std::vector<PDEVICE_OBJECT> objects;
  if (answer.Information == 0) return objects;
  auto relations = reinterpret_cast<PDEVICE_RELATIONS>(answer.Information);
  objects.assign(relations->Objects, relations->Objects + relations->Count);
  ExFreePool(relations);
  return objects;
}

}  // namespace pnp
}  // namespace wdmsim
