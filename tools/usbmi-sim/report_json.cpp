// The same facts as the table, as one JSON object for scripts: class codes as two-digit
// upper-case hex strings, numbers as numbers, a missing text as null.
#include <cstdio>
#include <string>

#include "sim_report.h"

namespace usbmisim {
namespace {

std::string Quote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string QuoteOrNull(const std::optional<std::string>& text) { return text ? Quote(*text) : "null"; }

std::string HexByte(uint8_t value) {
  char text[4];
  std::snprintf(text, sizeof(text), "%02X", value);
  return Quote(text);
}

std::string Array(const std::vector<std::string>& texts) {
  std::string out = "[";
  for (size_t i = 0; i < texts.size(); ++i) out += (i ? ", " : "") + Quote(texts[i]);
  return out + "]";
}

// Appends `"key": value` with the separator that JSON needs between members.
class Members {
 public:
  explicit Members(std::string* out) : mOut(out) {}
  void Add(const char* key, const std::string& json) {
    *mOut += mFirst ? "" : ", ";
    *mOut += Quote(key) + ": " + json;
    mFirst = false;
  }

 private:
  std::string* mOut;
  bool mFirst = true;
};

std::string Number(uint64_t value) { return std::to_string(value); }

}  // namespace

std::string FormatJson(const SimReport& report) {
  const DeviceReport& d = report.device;
  std::string out = "{\"device\": {";
  Members device(&out);
  device.Add("vid", Number(d.vendorId));
  device.Add("pid", Number(d.productId));
  device.Add("configuration_index", d.configurationIndex ? Number(*d.configurationIndex) : "null");
  device.Add("power_ma", Number(d.powerBudgetMa));
  device.Add("hub", Quote(HubKindName(d.hub)));
  device.Add("start_status", Quote(d.startStatus));
  out += "}, \"notification_interface\": ";
  out += d.notificationInterface ? Number(*d.notificationInterface) : "null";
  out += ", \"children\": [";
  for (size_t i = 0; i < report.children.size(); ++i) {
    const ChildReport& c = report.children[i];
    out += i ? ", {" : "{";
    Members child(&out);
    child.Add("first_interface", Number(c.firstInterface));
    child.Add("interface_count", Number(c.interfaceCount));
    child.Add("class", HexByte(c.interfaceClass));
    child.Add("subclass", HexByte(c.interfaceSubClass));
    child.Add("protocol", HexByte(c.interfaceProtocol));
    child.Add("device_id", Quote(c.deviceId));
    child.Add("hardware_ids", Array(c.hardwareIds));
    child.Add("compatible_ids", Array(c.compatibleIds));
    child.Add("instance_id", Quote(c.instanceId));
    child.Add("description", QuoteOrNull(c.description));
    child.Add("location", QuoteOrNull(c.location));
    child.Add("configuration_descriptor", Quote(HexBytes(c.configurationDescriptor)));
    out += "}";
  }
  out += "], \"violations\": " + Array(report.violations) + "}\n";
  return out;
}

}  // namespace usbmisim
