// The host side of the registry: tests and tools prepare and inspect keys directly.
// Paths are absolute ("\\Registry\\Machine\\..."); a malformed one is a programming error
// of the caller and throws std::invalid_argument.
#include <cstring>
#include <mutex>
#include <stdexcept>

#include <wdmsim/registry.h>

#include "registry/registry_tree.h"

namespace wdmsim {
namespace {

std::vector<std::u16string> Names(const std::u16string& path) {
  std::vector<std::u16string> names;
  if (!NT_SUCCESS(registry::SplitPath(path, true, &names)) || names.empty() ||
      registry::Fold(names[0]) != u"REGISTRY") {
    throw std::invalid_argument("not an absolute registry path");
  }
  return names;
}

}  // namespace

void RegistryCreateKey(const std::u16string& path) {
  std::vector<std::u16string> names = Names(path);
  std::lock_guard<std::mutex> guard(registry::TreeLock());
  registry::CreateKeyPath(registry::Root(), names);
}

void RegistrySetValue(const std::u16string& path, const std::u16string& name, uint32_t type,
                      const std::vector<uint8_t>& data) {
  std::vector<std::u16string> names = Names(path);
  std::lock_guard<std::mutex> guard(registry::TreeLock());
  std::shared_ptr<registry::Key> key = registry::CreateKeyPath(registry::Root(), names);
  if (registry::Value* existing = key->FindValue(name)) {
    existing->type = type;
    existing->data = data;
  } else {
    key->values.push_back(registry::Value{name, type, data});
  }
}

void RegistrySetDword(const std::u16string& path, const std::u16string& name, uint32_t value) {
  std::vector<uint8_t> data(sizeof value);
  memcpy(data.data(), &value, sizeof value);
  RegistrySetValue(path, name, REG_DWORD, data);
}

void RegistrySetString(const std::u16string& path, const std::u16string& name, const std::u16string& value,
                       uint32_t type) {
  const uint8_t* bytes = reinterpret_cast<const uint8_t*>(value.c_str());
  RegistrySetValue(path, name, type, std::vector<uint8_t>(bytes, bytes + (value.size() + 1) * sizeof(char16_t)));
}

std::optional<RegistryValue> RegistryGetValue(const std::u16string& path, const std::u16string& name) {
  std::vector<std::u16string> names = Names(path);
  std::lock_guard<std::mutex> guard(registry::TreeLock());
  std::shared_ptr<registry::Key> key = registry::FindKey(registry::Root(), names, names.size());
  if (!key) return std::nullopt;
  registry::Value* value = key->FindValue(name);
  if (value == nullptr) return std::nullopt;
  return RegistryValue{value->type, value->data};
}

bool RegistryKeyExists(const std::u16string& path) {
  std::vector<std::u16string> names = Names(path);
  std::lock_guard<std::mutex> guard(registry::TreeLock());
  return registry::FindKey(registry::Root(), names, names.size()) != nullptr;
}

}  // namespace wdmsim
