// The table a user reads: the device first, then one block per child.
#include <algorithm>
#include <cstdio>
#include <string>

#include "sim_report.h"

namespace usbmisim {
namespace {

std::string Printf(const char* format, unsigned a, unsigned b = 0, unsigned c = 0) {
  char buffer[64];
  std::snprintf(buffer, sizeof(buffer), format, a, b, c);
  return buffer;
}

void Field(std::string* out, const char* label, const std::string& value) {
  *out += "  ";
  *out += label;
  out->append(16 - std::string(label).size(), ' ');
  *out += value;
  *out += '\n';
}

void ListField(std::string* out, const char* label, const std::vector<std::string>& values) {
  if (values.empty()) {
    Field(out, label, "(none)");
    return;
  }
  for (size_t i = 0; i < values.size(); ++i) Field(out, i == 0 ? label : "", values[i]);
}

// Long hex dumps wrap at 16 bytes per line under their label.
void HexField(std::string* out, const char* label, const std::vector<uint8_t>& bytes) {
  if (bytes.empty()) {
    Field(out, label, "(empty)");
    return;
  }
  for (size_t at = 0; at < bytes.size(); at += 16) {
    std::vector<uint8_t> line(bytes.begin() + at, bytes.begin() + std::min(bytes.size(), at + 16));
    Field(out, at == 0 ? label : "", HexBytes(line));
  }
}

}  // namespace

std::string FormatText(const SimReport& report) {
  const DeviceReport& d = report.device;
  std::string out;
  out += "device  " + d.source + "\n";
  Field(&out, "vendor/product", Printf("VID_%04X PID_%04X", d.vendorId, d.productId));
  Field(&out, "plugged into", std::string(d.hub == HubKind::Root ? "a root hub port"
                                          : d.hub == HubKind::SelfPowered ? "a self-powered external hub"
                                                                          : "a bus-powered external hub") +
                                  Printf(" (%u mA per port)", d.powerBudgetMa));
  Field(&out, "configurations", Printf("%u", d.numConfigurations));
  if (d.configurationIndex) {
    Field(&out, "chosen", Printf("index %u (bConfigurationValue %u, draws up to %u mA)", *d.configurationIndex,
                                 d.configurationValue, d.configurationMaxPowerMa));
  } else {
    Field(&out, "chosen", "none: the device was left unconfigured");
  }
  Field(&out, "because", d.configurationReason);
  Field(&out, "driver", d.driverService.empty() ? "(none)" : d.driverService);
  Field(&out, "state", d.state.empty() ? d.startStatus : d.state + " (" + d.startStatus + ")");
  Field(&out, "notification", d.notificationInterface
                                  ? Printf("interface %u (FF/01/00), kept by the parent", *d.notificationInterface)
                                  : std::string("none"));
  for (const std::string& note : report.notes) Field(&out, "note", note);

  out += Printf("\nchildren  %u\n", static_cast<unsigned>(report.children.size()));
  unsigned number = 0;
  for (const ChildReport& c : report.children) {
    ++number;
    out += Printf("\nchild %u: ", number);
    out += c.interfaceCount > 1 ? Printf("interfaces %u-%u", c.firstInterface, c.firstInterface + c.interfaceCount - 1u)
                                : Printf("interface %u", c.firstInterface);
    out += Printf(", class %02X/%02X/%02X\n", c.interfaceClass, c.interfaceSubClass, c.interfaceProtocol);
    Field(&out, "device id", c.deviceId);
    ListField(&out, "hardware ids", c.hardwareIds);
    ListField(&out, "compatible ids", c.compatibleIds);
    Field(&out, "instance id", c.instanceId);
    Field(&out, "instance path", c.instancePath);
    Field(&out, "description", c.description.value_or("(none)"));
    Field(&out, "location", c.location.value_or("(none)"));
    Field(&out, "driver", c.driverService.empty() ? "(none)" : c.driverService);
    Field(&out, "state", c.state);
    HexField(&out, "config set", c.configurationDescriptor);
  }

  out += "\nverifier\n";
  if (report.violations.empty()) {
    Field(&out, "verdict", "clean: no violation, no leak");
  } else {
    for (const std::string& v : report.violations) Field(&out, "violation", v);
  }
  if (!report.trace.empty()) out += "\ndriver trace\n" + report.trace;
  return out;
}

std::string HexBytes(const std::vector<uint8_t>& bytes) {
  std::string out;
  char byte[4];
  for (size_t i = 0; i < bytes.size(); ++i) {
    std::snprintf(byte, sizeof(byte), i == 0 ? "%02X" : " %02X", bytes[i]);
    out += byte;
  }
  return out;
}

}  // namespace usbmisim
