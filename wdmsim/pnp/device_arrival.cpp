// Arrival of a device node and enumeration of a bus: the order Windows follows when a
// device appears (identity queries, driver binding, AddDevice, resource filtering,
// start, then capabilities, device state and bus relations again).
#include <algorithm>

#include <wdmsim/io.h>
#include <wdmsim/pnp.h>
#include <wdmsim/verifier.h>

#include "pnp/device_actions.h"
#include "pnp/device_identity.h"
#include "pnp/device_install_hook.h"
#include "pnp/driver_images.h"
#include "pnp/driver_store.h"
#include "pnp/inf_file.h"
#include "pnp/pnp_requests.h"
#include "pnp/pnp_thread.h"

namespace wdmsim {
namespace pnp {
namespace {

// The bound model's texts and registry entries, written before the driver sees the device.
void InstallModel(Node* node, const BoundModel& bound) {
  UpdateTree([&] {
    node->info.service = bound.match.service;
    node->info.description = bound.match.description;
  });
  PublishIdentity(node);
  PDEVICE_OBJECT pdo = node->info.pdo;
  SetDeviceStringProperty(pdo, DevicePropertyClassName, bound.match.className);
  SetDeviceStringProperty(pdo, DevicePropertyClassGuid, bound.match.classGuid);
  SetDeviceStringProperty(pdo, DevicePropertyManufacturer, bound.match.manufacturer);
  ApplyRegistryEntries(bound.hardwareKeyAddReg, DeviceHardwareKeyPath(pdo));
  ApplyRegistryEntries(bound.driverKeyAddReg, DeviceDriverKeyPath(pdo));
  RunDeviceInstallHook(node);
}

// AddDevice of the function driver; false (node AddFailed) when it cannot be loaded or
// its AddDevice fails.
bool AddFunctionDriver(Node* node) {
  NTSTATUS status = STATUS_SUCCESS;
  PDRIVER_OBJECT driver = LoadServiceDriver(node->info.service, &status);
  if (driver == nullptr) {
    SetState(node, DeviceNodeState::AddFailed, status);
    return false;
  }
  PDRIVER_ADD_DEVICE addDevice = driver->DriverExtension->AddDevice;
  status = addDevice != nullptr ? addDevice(driver, node->info.pdo) : STATUS_NOT_SUPPORTED;
  Record(node, "AddDevice " + Utf8FromUtf16(node->info.service), status);
  if (!NT_SUCCESS(status)) {
    SetState(node, DeviceNodeState::AddFailed, status);
    UnloadUnusedDrivers();
    return false;
  }
  PDEVICE_OBJECT top = IoGetAttachedDeviceReference(node->info.pdo);
  if (top != nullptr) {
    if (top != node->info.pdo && (top->Flags & DO_DEVICE_INITIALIZING)) {
      ReportViolation("DRIVER_VERIFIER_DETECTED_VIOLATION", top,
                      "AddDevice of %s returned with DO_DEVICE_INITIALIZING still set on device object %p",
                      Utf8FromUtf16(node->info.service).c_str(), (void*)top);
    }
    ObDereferenceObject(top);
  }
  return true;
}

// Start of a stack whose drivers are all added; on failure the stack is sent a remove
// and the node keeps the status.
void StartStack(Node* node) {
  QueryAndDiscard(node, IRP_MN_FILTER_RESOURCE_REQUIREMENTS);
  NTSTATUS status = SendStateRequest(node, IRP_MN_START_DEVICE);
  if (!NT_SUCCESS(status)) {
    // A failed start is followed by a remove so that every driver undoes its AddDevice.
    SendStateRequest(node, IRP_MN_REMOVE_DEVICE);
    SetState(node, DeviceNodeState::StartFailed, status);
    UnloadUnusedDrivers();
    return;
  }
  SetState(node, DeviceNodeState::Started);
  AfterStart(node);
}

// The PnP manager owns one reference per node; an answer must bring one per object.
bool CheckReported(Node* bus, PDEVICE_OBJECT pdo, Node* known) {
  if (!IsLiveDeviceObject(pdo)) {
    ReportViolation("PNP_DETECTED_FATAL_ERROR", pdo,
                    "bus relations of device object %p report %p, which is not a device object (invalid PDO)",
                    (void*)bus->info.pdo, (void*)pdo);
    return false;
  }
  if (IsDeletePending(pdo)) {
    ReportViolation("PNP_DETECTED_FATAL_ERROR", pdo,
                    "bus relations of device object %p report PDO %p, which its driver already deleted",
                    (void*)bus->info.pdo, (void*)pdo);
  }
  long needed = known != nullptr ? 2 : 1;
  if (DeviceObjectReferences(pdo) < needed) {
    ReportViolation("PNP_DETECTED_FATAL_ERROR", pdo,
                    "bus relations of device object %p report PDO %p without taking a reference for it",
                    (void*)bus->info.pdo, (void*)pdo);
    ObReferenceObject(pdo);  // keeps the count right for what follows
  }
  return true;
}

}  // namespace

void ArriveAndStart(Node* node) {
  if (!QueryIdentity(node)) return;
  auto bound = BindModel(node->info.hardwareIds, node->info.compatibleIds);
  if (!bound) {
    PublishIdentity(node);
    // Without a function driver only a bus that allows raw use gets the device started.
    if (node->info.capabilities.RawDeviceOK) {
      StartStack(node);
    } else {
      SetState(node, DeviceNodeState::DriverNotFound, STATUS_SUCCESS);
    }
    return;
  }
  InstallModel(node, *bound);
  if (AddFunctionDriver(node)) StartStack(node);
}

void AfterStart(Node* node) {
  DEVICE_CAPABILITIES caps;
  if (QueryCapabilities(node, &caps)) UpdateTree([&] { node->info.capabilities = caps; });
  if (auto state = QueryPnpDeviceState(node)) UpdateTree([&] { node->info.pnpDeviceState = *state; });
  EnumerateChildren(node);
}

void EnumerateChildren(Node* node) {
  DropQueuedEnumerations(node);
  auto reported = QueryBusRelations(node);
  if (!reported) return;  // a failed query changes nothing

  std::vector<Node*> order;
  std::vector<Node*> arrived;
  std::vector<PDEVICE_OBJECT> seen;
  for (PDEVICE_OBJECT pdo : *reported) {
    Node* known = nullptr;
    for (Node* child : node->children) {
      if (child->info.pdo == pdo) known = child;
    }
    if (std::find(seen.begin(), seen.end(), pdo) != seen.end()) {
      ReportViolation("PNP_DETECTED_FATAL_ERROR", pdo, "bus relations of device object %p report PDO %p twice",
                      (void*)node->info.pdo, (void*)pdo);
      ObDereferenceObject(pdo);
      continue;
    }
    if (!CheckReported(node, pdo, known)) continue;
    seen.push_back(pdo);
    if (known != nullptr) {
      ObDereferenceObject(pdo);  // the node already holds its reference
      order.push_back(known);
      continue;
    }
    pdo->Flags |= DO_BUS_ENUMERATED_DEVICE;
    Node* child = CreateNode(pdo, node);
    order.push_back(child);
    arrived.push_back(child);
  }
  // Children that are no longer reported go first, so that a device that comes back with
  // the same identity finds its instance path free.
  std::vector<Node*> missing;
  for (Node* child : node->children) {
    if (std::find(order.begin(), order.end(), child) == order.end()) missing.push_back(child);
  }
  for (Node* child : missing) RemoveMissing(child);
  UpdateTree([&] { node->children = order; });
  for (Node* child : arrived) ArriveAndStart(child);
}

}  // namespace pnp
}  // namespace wdmsim
