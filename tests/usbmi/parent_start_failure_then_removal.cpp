// A start that fails, at each point where it can, followed by the removal the PnP manager
// sends next: the start reports the failure with its status, and once the parent is removed
// no pool block, IRP or device object of the driver is left. The named failure points come
// first, then every pool allocation and every IRP allocation of the start in turn.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <map>

#include <wdmsim/io.h>
#include <wdmsim/pnp.h>
#include <wdmsim/pool.h>

#include "knmemory.h"
#include "parent_on_usb_bus.h"

namespace usbmitest {
namespace {

std::map<uint32_t, size_t> PoolByTag() {
  std::map<uint32_t, size_t> counts;
  for (const wdmsim::PoolBlockInfo& block : wdmsim::LivePoolBlocks()) {
    counts[block.tag]++;
  }
  return counts;
}

class StartFailureTest : public ParentOnUsbBus {
 protected:
  // Adds the parent, arms the fault, starts, removes; returns the start's status. What the
  // parent allocated is gone afterwards.
  NTSTATUS StartWithFaultThenRemove(const std::function<void()>& arm, const std::function<void()>& disarm) {
    std::map<uint32_t, size_t> before = PoolByTag();
    size_t irps = wdmsim::LiveIrpCount();
    EXPECT_EQ(STATUS_SUCCESS, Add());
    arm();
    NTSTATUS status = Start();
    disarm();
    // Whatever the start left, the PnP manager takes the children away with the parent.
    RemoveParent();
    EXPECT_EQ(before, PoolByTag());
    EXPECT_EQ(irps, wdmsim::LiveIrpCount());
    return status;
  }

  NTSTATUS StartWithUsbFault(const wdmsim::UsbFaultPoint& point, wdmsim::UsbFault fault) {
    NTSTATUS status = StartWithFaultThenRemove([&] { wdmsim::ArmUsbFault(point); },
                                               [&] {
                                                 EXPECT_EQ(1, wdmsim::UsbFaultHits(fault));
                                                 wdmsim::ClearUsbFaults();
                                               });
    return status;
  }
};

TEST_F(StartFailureTest, EachNamedFailurePointFailsTheStartWithItsTrace) {
  Plug(wdmsim::MakeDemoCompositeFirmware());
  TakeTrace();

  // The device descriptor.
  wdmsim::UsbFaultPoint descriptor;
  descriptor.fault = wdmsim::UsbFault::FailUrb;
  descriptor.urbFunction = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
  EXPECT_FALSE(NT_SUCCESS(StartWithUsbFault(descriptor, wdmsim::UsbFault::FailUrb)));
  std::string trace = TakeTrace();
  EXPECT_TRUE(Contains(trace, "usbmi:Device::OnPnpStartDevice: GetDeviceDescriptor failed, stat=")) << trace;
  EXPECT_EQ(0, mFirmware->Configuration());

  // The configuration selection.
  wdmsim::UsbFaultPoint select;
  select.fault = wdmsim::UsbFault::FailUrb;
  select.urbFunction = URB_FUNCTION_SELECT_CONFIGURATION;
  EXPECT_FALSE(NT_SUCCESS(StartWithUsbFault(select, wdmsim::UsbFault::FailUrb)));
  trace = TakeTrace();
  EXPECT_TRUE(Contains(trace, "usbmi:Device::OnPnpStartDevice: SetConfiguration failed, stat=")) << trace;

  // No memory for the first child's configuration set: no child at all. The configuration
  // was selected, and the removal does not unconfigure the device.
  TakeSetConfigurations();
  NTSTATUS status = StartWithFaultThenRemove([] { wdmsim::FailPoolAllocationsWithTag(KN_POOLTAG("USBM")); },
                                             [] {
                                               EXPECT_EQ(1, wdmsim::InjectedPoolFailures());
                                               wdmsim::ClearPoolFaults();
                                             });
  EXPECT_EQ(STATUS_NO_MEMORY, status);
  trace = TakeTrace();
  EXPECT_TRUE(Contains(trace, "usbmi:Device::CreateChildren: KnAllocateMemory failed\n")) << trace;
  EXPECT_TRUE(Contains(trace, "usbmi:Device::OnPnpStartDevice: CreateChildren failed, stat=0xC0000017")) << trace;
  EXPECT_EQ(std::vector<uint16_t>{1}, TakeSetConfigurations());

  // No hardware key.
  wdmsim::ForgetDeviceNode(mPdo);
  EXPECT_FALSE(NT_SUCCESS(StartWithFaultThenRemove([] {}, [] {})));
  trace = TakeTrace();
  EXPECT_TRUE(Contains(trace, "usbmi:Device::OnPnpStartDevice: OpenDeviceRegistryKey failed, stat=")) << trace;
}

TEST_F(StartFailureTest, UnreadableConfigurationSetFailsTheStart) {
  // wTotalLength says 4: shorter than the configuration descriptor itself.
  wdmsim::UsbDeviceDescription good = wdmsim::DemoCompositeDevice();
  std::vector<uint8_t> set = good.configurations[0];
  set[2] = 4;
  set[3] = 0;
  Plug(std::make_shared<wdmsim::UsbFirmware>(wdmsim::UsbDescriptionFromRaw(good.device, {set, good.configurations[1]})));
  TakeTrace();
  EXPECT_FALSE(NT_SUCCESS(StartWithFaultThenRemove([] {}, [] {})));
  std::string trace = TakeTrace();
  EXPECT_TRUE(Contains(trace, "usbmi:Device::OnPnpStartDevice: GetAndAllocate failed, stat=")) << trace;
  EXPECT_EQ(0, mFirmware->Configuration());
}

// Every pool allocation and every IRP allocation from the start of the parent on fails in
// turn, until a start runs without reaching the injected failure.
TEST_F(StartFailureTest, EveryAllocationOfTheStartCanFail) {
  Plug(wdmsim::MakeDemoCompositeFirmware());
  struct Walk {
    const char* what;
    std::function<void(int)> arm;
    std::function<int()> hits;
    std::function<void()> clear;
  } walks[] = {
      {"pool", [](int n) { wdmsim::FailNthPoolAllocation(n); }, [] { return wdmsim::InjectedPoolFailures(); },
       [] { wdmsim::ClearPoolFaults(); }},
      {"IRP", [](int n) { wdmsim::FailNthIrpAllocation(n); }, [] { return wdmsim::InjectedIrpFailures(); },
       [] { wdmsim::ClearIoFaults(); }},
  };
  for (const Walk& walk : walks) {
    SCOPED_TRACE(walk.what);
    int failedStarts = 0;
    int n = 1;
    for (;; n++) {
      SCOPED_TRACE(n);
      int hits = 0;
      NTSTATUS status = StartWithFaultThenRemove([&] { walk.arm(n); },
                                                 [&] {
                                                   hits = walk.hits();
                                                   walk.clear();
                                                 });
      if (hits == 0) {
        EXPECT_EQ(STATUS_SUCCESS, status);  // past the last allocation: a good start
        break;
      }
      failedStarts += NT_SUCCESS(status) ? 0 : 1;
      ASSERT_LT(n, 2000);
    }
    EXPECT_GT(n, 1);
    EXPECT_GT(failedStarts, 0);
  }
  // The idle notification IRP is one of the IRPs walked.
  EXPECT_TRUE(Contains(TakeTrace(), "usbmi:Device::OnPnpStartDevice: IoAllocateIrp failed, stat=0xC000009A")) ;
}

}  // namespace
}  // namespace usbmitest
