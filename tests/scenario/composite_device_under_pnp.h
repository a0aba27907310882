// A composite device on the machine usbmi-sim runs: usbmi installed from its INF, the hub
// driver and the generic function driver in-box, and the PnP manager deciding every request
// the parent and its children see. Tests plug a device, run PnP operations and read the
// device nodes, the requests each node saw, what the device was asked over USB and the
// driver's trace (errors, warnings and flow).
#pragma once
#include <gtest/gtest.h>

#include <ntddk.h>
#include <usb.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <wdmsim/pnpmanager.h>
#include <wdmsim/usbdevice.h>

#include "sim_machine.h"

namespace scenario {

using wdmsim::DeviceNodeInfo;
using wdmsim::DeviceNodeState;

// What a run holds that a driver could leak: pool blocks by tag and IRPs.
struct LiveResources {
  std::map<uint32_t, size_t> poolBlocksByTag;
  size_t irps = 0;
  bool operator==(const LiveResources& o) const { return poolBlocksByTag == o.poolBlocksByTag && irps == o.irps; }
};
LiveResources TakeLiveResources();
void PrintTo(const LiveResources& resources, std::ostream* out);

class CompositeDeviceUnderPnp : public testing::Test {
 protected:
  CompositeDeviceUnderPnp();
  ~CompositeDeviceUnderPnp() override;

  // Plugs the device into the root hub and waits until the PnP manager is done.
  void Plug(std::shared_ptr<wdmsim::UsbFirmware> firmware = wdmsim::MakeDemoCompositeFirmware());
  // Plugs the demo device and returns its three running children, with the requests, URBs
  // and trace of the arrival taken: what a test looks at next is what comes after.
  std::vector<DeviceNodeInfo> PlugDemoAndSettle();
  void Unplug();
  // Runs the operation on the node, expects its outcome and waits for what follows it.
  void RunOperation(wdmsim::PnpOperation operation, wdmsim::DeviceNodeId node, NTSTATUS expected = STATUS_SUCCESS);

  // The plugged device's node (it keeps the id after it was deleted).
  wdmsim::DeviceNodeId ParentNode() const { return mParentNode; }
  PDEVICE_OBJECT ParentPdo() const { return mParentPdo; }
  static DeviceNodeInfo Node(wdmsim::DeviceNodeId node);
  // The parent's child nodes in the order of its last bus relations answer.
  std::vector<DeviceNodeInfo> Children() const;
  // The child PDOs usbmi holds, reported or not (the parent's FDO must be attached).
  std::vector<PDEVICE_OBJECT> UsbmiChildPdos() const;
  // Requests the node saw since the last call for it (all of them the first time).
  std::vector<std::string> NewRequests(wdmsim::DeviceNodeId node);
  // URB functions the plugged device received since the last call, and how many of them
  // were configuration selections (unconfiguring included).
  std::vector<USHORT> TakeUrbs();
  static int Selections(const std::vector<USHORT>& urbs);
  std::string TakeTrace() { return mMachine->TakeTrace(); }

  std::unique_ptr<usbmisim::SimMachine> mMachine;
  std::shared_ptr<wdmsim::UsbFirmware> mFirmware;

 private:
  wdmsim::DeviceNodeId mParentNode = 0;
  PDEVICE_OBJECT mParentPdo = nullptr;
  std::map<wdmsim::DeviceNodeId, size_t> mRequestsSeen;
};

// The requests after a successful start: capabilities, device state, bus relations.
std::vector<std::string> AfterStartRequests();

bool Contains(const std::string& text, const std::string& part);
int CountOf(const std::string& text, const std::string& part);

// What the driver's flow trace says when a child goes: deleted by its own removal after it
// was reported missing, or destroyed with the parent that still held it.
inline constexpr char kChildDeletedOnItsRemoval[] = "KnBusChildPdo::OnDispatchPnp: deleting KnBusChildPdo instance";
inline constexpr char kChildDestroyed[] = "KnBusChildPdo::~KnBusChildPdo: instance";

}  // namespace scenario
