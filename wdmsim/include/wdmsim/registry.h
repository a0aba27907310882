// wdmsim host API: the registry tree, for tests and tools to prepare and inspect keys.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace wdmsim {

// Paths are absolute registry paths such as
// "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\usbmi"; case-insensitive.
// Anything else throws std::invalid_argument. Setting a value creates its key (and the
// keys above it). A booted machine has the keys that the RTL_REGISTRY_* locations name;
// the end of a run (Kernel destruction) goes back to that tree and to the default
// environment, in which only SystemRoot ("C:\\Windows") is defined.
struct RegistryValue {
  uint32_t type;               // REG_SZ, REG_DWORD, ...
  std::vector<uint8_t> data;   // raw bytes as stored
};

void RegistryCreateKey(const std::u16string& path);
void RegistrySetValue(const std::u16string& path, const std::u16string& name, uint32_t type,
                      const std::vector<uint8_t>& data);
void RegistrySetDword(const std::u16string& path, const std::u16string& name, uint32_t value);
// Stores the characters and one terminator (embedded NULs included, for REG_MULTI_SZ).
void RegistrySetString(const std::u16string& path, const std::u16string& name, const std::u16string& value,
                       uint32_t type = 1 /* REG_SZ */);
std::optional<RegistryValue> RegistryGetValue(const std::u16string& path, const std::u16string& name);
bool RegistryKeyExists(const std::u16string& path);
// Environment used to expand REG_EXPAND_SZ values (%SystemRoot% and the like).
void RegistrySetEnvironment(const std::u16string& name, const std::u16string& value);

}  // namespace wdmsim
