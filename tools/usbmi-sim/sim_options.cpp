#include "sim_options.h"

#include <cstdlib>

namespace usbmisim {
namespace {

struct KnownValue {
  const char16_t* name;
  bool isDword;
};

// The hardware-key values the driver reads at start, with the type it expects.
const KnownValue kKnownValues[] = {
    {u"HighPowerCfg", true},          {u"LowPowerCfg", true},
    {u"ConfigInPnpId", true},         {u"UsbConfiguration", true},
    {u"FamilyName", false},           {u"SelectiveSuspendOperation", true},
    {u"SelectiveSuspendMode", true},  {u"SelectiveSuspendIdlePeriod", true},
    {u"TrySsOnXpWithHub", true},      {u"CyclePortOnPowerOn", true},
};

std::u16string Widen(const std::string& text) { return std::u16string(text.begin(), text.end()); }

// Decimal or 0x-prefixed hexadecimal, the whole text, at most 32 bits.
std::optional<uint32_t> ParseDword(const std::string& text) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return std::nullopt;
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  char* end = nullptr;
  unsigned long long value = std::strtoull(text.c_str(), &end, hex ? 16 : 10);
  if (end == text.c_str() || *end != '\0' || value > 0xFFFFFFFFull) return std::nullopt;
  return static_cast<uint32_t>(value);
}

bool IsAscii(const std::string& text) {
  for (unsigned char c : text) {
    if (c >= 0x80) return false;
  }
  return true;
}

// "Name=Value" -> a typed setting; known names take the driver's type, others are DWORDs
// when they read as numbers and strings otherwise.
std::string ParseSetting(const std::string& arg, RegistrySetting* setting) {
  const size_t eq = arg.find('=');
  if (eq == std::string::npos || eq == 0) return "--set " + arg + ": expected Name=Value";
  const std::string name = arg.substr(0, eq);
  const std::string value = arg.substr(eq + 1);
  if (!IsAscii(name) || !IsAscii(value)) return "--set " + arg + ": only ASCII names and values are supported";
  setting->name = Widen(name);
  const KnownValue* known = nullptr;
  for (const KnownValue& k : kKnownValues) {
    if (std::u16string(k.name) == setting->name) known = &k;
  }
  setting->known = known != nullptr;
  std::optional<uint32_t> number = ParseDword(value);
  if (known != nullptr && known->isDword && !number) {
    return "--set " + arg + ": " + name + " is a DWORD; give a number (decimal or 0x hex, at most 0xFFFFFFFF)";
  }
  setting->isDword = known != nullptr ? known->isDword : number.has_value();
  if (setting->isDword) {
    setting->dword = *number;
  } else {
    setting->text = Widen(value);
  }
  return std::string();
}

}  // namespace

const char* HubKindName(HubKind hub) {
  switch (hub) {
    case HubKind::Root: return "root";
    case HubKind::SelfPowered: return "self";
    case HubKind::BusPowered: return "bus";
  }
  return "?";
}

const char* UsageText() {
  return "usage: usbmi-sim [--device FILE] [--set Name=Value]... [--hub root|self|bus]\n"
         "                 [--platform xp|vista] [--json] [--trace MASK]\n"
         "\n"
         "Plugs a composite USB device into the simulated Windows machine, lets the usbmi driver\n"
         "start on it and prints the child devices it creates with their identifiers.\n"
         "\n"
         "  --device FILE      a Linux sysfs `descriptors` file or hex text (default: built-in demo)\n"
         "  --set Name=Value   a value of the device's hardware key, e.g. FamilyName=Fam,\n"
         "                     HighPowerCfg=1, ConfigInPnpId=1, UsbConfiguration=0x10 (repeatable)\n"
         "  --hub KIND         root hub port (default), self-powered or bus-powered external hub\n"
         "  --platform GEN     xp (WDM 1.20) or vista (WDM 6.0, default)\n"
         "  --json             one JSON object instead of the table\n"
         "  --trace MASK       also print the driver's trace, filtered by MASK (e.g. 0x27)\n";
}

ParseResult ParseCommandLine(const std::vector<std::string>& args) {
  ParseResult result;
  SimOptions& o = result.options;
  for (size_t i = 0; i < args.size(); ++i) {
    std::string arg = args[i];
    std::string inlineValue;
    bool hasInline = false;
    const size_t eq = arg.find('=');
    if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
      inlineValue = arg.substr(eq + 1);
      arg = arg.substr(0, eq);
      hasInline = true;
    }
    auto takeValue = [&](std::string* value) -> bool {
      if (hasInline) {
        *value = inlineValue;
        return true;
      }
      if (i + 1 >= args.size()) {
        result.error = arg + ": missing value";
        return false;
      }
      *value = args[++i];
      return true;
    };
    std::string value;
    if (arg == "-h" || arg == "--help") {
      o.help = true;
    } else if (arg == "--json") {
      o.json = true;
    } else if (arg == "--device") {
      if (!takeValue(&value)) return result;
      if (value.empty()) {
        result.error = "--device: empty file name";
        return result;
      }
      o.deviceFile = value;
    } else if (arg == "--set") {
      if (!takeValue(&value)) return result;
      RegistrySetting setting;
      result.error = ParseSetting(value, &setting);
      if (!result.error.empty()) return result;
      o.settings.push_back(setting);
    } else if (arg == "--hub") {
      if (!takeValue(&value)) return result;
      if (value == "root") {
        o.hub = HubKind::Root;
      } else if (value == "self") {
        o.hub = HubKind::SelfPowered;
      } else if (value == "bus") {
        o.hub = HubKind::BusPowered;
      } else {
        result.error = "--hub " + value + ": expected root, self or bus";
        return result;
      }
    } else if (arg == "--platform") {
      if (!takeValue(&value)) return result;
      if (value == "xp") {
        o.platform = PlatformKind::Xp;
      } else if (value == "vista") {
        o.platform = PlatformKind::Vista;
      } else {
        result.error = "--platform " + value + ": expected xp or vista";
        return result;
      }
    } else if (arg == "--trace") {
      if (!takeValue(&value)) return result;
      std::optional<uint32_t> mask = ParseDword(value);
      if (!mask) {
        result.error = "--trace " + value + ": expected a mask (decimal or 0x hex)";
        return result;
      }
      o.traceMask = mask;
    } else {
      result.error = arg + ": unknown option (see --help)";
      return result;
    }
  }
  return result;
}

}  // namespace usbmisim
