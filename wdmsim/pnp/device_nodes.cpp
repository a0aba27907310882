// Device nodes: the PnP manager's per-PDO record behind IoOpenDeviceRegistryKey,
// IoGetDeviceProperty and IoInvalidateDeviceRelations.
#include <cstring>
#include <map>
#include <mutex>

#include <wdm.h>
#include <wdmsim/pnp.h>
#include <wdmsim/registry.h>
#include <wdmsim/verifier.h>

#include "pnp/device_install_hook.h"

#include "pnp/device_tree.h"
#include "pnp/driver_images.h"
#include "pnp/driver_store.h"
#include "pnp/pnp_thread.h"

namespace wdmsim {
namespace pnp {
namespace {

struct DeviceNode {
  std::u16string instancePath;
  // Property bytes exactly as IoGetDeviceProperty copies them out.
  std::map<int, std::vector<uint8_t>> properties;
};

struct NodeTable {
  std::mutex lock;
  std::map<const DEVICE_OBJECT*, DeviceNode> nodes;
  std::vector<RelationInvalidation> invalidations;
};

NodeTable& table() {
  static NodeTable* t = new NodeTable;
  return *t;
}

const char16_t kEnumRoot[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Enum\\";
const char16_t kClassRoot[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Class\\";

std::vector<uint8_t> Utf16Bytes(const std::u16string& text) {
  std::vector<uint8_t> bytes((text.size() + 1) * 2, 0);
  std::memcpy(bytes.data(), text.data(), text.size() * 2);
  return bytes;
}

void SetProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, std::vector<uint8_t> bytes) {
  std::lock_guard<std::mutex> guard(table().lock);
  table().nodes[pdo].properties[property] = std::move(bytes);
}

// Creates every missing key along an absolute path, as installing the device would have.
void EnsureKeyPath(const std::u16string& path) {
  for (size_t pos = path.find(u'\\', 1); pos != std::u16string::npos; pos = path.find(u'\\', pos + 1)) {
    RegistryCreateKey(path.substr(0, pos));
  }
  RegistryCreateKey(path);
}

}  // namespace

void EndOfRun() {
  ForgetPnpThread();
  ForgetDeviceTree();
  ForgetDriverImages();
  ForgetDriverStore();
  ForgetDeviceInstallHook();
  std::lock_guard<std::mutex> guard(table().lock);
  table().nodes.clear();
  table().invalidations.clear();
}

}  // namespace pnp

void RegisterDeviceNode(PDEVICE_OBJECT pdo, const std::u16string& instancePath) {
  std::lock_guard<std::mutex> guard(pnp::table().lock);
  pnp::table().nodes[pdo].instancePath = instancePath;
}

void ForgetDeviceNode(PDEVICE_OBJECT pdo) {
  std::lock_guard<std::mutex> guard(pnp::table().lock);
  pnp::table().nodes.erase(pdo);
}

bool IsDeviceNode(const DEVICE_OBJECT* pdo) {
  std::lock_guard<std::mutex> guard(pnp::table().lock);
  auto it = pnp::table().nodes.find(pdo);
  return it != pnp::table().nodes.end() && !it->second.instancePath.empty();
}

std::u16string DeviceHardwareKeyPath(const DEVICE_OBJECT* pdo) {
  std::lock_guard<std::mutex> guard(pnp::table().lock);
  auto it = pnp::table().nodes.find(pdo);
  if (it == pnp::table().nodes.end()) return std::u16string();
  return pnp::kEnumRoot + it->second.instancePath + u"\\Device Parameters";
}

std::u16string DeviceDriverKeyPath(const DEVICE_OBJECT* pdo) {
  std::lock_guard<std::mutex> guard(pnp::table().lock);
  auto it = pnp::table().nodes.find(pdo);
  if (it == pnp::table().nodes.end()) return std::u16string();
  return pnp::kClassRoot + it->second.instancePath;
}

void SetDeviceStringProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, const std::u16string& value) {
  pnp::SetProperty(pdo, property, pnp::Utf16Bytes(value));
}

void SetDeviceMultiStringProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property,
                                  const std::vector<std::u16string>& values) {
  std::vector<uint8_t> bytes;
  for (const auto& value : values) {
    auto one = pnp::Utf16Bytes(value);
    bytes.insert(bytes.end(), one.begin(), one.end());
  }
  bytes.push_back(0);
  bytes.push_back(0);
  pnp::SetProperty(pdo, property, std::move(bytes));
}

void SetDeviceNumberProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, ULONG value) {
  std::vector<uint8_t> bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  pnp::SetProperty(pdo, property, std::move(bytes));
}

void ClearDeviceProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property) {
  std::lock_guard<std::mutex> guard(pnp::table().lock);
  auto it = pnp::table().nodes.find(pdo);
  if (it != pnp::table().nodes.end()) it->second.properties.erase(property);
}

std::vector<RelationInvalidation> TakeRelationInvalidations() {
  std::lock_guard<std::mutex> guard(pnp::table().lock);
  std::vector<RelationInvalidation> out;
  out.swap(pnp::table().invalidations);
  return out;
}

}  // namespace wdmsim

extern "C" NTSTATUS IoOpenDeviceRegistryKey(PDEVICE_OBJECT DeviceObject, ULONG DevInstKeyType,
                                            ACCESS_MASK DesiredAccess, PHANDLE DevInstRegKey) {
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
    wdmsim::ReportViolation("IRQL_NOT_LESS_OR_EQUAL", DeviceObject, "IoOpenDeviceRegistryKey at IRQL %d",
                            KeGetCurrentIrql());
  }
  // Only a PDO the PnP manager knows has device keys; Windows refuses any other object.
  if (!wdmsim::IsDeviceNode(DeviceObject)) return STATUS_INVALID_DEVICE_REQUEST;
  std::u16string path;
  if (DevInstKeyType == PLUGPLAY_REGKEY_DEVICE) {
    path = wdmsim::DeviceHardwareKeyPath(DeviceObject);
  } else if (DevInstKeyType == PLUGPLAY_REGKEY_DRIVER) {
    path = wdmsim::DeviceDriverKeyPath(DeviceObject);
  } else {
    return STATUS_INVALID_PARAMETER;
  }
  wdmsim::pnp::EnsureKeyPath(path);
  UNICODE_STRING name;
  name.Buffer = reinterpret_cast<PWSTR>(const_cast<char16_t*>(path.c_str()));
  name.Length = static_cast<USHORT>(path.size() * 2);
  name.MaximumLength = name.Length;
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
  return ZwOpenKey(DevInstRegKey, DesiredAccess, &attributes);
}

extern "C" NTSTATUS IoGetDeviceProperty(PDEVICE_OBJECT DeviceObject, DEVICE_REGISTRY_PROPERTY DeviceProperty,
                                        ULONG BufferLength, PVOID PropertyBuffer, PULONG ResultLength) {
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
    wdmsim::ReportViolation("IRQL_NOT_LESS_OR_EQUAL", DeviceObject, "IoGetDeviceProperty at IRQL %d",
                            KeGetCurrentIrql());
  }
  std::vector<uint8_t> bytes;
  {
    std::lock_guard<std::mutex> guard(wdmsim::pnp::table().lock);
    auto node = wdmsim::pnp::table().nodes.find(DeviceObject);
    if (node == wdmsim::pnp::table().nodes.end() || node->second.instancePath.empty()) {
      return STATUS_INVALID_DEVICE_REQUEST;
    }
    auto property = node->second.properties.find(DeviceProperty);
    if (property == node->second.properties.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    bytes = property->second;
  }
  *ResultLength = static_cast<ULONG>(bytes.size());
  if (BufferLength < bytes.size()) return STATUS_BUFFER_TOO_SMALL;
  std::memcpy(PropertyBuffer, bytes.data(), bytes.size());
  return STATUS_SUCCESS;
}

extern "C" void IoInvalidateDeviceRelations(PDEVICE_OBJECT DeviceObject, DEVICE_RELATION_TYPE Type) {
  if (KeGetCurrentIrql() > DISPATCH_LEVEL) {
    wdmsim::ReportViolation("IRQL_NOT_LESS_OR_EQUAL", DeviceObject, "IoInvalidateDeviceRelations at IRQL %d",
                            KeGetCurrentIrql());
  }
  {
    std::lock_guard<std::mutex> guard(wdmsim::pnp::table().lock);
    wdmsim::pnp::table().invalidations.push_back({DeviceObject, Type});
  }
  // The PnP manager answers later, on its own thread, as Windows does.
  wdmsim::pnp::QueueRelationsEnumeration(DeviceObject, Type);
}
