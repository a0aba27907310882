// Which configuration the start selects on the device: "HighPowerCfg" where the hub can
// supply 500 mA (a root hub or a self-powered hub), "LowPowerCfg" behind a bus-powered hub,
// low 8 bits only, clamped to the last configuration; without settings the first.
#include <gtest/gtest.h>

#include <ntddk.h>

#include "parent_on_usb_bus.h"

namespace usbmitest {
namespace {

enum class Hub { Root, SelfPowered, BusPowered };

struct Case {
  const char* what;
  Hub hub;
  int highPowerCfg;  // -1: not set
  int lowPowerCfg;
  uint8_t expectedValue;  // bConfigurationValue selected on the device (index + 1 on the demo)
  int expectedMilliamps;
};

class ConfigurationChoiceTest : public ParentOnUsbBus {};

TEST_F(ConfigurationChoiceTest, HubPowerAndSettingsChooseTheConfiguration) {
  const Case cases[] = {
      {"no settings", Hub::Root, -1, -1, 1, 500},
      {"root hub, high power 1", Hub::Root, 1, 0, 2, 500},
      {"self-powered hub, high power 1", Hub::SelfPowered, 1, 0, 2, 500},
      {"high power 5 is clamped to the last index", Hub::SelfPowered, 5, 0, 2, 500},
      {"high power 0x101 is index 1", Hub::Root, 0x101, 0, 2, 500},
      {"high power 0x100 is index 0", Hub::Root, 0x100, 1, 1, 500},
      {"bus-powered hub takes low power 0", Hub::BusPowered, 1, 0, 1, 100},
      {"bus-powered hub takes low power 1", Hub::BusPowered, 0, 1, 2, 100},
  };
  const int selfPowered = mBus->AttachHub(mBus->RootHub(), 1, 4, false);
  const int busPowered = mBus->AttachHub(mBus->RootHub(), 2, 4, true);
  ASSERT_NE(0, selfPowered);
  ASSERT_NE(0, busPowered);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    int hub = c.hub == Hub::Root ? 0 : c.hub == Hub::SelfPowered ? selfPowered : busPowered;
    std::shared_ptr<wdmsim::UsbFirmware> firmware = wdmsim::MakeDemoCompositeFirmware();
    Plug(firmware, hub);
    if (c.highPowerCfg >= 0) {
      SetSetting(u"HighPowerCfg", ULONG(c.highPowerCfg));
    }
    if (c.lowPowerCfg >= 0) {
      SetSetting(u"LowPowerCfg", ULONG(c.lowPowerCfg));
    }
    TakeTrace();
    ASSERT_EQ(STATUS_SUCCESS, AddAndStart());
    EXPECT_EQ(c.expectedValue, firmware->Configuration());
    std::string trace = TakeTrace();
    std::string power = "usbmi:Device::OnPnpStartDevice: Hub supports cuurrent up to " +
                        std::to_string(c.expectedMilliamps) + " mA\n";
    EXPECT_TRUE(Contains(trace, power)) << trace;
    EXPECT_TRUE(Contains(trace, c.hub == Hub::Root ? "device is connected to a  root Hub"
                                                   : "is connected to an external Hub"))
        << trace;
    RemoveParent();
    Unplug();
  }
}

}  // namespace
}  // namespace usbmitest
