// Installed INF packages: service keys written at installation, the model table that
// binding searches, and the registry entries of a model applied per device.
#include "pnp/driver_store.h"

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>

#include <wdm.h>
#include <wdmsim/io.h>
#include <wdmsim/registry.h>

#include "pnp/inf_file.h"

namespace wdmsim {
namespace pnp {
namespace {

struct Store {
  std::mutex lock;
  std::vector<InfPackage> packages;  // in installation order
};

Store& store() {
  static Store* s = new Store;
  return *s;
}

const char16_t kMachineRoot[] = u"\\Registry\\Machine\\";

std::vector<uint8_t> Utf16Bytes(const std::u16string& text) {
  std::vector<uint8_t> bytes;
  for (char16_t c : text) {
    bytes.push_back(static_cast<uint8_t>(c & 0xFF));
    bytes.push_back(static_cast<uint8_t>(c >> 8));
  }
  bytes.push_back(0);
  bytes.push_back(0);
  return bytes;
}

std::vector<uint8_t> ValueBytes(const RegistryEntry& entry, uint32_t* type) {
  std::vector<uint8_t> bytes;
  switch (entry.flags & kAddRegTypeMask) {
    case 0x10001: {
      *type = REG_DWORD;
      uint32_t value = static_cast<uint32_t>(std::strtoul(entry.values[0].c_str(), nullptr, 0));
      for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
      return bytes;
    }
    case 0x1:
    case 0x20001:
      *type = (entry.flags & kAddRegTypeMask) == 0x1 ? REG_BINARY : REG_NONE;
      for (const std::string& byte : entry.values) bytes.push_back(static_cast<uint8_t>(std::strtoul(byte.c_str(), nullptr, 16)));
      return bytes;
    case 0x10000:
      *type = REG_MULTI_SZ;
      for (const std::string& text : entry.values) {
        std::vector<uint8_t> one = Utf16Bytes(Utf16FromUtf8(text));
        bytes.insert(bytes.end(), one.begin(), one.end());
      }
      bytes.push_back(0);
      bytes.push_back(0);
      return bytes;
    default: {
      *type = (entry.flags & kAddRegTypeMask) == 0x20000 ? REG_EXPAND_SZ : REG_SZ;
      // An unquoted comma in a string value belongs to the value.
      std::string text;
      for (size_t i = 0; i < entry.values.size(); ++i) text += (i ? "," : "") + entry.values[i];
      return Utf16Bytes(Utf16FromUtf8(text));
    }
  }
}

void InstallServices(const InfPackage& package) {
  for (const ServiceInstall& service : package.services) {
    std::u16string key = ServiceKeyPath(Utf16FromUtf8(service.name));
    RegistrySetDword(key, u"Type", service.type);
    RegistrySetDword(key, u"Start", service.start);
    RegistrySetDword(key, u"ErrorControl", service.errorControl);
    RegistrySetString(key, u"ImagePath", Utf16FromUtf8(service.imagePath), REG_EXPAND_SZ);
    if (!service.displayName.empty()) RegistrySetString(key, u"DisplayName", Utf16FromUtf8(service.displayName));
    ApplyRegistryEntries(service.addReg, key);
  }
}

std::u16string Widen(const std::string& text) { return Utf16FromUtf8(text); }

}  // namespace

void ApplyRegistryEntries(const std::vector<RegistryEntry>& entries, const std::u16string& hkrPath) {
  for (const RegistryEntry& entry : entries) {
    std::u16string key = entry.root == "HKR" ? hkrPath : std::u16string(kMachineRoot);
    if (!entry.subkey.empty()) key += (entry.root == "HKR" ? u"\\" : u"") + Widen(entry.subkey);
    if (entry.flags & kAddRegKeyOnly) {
      RegistryCreateKey(key);
      continue;
    }
    std::u16string name = Widen(entry.valueName);
    if ((entry.flags & kAddRegNoClobber) && RegistryGetValue(key, name).has_value()) continue;
    uint32_t type = REG_SZ;
    std::vector<uint8_t> bytes = ValueBytes(entry, &type);
    RegistrySetValue(key, name, type, bytes);
  }
}

std::optional<BoundModel> BindModel(const std::vector<std::u16string>& hardwareIds,
                                    const std::vector<std::u16string>& compatibleIds) {
  std::vector<std::string> deviceIds;
  for (const auto& id : hardwareIds) deviceIds.push_back(UpperAscii(Utf8FromUtf16(id)));
  for (const auto& id : compatibleIds) deviceIds.push_back(UpperAscii(Utf8FromUtf16(id)));

  std::lock_guard<std::mutex> guard(store().lock);
  const InfPackage* bestPackage = nullptr;
  const DriverModel* bestModel = nullptr;
  size_t bestDeviceRank = 0;
  bool bestOnModelCompatible = false;
  // Packages in installation order: a strictly better rank is needed to replace a match,
  // so on a tie the earlier installation keeps it.
  for (const InfPackage& package : store().packages) {
    for (const DriverModel& model : package.models) {
      for (size_t d = 0; d < deviceIds.size(); ++d) {
        if (bestModel != nullptr && d > bestDeviceRank) break;
        for (size_t m = 0; m < model.ids.size(); ++m) {
          if (UpperAscii(model.ids[m]) != deviceIds[d]) continue;
          bool onCompatible = m > 0;
          bool better = bestModel == nullptr || d < bestDeviceRank ||
                        (d == bestDeviceRank && bestOnModelCompatible && !onCompatible);
          if (better) {
            bestPackage = &package;
            bestModel = &model;
            bestDeviceRank = d;
            bestOnModelCompatible = onCompatible;
          }
          break;
        }
      }
    }
  }
  if (bestModel == nullptr) return std::nullopt;
  BoundModel bound;
  bound.match.service = Widen(bestModel->service);
  bound.match.description = Widen(bestModel->description);
  bound.match.matchedId = bestDeviceRank < hardwareIds.size() ? hardwareIds[bestDeviceRank]
                                                              : compatibleIds[bestDeviceRank - hardwareIds.size()];
  bound.match.manufacturer = Widen(bestModel->manufacturer);
  bound.match.className = Widen(bestPackage->className);
  bound.match.classGuid = Widen(bestPackage->classGuid);
  bound.match.infFile = bestPackage->file;
  bound.hardwareKeyAddReg = bestModel->hardwareKeyAddReg;
  bound.driverKeyAddReg = bestModel->driverKeyAddReg;
  return bound;
}

void ForgetDriverStore() {
  std::lock_guard<std::mutex> guard(store().lock);
  store().packages.clear();
}

}  // namespace pnp

bool InstallInf(const std::string& fileName, const std::string& text, InfError* error) {
  pnp::InfFile inf;
  pnp::InfPackage package;
  InfError ignored;
  if (error == nullptr) error = &ignored;
  if (!inf.Parse(fileName, text, error) || !pnp::BuildInfPackage(inf, &package, error)) return false;
  pnp::InstallServices(package);
  std::lock_guard<std::mutex> guard(pnp::store().lock);
  pnp::store().packages.push_back(std::move(package));
  return true;
}

bool InstallInfFile(const std::string& path, InfError* error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    if (error != nullptr) *error = InfError{path, 0, "cannot be read"};
    return false;
  }
  std::ostringstream text;
  text << file.rdbuf();
  return InstallInf(path, text.str(), error);
}

std::optional<DriverMatch> FindDriver(const std::vector<std::u16string>& hardwareIds,
                                      const std::vector<std::u16string>& compatibleIds) {
  auto bound = pnp::BindModel(hardwareIds, compatibleIds);
  if (!bound) return std::nullopt;
  return bound->match;
}

}  // namespace wdmsim
