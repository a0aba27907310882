// What usbmi-sim observed of one run: the device, the configuration the driver chose, the
// notification interface it kept, and each child it created, in child-list order.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim_options.h"

namespace usbmisim {

struct ChildReport {
  uint8_t firstInterface = 0;
  uint8_t interfaceCount = 0;
  uint8_t interfaceClass = 0;
  uint8_t interfaceSubClass = 0;
  uint8_t interfaceProtocol = 0;
  std::string deviceId;
  std::vector<std::string> hardwareIds;
  std::vector<std::string> compatibleIds;
  std::string instanceId;    // as the child reported it
  std::string instancePath;  // where the PnP manager keeps it
  std::optional<std::string> description;
  std::optional<std::string> location;
  std::vector<uint8_t> configurationDescriptor;  // the child's own configuration set
  std::string driverService;                     // the function driver bound to it; empty: none
  std::string state;                             // as the PnP manager sees the child
};

struct DeviceReport {
  std::string source;  // "built-in demo device" or the file name
  uint16_t vendorId = 0;
  uint16_t productId = 0;
  uint8_t numConfigurations = 0;
  HubKind hub = HubKind::Root;
  uint32_t powerBudgetMa = 0;            // what the hub supplies per port
  std::optional<uint8_t> configurationIndex;  // none: the device was not configured
  uint8_t configurationValue = 0;
  uint32_t configurationMaxPowerMa = 0;
  std::string configurationReason;       // why this index
  std::string driverService;             // the driver the PnP manager bound to the device
  std::string state;                     // as the PnP manager sees the device
  std::string startStatus;               // NTSTATUS name of the start (its failure, if any)
  std::optional<uint8_t> notificationInterface;
};

struct SimReport {
  DeviceReport device;
  std::vector<ChildReport> children;
  std::vector<std::string> notes;       // settings that the driver does not read, and the like
  std::vector<std::string> violations;  // the verifier's findings
  std::string trace;                    // the driver's trace, when asked for
};

std::string FormatText(const SimReport& report);
std::string FormatJson(const SimReport& report);

// "09 02 4B 00 ..." (upper-case, space-separated).
std::string HexBytes(const std::vector<uint8_t>& bytes);

}  // namespace usbmisim
