// Identity of a new device node: the arrival queries and what they become.
#include "pnp/device_identity.h"

#include <cstdio>

#include <wdmsim/io.h>
#include <wdmsim/pnp.h>
#include <wdmsim/registry.h>
#include <wdmsim/verifier.h>

#include "pnp/inf_file.h"
#include "pnp/pnp_requests.h"

namespace wdmsim {
namespace pnp {
namespace {

const char16_t kEnumRoot[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Enum\\";
const char16_t kRootDeviceNodePath[] = u"HTREE\\ROOT\\0";

uint32_t Crc32(const std::u16string& text) {
  uint32_t crc = 0xFFFFFFFF;
  for (char16_t unit : text) {
    for (uint8_t byte : {static_cast<uint8_t>(unit & 0xFF), static_cast<uint8_t>(unit >> 8)}) {
      crc ^= byte;
      for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
  }
  return ~crc;
}

std::u16string Widen(const std::string& text) { return Utf16FromUtf8(text); }

// Windows refuses IDs with control characters, blanks, commas or non-ASCII characters;
// an instance ID may not contain a path separator either.
bool ValidId(const std::u16string& id, bool instance) {
  for (char16_t c : id) {
    if (c <= 0x20 || c > 0x7F || c == u',') return false;
    if (instance && c == u'\\') return false;
  }
  return true;
}

bool CheckIds(Node* node) {
  const DeviceNodeInfo& info = node->info;
  std::vector<std::u16string> all = info.hardwareIds;
  all.insert(all.end(), info.compatibleIds.begin(), info.compatibleIds.end());
  all.push_back(info.deviceId);
  for (const std::u16string& id : all) {
    if (id.empty() || !ValidId(id, false)) {
      ReportViolation("PNP_DETECTED_FATAL_ERROR", info.pdo, "invalid ID \"%s\" reported by device object %p",
                      Utf8FromUtf16(id).c_str(), (void*)info.pdo);
      return false;
    }
  }
  if (!ValidId(info.instanceId, true)) {
    ReportViolation("PNP_DETECTED_FATAL_ERROR", info.pdo, "invalid instance ID \"%s\" reported by device object %p",
                    Utf8FromUtf16(info.instanceId).c_str(), (void*)info.pdo);
    return false;
  }
  return true;
}

std::u16string MultiString(const std::vector<std::u16string>& strings) {
  std::u16string joined;
  for (const std::u16string& text : strings) joined += text + u'\0';
  return joined;
}

}  // namespace

std::u16string ParentIdPrefix(const Node* parent) {
  int depth = parent != nullptr ? parent->depth : 0;
  std::u16string path = parent != nullptr ? parent->info.instancePath : std::u16string(kRootDeviceNodePath);
  char text[32];
  snprintf(text, sizeof text, "%x&%x&0", depth, Crc32(path));
  return Widen(text);
}

bool QueryIdentity(Node* node) {
  auto deviceId = QueryIdString(node, BusQueryDeviceID);
  DEVICE_CAPABILITIES caps;
  QueryCapabilities(node, &caps);
  auto instanceId = QueryIdString(node, BusQueryInstanceID);
  auto hardwareIds = QueryIdList(node, BusQueryHardwareIDs);
  auto compatibleIds = QueryIdList(node, BusQueryCompatibleIDs);
  auto description = QueryText(node, DeviceTextDescription);
  auto location = QueryText(node, DeviceTextLocationInformation);
  QueryAndDiscard(node, IRP_MN_QUERY_BUS_INFORMATION);
  QueryAndDiscard(node, IRP_MN_QUERY_RESOURCES);
  QueryAndDiscard(node, IRP_MN_QUERY_RESOURCE_REQUIREMENTS);

  UpdateTree([&] {
    DeviceNodeInfo& info = node->info;
    info.deviceId = deviceId.value_or(u"");
    info.capabilities = caps;
    info.busInstanceId = instanceId.value_or(u"");
    info.instanceId = info.busInstanceId;
    info.hardwareIds = hardwareIds;
    info.compatibleIds = compatibleIds;
    info.busDescription = description.value_or(u"");
    info.location = location.value_or(u"");
    info.description = info.busDescription;
  });
  if (!deviceId || !CheckIds(node)) {
    SetState(node, DeviceNodeState::EnumerationFailed, STATUS_INVALID_PARAMETER);
    return false;
  }
  // An instance ID the bus does not vouch for is made unique with the parent's prefix.
  std::u16string instance = node->info.instanceId;
  if (!caps.UniqueID) {
    instance = instance.empty() ? ParentIdPrefix(node->parent) : ParentIdPrefix(node->parent) + u"&" + instance;
  }
  std::u16string path = node->info.deviceId + u"\\" + instance;
  if (Node* other = FindOtherNodeByInstancePath(path, node)) {
    ReportViolation("PNP_DETECTED_FATAL_ERROR", node->info.pdo,
                    "duplicate PDO: device objects %p and %p both report instance path %s", (void*)other->info.pdo,
                    (void*)node->info.pdo, Utf8FromUtf16(path).c_str());
    SetState(node, DeviceNodeState::EnumerationFailed, STATUS_OBJECT_NAME_COLLISION);
    return false;
  }
  UpdateTree([&] {
    node->info.instanceId = instance;
    node->info.instancePath = path;
  });
  if (!caps.UniqueID && node->parent != nullptr) {
    RegistrySetString(kEnumRoot + node->parent->info.instancePath, u"ParentIdPrefix", ParentIdPrefix(node->parent));
  }
  return true;
}

void PublishIdentity(Node* node) {
  const DeviceNodeInfo& info = node->info;
  PDEVICE_OBJECT pdo = info.pdo;
  RegisterDeviceNode(pdo, info.instancePath);
  if (!info.hardwareIds.empty()) SetDeviceMultiStringProperty(pdo, DevicePropertyHardwareID, info.hardwareIds);
  if (!info.compatibleIds.empty()) SetDeviceMultiStringProperty(pdo, DevicePropertyCompatibleIDs, info.compatibleIds);
  if (!info.description.empty()) SetDeviceStringProperty(pdo, DevicePropertyDeviceDescription, info.description);
  if (!info.location.empty()) SetDeviceStringProperty(pdo, DevicePropertyLocationInformation, info.location);
  if (info.capabilities.Address != 0xFFFFFFFF) SetDeviceNumberProperty(pdo, DevicePropertyAddress, info.capabilities.Address);
  if (info.capabilities.UINumber != 0xFFFFFFFF) {
    SetDeviceNumberProperty(pdo, DevicePropertyUINumber, info.capabilities.UINumber);
  }
  std::u16string name = DeviceObjectName(pdo);
  if (!name.empty()) SetDeviceStringProperty(pdo, DevicePropertyPhysicalDeviceObjectName, name);
  SetDeviceStringProperty(pdo, DevicePropertyEnumeratorName, info.deviceId.substr(0, info.deviceId.find(u'\\')));

  std::u16string key = kEnumRoot + info.instancePath;
  if (!info.hardwareIds.empty()) RegistrySetString(key, u"HardwareID", MultiString(info.hardwareIds), REG_MULTI_SZ);
  if (!info.compatibleIds.empty()) {
    RegistrySetString(key, u"CompatibleIDs", MultiString(info.compatibleIds), REG_MULTI_SZ);
  }
  if (!info.description.empty()) RegistrySetString(key, u"DeviceDesc", info.description);
  if (!info.location.empty()) RegistrySetString(key, u"LocationInformation", info.location);
  if (!info.service.empty()) RegistrySetString(key, u"Service", info.service);
}

}  // namespace pnp
}  // namespace wdmsim
