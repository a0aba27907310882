// wdmsim host API: the PnP manager. It binds drivers to devices through installed INF
// files, loads driver images on demand, and sends the request sequences Windows sends
// when a device arrives, when a bus's children change, on rebalance, on orderly and
// surprise removal and on eject. Its work runs on one PnP kernel thread, so requests to a
// device node never overlap; the calls below either queue work and return, or queue it
// and wait for its outcome.
//
// Everything here belongs to the running machine: installed INFs, registered images and
// the device tree are forgotten when the Kernel is destroyed.
//
// Verifier reports (PNP_DETECTED_FATAL_ERROR): bus relations that name something that is
// not a device object, a PDO its driver already deleted, a PDO twice, or a PDO without the
// reference the answer must carry; invalid characters in IDs; two devices with one
// instance path; a PDO deleted on IRP_MN_REMOVE_DEVICE while its bus still reports it.
// DRIVER_VERIFIER_IOMANAGER_VIOLATION: a device object still attached above the PDO after
// IRP_MN_REMOVE_DEVICE. DRIVER_VERIFIER_DETECTED_VIOLATION: AddDevice returning with
// DO_DEVICE_INITIALIZING still set. Device and driver objects left at the end of the run
// are the I/O manager's reports (DEVICE_OBJECT_LEAK, DRIVER_OBJECT_LEAK).
#pragma once
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <wdm.h>

namespace wdmsim {

// ---------------------------------------------------------------- driver packages

// Where an INF is wrong: "file:line: message" (line 0 when no line is to blame).
struct InfError {
  std::string file;
  int line = 0;
  std::string message;
  std::string Text() const;
};

// Installs a driver package from INF text (ASCII or UTF-8). The INF must declare
// Signature "$Windows NT$" (or "$Chicago$") and NTamd64 models; for every model it
// resolves the install section (.NTamd64, .NT or undecorated), the .Services section and
// its AddService (flag 0x2 names the function driver), the .HW section, and each AddReg
// section. Service keys get Type, Start, ErrorControl, ImagePath, DisplayName and the
// service's AddReg (HKR = the service key) at once; a device's hardware key (HKR of
// .HW AddReg) and driver key (HKR of the install section's AddReg) are written when a
// device is bound to the model. On bad input nothing is installed and false is returned
// with *error set.
bool InstallInf(const std::string& fileName, const std::string& text, InfError* error = nullptr);
// Reads the file and installs it (its name in errors is the path as given).
bool InstallInfFile(const std::string& path, InfError* error = nullptr);

// The driver image of a service: its DriverEntry. The PnP manager loads the driver object
// (wdmsim::LoadDriver) the first time a device is bound to the service and unloads it when
// the service's last device has gone.
void RegisterDriverImage(const std::u16string& serviceName, PDRIVER_INITIALIZE entry);

// What the installed INFs offer for a device with these IDs: the best match ranks the
// device's hardware IDs before its compatible IDs and an earlier ID before a later one;
// on a tie the model's own hardware ID beats its compatible IDs, then the INF installed
// first wins. IDs compare case-insensitively.
struct DriverMatch {
  std::u16string service;
  std::u16string description;  // the model's device description
  std::u16string matchedId;    // the device's ID that matched
  std::u16string manufacturer;
  std::u16string className;
  std::u16string classGuid;
  std::string infFile;
};
std::optional<DriverMatch> FindDriver(const std::vector<std::u16string>& hardwareIds,
                                      const std::vector<std::u16string>& compatibleIds);

// ---------------------------------------------------------------- the device tree

using DeviceNodeId = uint64_t;  // 0 is no node

enum class DeviceNodeState {
  Initialized,      // reported; identity queried, no driver yet
  EnumerationFailed,  // no device ID, an invalid ID or a duplicate instance path
  DriverNotFound,   // no INF matches and the bus does not allow it raw
  AddFailed,        // DriverEntry or AddDevice failed, or the image is not registered
  StartFailed,      // the stack failed IRP_MN_START_DEVICE and was sent a remove
  Started,
  QueryStopped,     // query-stop succeeded (rebalance in progress)
  Stopped,          // stopped for rebalance
  QueryRemoved,     // query-remove succeeded (removal in progress)
  SurpriseRemoved,
  Removed,          // remove sent; the bus still reports the device
  Deleted,          // no longer in the tree
};
const char* DeviceNodeStateName(DeviceNodeState state);

// One request the PnP manager made of a node, in order: every PnP IRP it sent to the top
// of the node's stack, and the AddDevice call. Names: "QUERY_ID DeviceID",
// "QUERY_ID InstanceID", "QUERY_ID HardwareIDs", "QUERY_ID CompatibleIDs",
// "QUERY_CAPABILITIES", "QUERY_DEVICE_TEXT Description", "QUERY_DEVICE_TEXT Location",
// "QUERY_BUS_INFORMATION", "QUERY_RESOURCES", "QUERY_RESOURCE_REQUIREMENTS",
// "AddDevice <service>", "FILTER_RESOURCE_REQUIREMENTS", "START_DEVICE",
// "QUERY_PNP_DEVICE_STATE", "QUERY_DEVICE_RELATIONS BusRelations", "QUERY_STOP_DEVICE",
// "STOP_DEVICE", "CANCEL_STOP_DEVICE", "QUERY_REMOVE_DEVICE", "CANCEL_REMOVE_DEVICE",
// "SURPRISE_REMOVAL", "REMOVE_DEVICE", "EJECT".
struct PnpRequestRecord {
  std::string name;
  NTSTATUS status;  // the final status (the AddDevice result for AddDevice)
};

struct DeviceNodeInfo {
  DeviceNodeId id = 0;
  DeviceNodeId parent = 0;              // 0 for a root-enumerated device
  std::vector<DeviceNodeId> children;   // in the order of the bus's last answer
  PDEVICE_OBJECT pdo = nullptr;
  std::u16string deviceId;
  std::u16string busInstanceId;         // the bus's answer to the instance ID query
  std::u16string instanceId;            // as the node keeps it (with a parent prefix when not unique)
  std::u16string instancePath;          // deviceId + "\" + instanceId
  std::vector<std::u16string> hardwareIds;
  std::vector<std::u16string> compatibleIds;
  std::u16string busDescription;        // DeviceTextDescription as the bus answered (empty if none)
  std::u16string location;              // DeviceTextLocationInformation (empty if none)
  std::u16string description;           // DevicePropertyDeviceDescription: the INF model's, else the bus's
  std::u16string service;               // bound function driver service (empty if none)
  DEVICE_CAPABILITIES capabilities = {};
  ULONG pnpDeviceState = 0;             // last IRP_MN_QUERY_PNP_DEVICE_STATE answer
  DeviceNodeState state = DeviceNodeState::Initialized;
  NTSTATUS problemStatus = STATUS_SUCCESS;  // why AddFailed or StartFailed
  std::vector<PnpRequestRecord> requests;
};

// Reports a device that the root bus enumerates (no parent node). The PnP thread queries
// it, binds and loads its driver, starts it and enumerates its children. The PnP manager
// holds a reference on the PDO until the node is deleted. PASSIVE_LEVEL.
DeviceNodeId ReportRootDevice(PDEVICE_OBJECT pdo);

// Called on the PnP thread each time a device is bound to a driver, after the INF's
// registry entries and before AddDevice, with the node and its hardware key path: what a
// user set in the device's "Device Parameters" earlier takes effect here, as it would for
// an instance that Windows has seen before. An empty function removes the hook.
using DeviceInstallHook = std::function<void(const DeviceNodeInfo& node, const std::u16string& hardwareKeyPath)>;
void SetDeviceInstallHook(DeviceInstallHook hook);

// Waits until the PnP manager has no queued or running work and the machine is idle
// (relation invalidations that drivers made meanwhile are processed too).
void WaitForPnpIdle();

// Operations a user or the hardware starts. Run... queues the operation and waits for its
// outcome; Queue... returns at once (WaitForPnpIdle waits for it).
enum class PnpOperation {
  // Query-remove to the node's subtree (children first); a refusal is answered with
  // cancel-remove to every node that was asked, else remove to the subtree (children
  // first). The node stays in the tree as Removed; its descendants are deleted.
  QueryRemove,
  // Query-stop; on success stop and start again (then capabilities, device state and bus
  // relations as after arrival); on refusal cancel-stop.
  Rebalance,
  // A root-enumerated device vanished: surprise removal to the started nodes of its
  // subtree, then remove to every node (children first); the node is deleted. The caller
  // deletes the PDO afterwards. Only for root devices.
  SurpriseRemoval,
  // Query-remove and remove as above, then IRP_MN_EJECT to the node's PDO.
  Eject,
  // Ask the node's stack for its bus relations again (as IoInvalidateDeviceRelations).
  Reenumerate,
};
// STATUS_SUCCESS, the status that refused the operation, STATUS_INVALID_DEVICE_STATE when
// the node is not in a state for it, or STATUS_NO_SUCH_DEVICE for an unknown node.
NTSTATUS RunPnpOperation(PnpOperation operation, DeviceNodeId node);
void QueuePnpOperation(PnpOperation operation, DeviceNodeId node);

// ---------------------------------------------------------------- inspection

// A deleted node stays readable (state Deleted, out of the tree) until the run ends, so
// that the requests it saw can be checked after it went.
std::optional<DeviceNodeInfo> GetDeviceNode(DeviceNodeId node);
// Nodes in the tree only (0 when none).
DeviceNodeId FindDeviceNodeByPdo(const DEVICE_OBJECT* pdo);
DeviceNodeId FindDeviceNodeByInstancePath(const std::u16string& instancePath);
std::vector<DeviceNodeId> RootDeviceNodes();
// Every node in the tree, parents before their children, siblings in order.
std::vector<DeviceNodeInfo> DeviceTree();
// The request names a node has seen (PnpRequestRecord::name), oldest first.
std::vector<std::string> DeviceNodeRequestNames(DeviceNodeId node);

}  // namespace wdmsim
