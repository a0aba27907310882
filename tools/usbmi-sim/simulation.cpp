#include "simulation.h"

#include <ntddk.h>

#include <cstdio>

#include <wdmsim/debugout.h>
#include <wdmsim/pnpmanager.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/verifier.h>

#include "configuration_scan.h"
#include "knnametables.h"
#include "knpnpdeviceobject.h"
#include "childpdo.h"
#include "sim_machine.h"
#include "utf.h"

namespace usbmisim {
namespace {

// What a port of each hub kind supplies under USB 2.0: 500 mA from a root or self-powered
// hub, 100 mA from a bus-powered one.
uint32_t PortBudgetMa(HubKind hub) { return hub == HubKind::BusPowered ? 100 : 500; }

std::string ConfigurationSettingName(HubKind hub) {
  return hub == HubKind::BusPowered ? "LowPowerCfg" : "HighPowerCfg";
}

uint32_t SettingValue(const SimOptions& options, const std::u16string& name) {
  uint32_t value = 0;
  for (const RegistrySetting& s : options.settings) {
    if (s.name == name && s.isDword) value = s.dword;
  }
  return value;
}

// Why the driver chose what the device now runs: the hub's budget picks the setting, whose
// low byte is the index, clamped to the last configuration.
std::string ConfigurationReason(const SimOptions& options, const DeviceReport& d) {
  const std::string setting = ConfigurationSettingName(options.hub);
  const uint32_t value = SettingValue(options, Utf16FromUtf8(setting));
  const char* hub = options.hub == HubKind::Root          ? "root hub"
                    : options.hub == HubKind::SelfPowered ? "self-powered hub"
                                                          : "bus-powered hub";
  std::string reason = std::string("the ") + hub + " supplies " +
                       std::to_string(d.powerBudgetMa) + " mA, so " + setting + " (" + std::to_string(value) +
                       ") chooses";
  const unsigned wanted = value & 0xFF;
  if (d.numConfigurations != 0 && wanted > d.numConfigurations - 1u) {
    reason += " index " + std::to_string(wanted) + ", beyond the last configuration: clamped to " +
              std::to_string(d.numConfigurations - 1u);
  } else {
    reason += " index " + std::to_string(wanted);
  }
  return reason;
}

std::u16string ServiceOf(const DRIVER_OBJECT* driver) {
  if (driver == nullptr || driver->DriverExtension == nullptr) return std::u16string();
  const UNICODE_STRING& name = driver->DriverExtension->ServiceKeyName;
  return std::u16string(reinterpret_cast<const char16_t*>(name.Buffer), name.Length / sizeof(WCHAR));
}

// The child object behind a child PDO: every child usbmi reports is a ChildPdo.
const ChildPdo* ChildObject(PDEVICE_OBJECT pdo) {
  if (pdo == nullptr || ServiceOf(pdo->DriverObject) != kUsbmiService) return nullptr;
  return static_cast<const ChildPdo*>(KnDeviceObject::GetExtension(pdo)->mDevObj);
}

ChildReport ReportChild(const wdmsim::DeviceNodeInfo& node) {
  ChildReport c;
  c.deviceId = Utf8FromUtf16(node.deviceId);
  for (const auto& id : node.hardwareIds) c.hardwareIds.push_back(Utf8FromUtf16(id));
  for (const auto& id : node.compatibleIds) c.compatibleIds.push_back(Utf8FromUtf16(id));
  c.instanceId = Utf8FromUtf16(node.busInstanceId);
  c.instancePath = Utf8FromUtf16(node.instancePath);
  if (!node.busDescription.empty()) c.description = Utf8FromUtf16(node.busDescription);
  if (!node.location.empty()) c.location = Utf8FromUtf16(node.location);
  c.driverService = Utf8FromUtf16(node.service);
  c.state = wdmsim::DeviceNodeStateName(node.state);
  if (const ChildPdo* child = ChildObject(node.pdo)) {
    const KnUsbConfigurationDesc* desc = child->GetConfigurationDesc();
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(desc->GetDescriptor());
    c.configurationDescriptor.assign(bytes, bytes + desc->GetLength());
  }
  if (auto first = FirstInterface(c.configurationDescriptor)) {
    c.firstInterface = first->number;
    c.interfaceClass = first->cls;
    c.interfaceSubClass = first->subClass;
    c.interfaceProtocol = first->protocol;
  }
  if (c.configurationDescriptor.size() >= 5) c.interfaceCount = c.configurationDescriptor[4];
  return c;
}

void ReportDevice(const SimOptions& options, const SimDevice& device, const SimMachine& machine, SimReport* report) {
  const wdmsim::UsbDeviceDescription& description = device.firmware->Description();
  DeviceReport& d = report->device;
  d.source = device.source;
  d.vendorId = description.VendorId();
  d.productId = description.ProductId();
  d.numConfigurations = description.NumConfigurations();
  d.hub = options.hub;
  d.powerBudgetMa = PortBudgetMa(options.hub);
  d.configurationReason = ConfigurationReason(options, d);

  const uint8_t value = wdmsim::GetUsbPortState(machine.Hub(), machine.Port()).configuration;
  if (auto index = description.ConfigurationIndex(value); index && value != 0) {
    d.configurationIndex = static_cast<uint8_t>(*index);
    d.configurationValue = value;
    d.configurationMaxPowerMa = description.MaxPowerMilliamps(*index);
    d.notificationInterface = FindNotificationInterface(description.configurations[*index]);
  }

  auto node = wdmsim::GetDeviceNode(machine.DeviceNode());
  if (!node) {
    d.startStatus = "not enumerated";
    return;
  }
  d.driverService = Utf8FromUtf16(node->service);
  d.state = wdmsim::DeviceNodeStateName(node->state);
  d.startStatus = KnNtStatusName(node->problemStatus);
  for (wdmsim::DeviceNodeId id : node->children) {
    if (auto child = wdmsim::GetDeviceNode(id)) report->children.push_back(ReportChild(*child));
  }
}

}  // namespace

LoadResult LoadSimDevice(const SimOptions& options) {
  LoadResult result;
  if (options.deviceFile.empty()) {
    result.device.firmware = wdmsim::MakeDemoCompositeFirmware();
    result.device.source = "built-in demo device (RNDIS, CDC ACM, vendor function, notification interface)";
    return result;
  }
  wdmsim::UsbDescriptionResult loaded = wdmsim::LoadUsbDescription(options.deviceFile);
  if (!loaded) {
    result.error = loaded.error.Message();
    return result;
  }
  result.device.firmware = std::make_shared<wdmsim::UsbFirmware>(std::move(*loaded.description));
  result.device.source = options.deviceFile;
  return result;
}

SimReport RunSimulation(const SimOptions& options, const SimDevice& device) {
  SimReport report;
  // Every violation is recorded (and passed to whatever handler the caller installed);
  // the recorded ones are the verdict.
  wdmsim::TakeViolations();
  {
    SimMachine machine(options);
    for (const RegistrySetting& s : options.settings) {
      if (!s.known) report.notes.push_back("the driver does not read \"" + Utf8FromUtf16(s.name) + "\"");
    }
    const wdmsim::UsbDeviceDescription& description = device.firmware->Description();
    if (machine.BindUsbmiTo(description.VendorId(), description.ProductId())) {
      char id[48];
      std::snprintf(id, sizeof(id), "VID_%04X&PID_%04X", description.VendorId(), description.ProductId());
      report.notes.push_back(std::string("the shipped INF does not list ") + id +
                             "; this run installs it with the device added");
    }
    if (machine.Plug(device.firmware)) {
      ReportDevice(options, device, machine, &report);
    } else {
      report.device.source = device.source;
      report.device.startStatus = "no free port";
    }
    std::string trace = machine.TakeTrace();
    if (options.traceMask) report.trace = trace;
  }
  for (const wdmsim::Violation& v : wdmsim::TakeViolations()) report.violations.push_back(v.bugcheck + ": " + v.message);
  return report;
}

}  // namespace usbmisim
