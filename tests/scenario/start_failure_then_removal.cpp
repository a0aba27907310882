// The parent's start fails at each point where it can: the PnP manager records the failure
// with the driver's status, sends the remove that lets the driver undo its AddDevice and
// whatever the start built (children created but never reported included), and nothing of
// the driver is left once the device is pulled out. The faults are armed just before
// AddDevice, so that only the requests of the driver's own start meet them.
#include "composite_device_under_pnp.h"

#include <functional>

#include <wdmsim/io.h>
#include <wdmsim/pool.h>
#include <wdmsim/usbbus.h>

#include "knmemory.h"

namespace scenario {
namespace {

// Sentinel for a URB the stack fails: the start must fail with exactly this status.
constexpr NTSTATUS kUrbFailure = STATUS_DEVICE_DATA_ERROR;

// The demo device, but it stalls every request for a configuration descriptor.
class ConfigurationUnreadableFirmware : public wdmsim::UsbFirmware {
 public:
  ConfigurationUnreadableFirmware() : UsbFirmware(wdmsim::DemoCompositeDevice()) {}

 protected:
  wdmsim::UsbTransferResult OnStandardRequest(const wdmsim::UsbSetupPacket& setup, uint8_t* data) override {
    const uint8_t kGetDescriptor = 6, kConfigurationType = 2;
    if (setup.bRequest == kGetDescriptor && (setup.wValue >> 8) == kConfigurationType) {
      return wdmsim::UsbTransferResult::Stall();
    }
    return UsbFirmware::OnStandardRequest(setup, data);
  }
};

// The demo device whose first configuration says it is 4 bytes long: shorter than its own
// configuration descriptor.
std::shared_ptr<wdmsim::UsbFirmware> ConfigurationTooShortFirmware() {
  wdmsim::UsbDeviceDescription demo = wdmsim::DemoCompositeDevice();
  std::vector<uint8_t> set = demo.configurations[0];
  set[2] = 4;
  set[3] = 0;
  return std::make_shared<wdmsim::UsbFirmware>(
      wdmsim::UsbDescriptionFromRaw(demo.device, {set, demo.configurations[1]}));
}

wdmsim::UsbFaultPoint FailingUrb(USHORT urbFunction) {
  wdmsim::UsbFaultPoint point;
  point.fault = wdmsim::UsbFault::FailUrb;
  point.urbFunction = urbFunction;
  point.irpStatus = kUrbFailure;
  return point;
}

class StartFailureUnderPnp : public CompositeDeviceUnderPnp {
 protected:
  // Plugs the device with the fault armed before AddDevice and cleared once the PnP manager
  // is idle again.
  void PlugWithFault(std::shared_ptr<wdmsim::UsbFirmware> firmware, const std::function<void()>& arm) {
    mMachine->SetUsbmiInstallAction([arm](const DeviceNodeInfo&) { arm(); });
    Plug(std::move(firmware));
    mMachine->SetUsbmiInstallAction(nullptr);
  }

  // A start that failed: the status is the node's, the remove followed the start at once,
  // and no child of the parent became a node.
  void ExpectFailedStartRemoved(NTSTATUS status) {
    DeviceNodeInfo parent = Node(ParentNode());
    EXPECT_EQ(DeviceNodeState::StartFailed, parent.state);
    EXPECT_EQ(status, parent.problemStatus);
    ASSERT_LE(2u, parent.requests.size());
    EXPECT_EQ("START_DEVICE", parent.requests[parent.requests.size() - 2].name);
    EXPECT_EQ(status, parent.requests[parent.requests.size() - 2].status);
    EXPECT_EQ("REMOVE_DEVICE", parent.requests.back().name);
    EXPECT_EQ(STATUS_SUCCESS, parent.requests.back().status);
    EXPECT_TRUE(parent.children.empty());
    EXPECT_EQ(nullptr, ParentPdo()->AttachedDevice);
  }

  // Pulls the device out: its node goes, and nothing the driver allocated is left.
  void UnplugAndExpectNothingLeft(const LiveResources& before) {
    TakeTrace();
    Unplug();
    EXPECT_EQ(DeviceNodeState::Deleted, Node(ParentNode()).state);
    EXPECT_EQ(before, TakeLiveResources());
  }
};

TEST_F(StartFailureUnderPnp, EachFailurePointOfTheStartEndsInARemoveThatLeavesNothing) {
  struct Point {
    const char* what;
    std::function<std::shared_ptr<wdmsim::UsbFirmware>()> firmware;
    std::function<void()> arm;   // empty: the firmware is the fault
    std::function<int()> hits;  // how often the armed fault took effect
    NTSTATUS status;
    const char* trace;
  };
  const auto demo = [] { return std::shared_ptr<wdmsim::UsbFirmware>(wdmsim::MakeDemoCompositeFirmware()); };
  const auto usbHits = [] { return wdmsim::UsbFaultHits(wdmsim::UsbFault::FailUrb); };
  const Point points[] = {
      {"device descriptor unreadable", demo,
       [] { wdmsim::ArmUsbFault(FailingUrb(URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE)); }, usbHits, kUrbFailure,
       "usbmi:Device::OnPnpStartDevice: GetDeviceDescriptor failed, stat="},
      // A stalled control request fails as STATUS_UNSUCCESSFUL, as a set the driver rejects.
      {"configuration set unreadable", [] { return std::make_shared<ConfigurationUnreadableFirmware>(); }, nullptr,
       nullptr, STATUS_UNSUCCESSFUL, "usbmi:Device::OnPnpStartDevice: GetAndAllocate failed, stat=0xC0000001"},
      {"configuration set too short", ConfigurationTooShortFirmware, nullptr, nullptr, STATUS_UNSUCCESSFUL,
       "usbmi:Device::OnPnpStartDevice: GetAndAllocate failed, stat=0xC0000001"},
      {"selection failing", demo, [] { wdmsim::ArmUsbFault(FailingUrb(URB_FUNCTION_SELECT_CONFIGURATION)); },
       usbHits, kUrbFailure, "usbmi:Device::OnPnpStartDevice: SetConfiguration failed, stat="},
      {"no memory for the children's configuration sets", demo,
       [] { wdmsim::FailPoolAllocationsWithTag(KN_POOLTAG("USBM")); }, [] { return wdmsim::InjectedPoolFailures(); },
       STATUS_NO_MEMORY, "usbmi:Device::OnPnpStartDevice: CreateChildren failed, stat=0xC0000017"},
  };
  for (const Point& point : points) {
    SCOPED_TRACE(point.what);
    const LiveResources before = TakeLiveResources();
    TakeTrace();
    PlugWithFault(point.firmware(), point.arm ? point.arm : [] {});
    if (point.hits) {
      EXPECT_EQ(1, point.hits());
    }
    wdmsim::ClearUsbFaults();
    wdmsim::ClearPoolFaults();

    ExpectFailedStartRemoved(point.status);
    const std::string trace = TakeTrace();
    EXPECT_TRUE(Contains(trace, point.trace)) << trace;
    // Its only device removed, the driver is unloaded, which the kernel refuses (and
    // reports) while any device object of the driver is left.
    EXPECT_TRUE(Contains(trace, "usbmi:DriverUnload")) << trace;
    UnplugAndExpectNothingLeft(before);
  }
}

// Every IRP the start allocates fails in turn, up to the idle notification IRP, the last one
// whose failure fails the start: by then the children exist and their arrival is announced,
// yet the parent never reports them, and its removal destroys them.
TEST_F(StartFailureUnderPnp, EveryIrpAllocationOfTheStartCanFail) {
  int failedStarts = 0;
  bool idleIrpFailed = false;
  for (int n = 1; !idleIrpFailed; ++n) {
    SCOPED_TRACE(n);
    ASSERT_LT(n, 200) << "the idle notification IRP was never allocated";
    const LiveResources before = TakeLiveResources();
    TakeTrace();
    PlugWithFault(wdmsim::MakeDemoCompositeFirmware(), [n] { wdmsim::FailNthIrpAllocation(n); });
    EXPECT_EQ(1, wdmsim::InjectedIrpFailures());
    wdmsim::ClearIoFaults();
    const std::string trace = TakeTrace();

    DeviceNodeInfo parent = Node(ParentNode());
    if (parent.state == DeviceNodeState::Started) {
      // A request the start can do without (the hub's power budget, a child's text).
      EXPECT_EQ(3u, parent.children.size());
      for (const DeviceNodeInfo& child : Children()) EXPECT_EQ(DeviceNodeState::Started, child.state);
    } else {
      failedStarts++;
      EXPECT_FALSE(NT_SUCCESS(parent.problemStatus));
      ExpectFailedStartRemoved(parent.problemStatus);
      EXPECT_TRUE(Contains(trace, "usbmi:DriverUnload")) << trace;
      idleIrpFailed = Contains(trace, "usbmi:Device::OnPnpStartDevice: IoAllocateIrp failed, stat=");
      if (idleIrpFailed) {
        EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, parent.problemStatus);
        EXPECT_EQ(3, CountOf(trace, kChildDestroyed)) << trace;
        EXPECT_EQ(0, CountOf(trace, kChildDeletedOnItsRemoval)) << trace;
      }
    }
    UnplugAndExpectNothingLeft(before);
  }
  EXPECT_LT(3, failedStarts);
}

}  // namespace
}  // namespace scenario
