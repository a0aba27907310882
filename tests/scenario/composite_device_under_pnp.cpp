#include "composite_device_under_pnp.h"

#include <algorithm>
#include <optional>
#include <ostream>

#include <wdmsim/io.h>
#include <wdmsim/pool.h>
#include <wdmsim/usbbus.h>

namespace scenario {

LiveResources TakeLiveResources() {
  LiveResources resources;
  for (const wdmsim::PoolBlockInfo& block : wdmsim::LivePoolBlocks()) resources.poolBlocksByTag[block.tag]++;
  resources.irps = wdmsim::LiveIrpCount();
  return resources;
}

void PrintTo(const LiveResources& resources, std::ostream* out) {
  *out << resources.irps << " IRPs, pool:";
  for (const auto& [tag, count] : resources.poolBlocksByTag) *out << " " << wdmsim::TagText(tag) << "=" << count;
}

namespace {

// Errors, warnings and the framework's flow, which names every object it deletes.
usbmisim::SimOptions TracingFlow() {
  usbmisim::SimOptions options;
  options.traceMask = 0x7;
  return options;
}

}  // namespace

CompositeDeviceUnderPnp::CompositeDeviceUnderPnp() : mMachine(new usbmisim::SimMachine(TracingFlow())) {}

CompositeDeviceUnderPnp::~CompositeDeviceUnderPnp() {
  // The device goes with the machine; the kernel's end-of-run checks report what is left.
  mMachine.reset();
}

void CompositeDeviceUnderPnp::Plug(std::shared_ptr<wdmsim::UsbFirmware> firmware) {
  mFirmware = firmware;
  ASSERT_TRUE(mMachine->Plug(std::move(firmware)));
  mParentPdo = wdmsim::GetUsbPortState(mMachine->Hub(), mMachine->Port()).pdo;
  mParentNode = mMachine->DeviceNode();
  ASSERT_NE(0u, mParentNode);
}

std::vector<DeviceNodeInfo> CompositeDeviceUnderPnp::PlugDemoAndSettle() {
  Plug();
  std::vector<DeviceNodeInfo> children = Children();
  EXPECT_EQ(3u, children.size());
  NewRequests(mParentNode);
  for (const DeviceNodeInfo& child : children) NewRequests(child.id);
  TakeUrbs();
  TakeTrace();
  return children;
}

void CompositeDeviceUnderPnp::Unplug() { mMachine->Unplug(); }

void CompositeDeviceUnderPnp::RunOperation(wdmsim::PnpOperation operation, wdmsim::DeviceNodeId node,
                                           NTSTATUS expected) {
  EXPECT_EQ(expected, wdmsim::RunPnpOperation(operation, node));
  wdmsim::WaitForPnpIdle();
}

DeviceNodeInfo CompositeDeviceUnderPnp::Node(wdmsim::DeviceNodeId node) {
  std::optional<DeviceNodeInfo> info = wdmsim::GetDeviceNode(node);
  EXPECT_TRUE(info.has_value()) << "node " << node;
  return info.value_or(DeviceNodeInfo());
}

std::vector<DeviceNodeInfo> CompositeDeviceUnderPnp::Children() const {
  std::vector<DeviceNodeInfo> children;
  for (wdmsim::DeviceNodeId child : Node(mParentNode).children) children.push_back(Node(child));
  return children;
}

std::vector<PDEVICE_OBJECT> CompositeDeviceUnderPnp::UsbmiChildPdos() const {
  std::vector<PDEVICE_OBJECT> children;
  PDEVICE_OBJECT fdo = mParentPdo->AttachedDevice;
  if (fdo == nullptr) {
    ADD_FAILURE() << "usbmi is not attached to the device";
    return children;
  }
  for (PDEVICE_OBJECT device = fdo->DriverObject->DeviceObject; device != nullptr; device = device->NextDevice) {
    if (device != fdo) children.push_back(device);
  }
  return children;
}

std::vector<std::string> CompositeDeviceUnderPnp::NewRequests(wdmsim::DeviceNodeId node) {
  std::vector<std::string> all = wdmsim::DeviceNodeRequestNames(node);
  size_t& seen = mRequestsSeen[node];
  std::vector<std::string> fresh(all.begin() + std::min(seen, all.size()), all.end());
  seen = all.size();
  return fresh;
}

std::vector<USHORT> CompositeDeviceUnderPnp::TakeUrbs() { return wdmsim::TakeUsbUrbLog(mParentPdo); }

int CompositeDeviceUnderPnp::Selections(const std::vector<USHORT>& urbs) {
  return static_cast<int>(std::count(urbs.begin(), urbs.end(), URB_FUNCTION_SELECT_CONFIGURATION));
}

std::vector<std::string> AfterStartRequests() {
  return {"QUERY_CAPABILITIES", "QUERY_PNP_DEVICE_STATE", "QUERY_DEVICE_RELATIONS BusRelations"};
}

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

int CountOf(const std::string& text, const std::string& part) {
  int count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) count++;
  return count;
}

}  // namespace scenario
