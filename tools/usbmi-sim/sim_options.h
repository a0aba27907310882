// usbmi-sim's command line: which device, where it is plugged, which registry settings, how
// to print. Parsing never exits or prints; a bad argument yields one error text.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace usbmisim {

enum class HubKind { Root, SelfPowered, BusPowered };
enum class PlatformKind { Xp, Vista };

// One value for the device's hardware key, typed as the driver reads it.
struct RegistrySetting {
  std::u16string name;
  bool isDword = false;
  uint32_t dword = 0;
  std::u16string text;   // REG_SZ when !isDword
  bool known = false;    // a value the driver reads
};

struct SimOptions {
  std::string deviceFile;  // empty: the built-in demo device
  std::vector<RegistrySetting> settings;
  HubKind hub = HubKind::Root;
  PlatformKind platform = PlatformKind::Vista;
  bool json = false;
  std::optional<uint32_t> traceMask;  // print the driver's trace with this mask
  bool help = false;
};

struct ParseResult {
  SimOptions options;
  std::string error;  // empty on success
  explicit operator bool() const { return error.empty(); }
};

ParseResult ParseCommandLine(const std::vector<std::string>& args);
const char* UsageText();

const char* HubKindName(HubKind hub);  // "root", "self", "bus"

}  // namespace usbmisim
