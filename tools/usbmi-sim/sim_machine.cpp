#include "sim_machine.h"

#include <ntddk.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <wdmsim/clients.h>
#include <wdmsim/debugout.h>
#include <wdmsim/io.h>
#include <wdmsim/registry.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/verifier.h>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace usbmisim {
namespace {

wdmsim::KernelOptions KernelOptionsFor(const SimOptions& options) {
  wdmsim::KernelOptions kernel;
  kernel.platform = options.platform == PlatformKind::Xp ? wdmsim::Platform::WindowsXp : wdmsim::Platform::WindowsVista;
  return kernel;
}

void WriteSetting(const std::u16string& key, const RegistrySetting& setting) {
  if (setting.isDword) {
    wdmsim::RegistrySetDword(key, setting.name, setting.dword);
  } else {
    wdmsim::RegistrySetString(key, setting.name, setting.text);
  }
}

std::string Narrow(const std::u16string& text) { return std::string(text.begin(), text.end()); }

std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return std::string();
  return text.substr(first, text.find_last_not_of(" \t\r") + 1 - first);
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// The text between `after` and the next `until` (or the end), trimmed; the comment after
// ';' is dropped first.
std::string Field(std::string line, char after, char until) {
  line = line.substr(0, line.find(';'));
  const size_t from = line.find(after);
  if (from == std::string::npos) return std::string();
  return Trim(line.substr(from + 1, line.find(until, from + 1) - from - 1));
}

bool IsEntry(const std::string& line) {
  const std::string t = Trim(line);
  return !t.empty() && t[0] != ';' && t[0] != '[';
}

}  // namespace

std::string InfListingDevice(const std::string& inf, const std::u16string& hardwareId) {
  std::vector<std::string> lines = Lines(inf);
  // "[Manufacturer]" then "%Name% = Models, NTamd64": the models section is "[Models.NTamd64]".
  std::string models;
  for (size_t i = 0; i + 1 < lines.size() && models.empty(); ++i) {
    if (Trim(lines[i]) != "[Manufacturer]") continue;
    for (size_t j = i + 1; j < lines.size() && Trim(lines[j]).rfind("[", 0) != 0; ++j) {
      if (!IsEntry(lines[j])) continue;
      const std::string name = Field(lines[j], '=', ',');
      const std::string decoration = Field(lines[j], ',', ',');
      models = "[" + name + (decoration.empty() ? "" : "." + decoration) + "]";
      break;
    }
  }
  for (size_t i = 0; i < lines.size() && !models.empty(); ++i) {
    if (Trim(lines[i]) != models) continue;
    // The new model line installs like the section's first one.
    for (size_t j = i + 1; j < lines.size() && Trim(lines[j]).rfind("[", 0) != 0; ++j) {
      if (!IsEntry(lines[j])) continue;
      const std::string install = Field(lines[j], '=', ',');
      lines.insert(lines.begin() + i + 1, "\"Device under test\" = " + install + ", " + Narrow(hardwareId));
      std::string out;
      for (size_t k = 0; k < lines.size(); ++k) out += lines[k] + (k + 1 < lines.size() ? "\n" : "");
      return out;
    }
  }
  return std::string();
}

SimMachine::SimMachine(const SimOptions& options) : mKernel(new wdmsim::Kernel(KernelOptionsFor(options))) {
  wdmsim::SetDebugSink(wdmsim::DebugSink::Memory);

  wdmsim::RegisterDriverImage(kUsbmiService, DriverEntry);
  wdmsim::InfError error;
  if (!wdmsim::InstallInf("ruvo_mi_x64.inf", UsbmiInfText(), &error)) {
    wdmsim::ReportViolation("WDMSIM_INBOX_INF_REJECTED", nullptr, "%s", error.Text().c_str());
  }
  if (options.traceMask) {
    wdmsim::RegistrySetDword(wdmsim::ServiceKeyPath(kUsbmiService), u"TraceMask", *options.traceMask);
  }
  wdmsim::InstallGenericFunctionDriver();

  // The user's settings live in the hardware key of every device instance usbmi serves.
  std::vector<RegistrySetting> settings = options.settings;
  wdmsim::SetDeviceInstallHook([this, settings](const wdmsim::DeviceNodeInfo& node, const std::u16string& key) {
    if (node.service != kUsbmiService) return;
    for (const RegistrySetting& setting : settings) WriteSetting(key, setting);
    if (mInstallAction) mInstallAction(node);
  });

  mRootHub = wdmsim::CreateUsbBusForPnp();
  mHub = mRootHub;
  if (options.hub != HubKind::Root) {
    mHub = wdmsim::AttachUsbHub(mRootHub, 1, 4, options.hub == HubKind::BusPowered);
  }
  wdmsim::WaitForPnpIdle();
}

SimMachine::~SimMachine() {
  if (mPort != 0) Unplug();
  wdmsim::DestroyUsbBusForPnp(mRootHub);
  wdmsim::WaitForPnpIdle();
  mKernel.reset();
}

bool SimMachine::BindUsbmiTo(uint16_t vendorId, uint16_t productId) {
  char id[32];
  std::snprintf(id, sizeof(id), "USB\\VID_%04X&PID_%04X", vendorId, productId);
  const std::u16string hardwareId(id, id + std::strlen(id));
  auto match = wdmsim::FindDriver({hardwareId}, {});
  if (match && match->service == kUsbmiService) return false;
  wdmsim::InfError error;
  const std::string inf = InfListingDevice(UsbmiInfText(), hardwareId);
  if (inf.empty() || !wdmsim::InstallInf("ruvo_mi_x64.inf (device added)", inf, &error)) {
    wdmsim::ReportViolation("WDMSIM_INBOX_INF_REJECTED", nullptr, "cannot list %s in the driver's INF: %s", id,
                            error.Text().c_str());
  }
  return true;
}

bool SimMachine::Plug(std::shared_ptr<wdmsim::UsbFirmware> firmware) {
  mPort = wdmsim::AttachUsbDevice(mHub, std::move(firmware));
  wdmsim::WaitForPnpIdle();
  return mPort != 0;
}

void SimMachine::Unplug() {
  wdmsim::UnplugUsbDevice(mHub, mPort);
  mPort = 0;
  wdmsim::WaitForPnpIdle();
}

wdmsim::DeviceNodeId SimMachine::DeviceNode() const {
  if (mPort == 0) return 0;
  PDEVICE_OBJECT pdo = wdmsim::GetUsbPortState(mHub, mPort).pdo;
  return pdo != nullptr ? wdmsim::FindDeviceNodeByPdo(pdo) : 0;
}

std::string SimMachine::TakeTrace() { return wdmsim::TakeDebugOutput(); }

}  // namespace usbmisim
