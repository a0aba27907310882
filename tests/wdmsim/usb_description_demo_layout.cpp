// The built-in demo device has exactly the layout the driver's function division is
// meant for, and the builder fills in the counts and lengths that real devices carry.
#include <gtest/gtest.h>

#include <wdmsim/usbdevice.h>

#include "usb_description_walk.h"

namespace {

using usb_description_test::Descriptors;
using usb_description_test::Layout;

// Every interface descriptor of a set names a string that exists in every language.
void ExpectInterfaceStrings(const wdmsim::UsbDeviceDescription& d, size_t index) {
  for (const auto& desc : Descriptors(d.configurations[index])) {
    if (desc[1] != 0x04) continue;
    for (uint16_t language : d.languages) {
      EXPECT_NE(d.FindString(desc[8], language), nullptr) << "interface " << int(desc[2]);
    }
  }
}

// The high-power configuration has every function; the low-power one is smaller and
// self-powered. Identifiers and strings of the device are checked through the hub
// (usb_bus_device_identity.cpp).
TEST(UsbDescriptionDemoLayout, ConfigurationsCarryTheirFunctionsAndPower) {
  const auto d = wdmsim::DemoCompositeDevice();
  EXPECT_FALSE(d.FramingError().has_value()) << *d.FramingError();
  struct Expected {
    size_t total;
    int interfaces, value;
    unsigned milliamps;
    bool selfPowered;
    std::vector<std::string> layout;
  };
  const Expected expected[] = {
      {180, 6, 1, 500, false,
       {"IAD 0+2 EF/04/01", "0/0 02/02/FF eps=1 ep 81 type 3 mps 8",
        "1/0 0A/00/00 eps=2 ep 82 type 2 mps 512 ep 01 type 2 mps 512", "IAD 2+2 02/02/01",
        "2/0 02/02/01 eps=1 ep 83 type 3 mps 16", "3/0 0A/00/00 eps=2 ep 84 type 2 mps 512 ep 02 type 2 mps 512",
        "4/0 FF/FF/00 eps=2 ep 85 type 2 mps 512 ep 03 type 2 mps 512", "5/0 FF/01/00 eps=1 ep 86 type 3 mps 4"}},
      {91, 3, 2, 100, true,
       {"IAD 0+2 02/02/01", "0/0 02/02/01 eps=1 ep 81 type 3 mps 16",
        "1/0 0A/00/00 eps=2 ep 82 type 2 mps 512 ep 01 type 2 mps 512", "2/0 FF/01/00 eps=1 ep 83 type 3 mps 4"}},
  };
  ASSERT_EQ(d.NumConfigurations(), 2);
  for (size_t i = 0; i < 2; ++i) {
    SCOPED_TRACE(testing::Message() << "configuration index " << i);
    const auto& set = d.configurations[i];
    const Expected& e = expected[i];
    ASSERT_EQ(set.size(), e.total);
    EXPECT_EQ(set[2] | set[3] << 8, static_cast<int>(e.total));
    EXPECT_EQ(set[4], e.interfaces);
    EXPECT_EQ(set[7] & 0x80, 0x80);  // bit 7 is reserved as one
    EXPECT_EQ(d.ConfigurationValue(i), e.value);
    EXPECT_EQ(d.ConfigurationIndex(e.value), std::optional<size_t>(i));
    EXPECT_EQ(d.MaxPowerMilliamps(i), e.milliamps);
    EXPECT_EQ(d.SelfPowered(i), e.selfPowered);
    EXPECT_TRUE(d.SupportsRemoteWakeup(i));
    ExpectInterfaceStrings(d, i);
    EXPECT_EQ(Layout(set), e.layout);
  }
  // The ACM communication interface carries header, call management, ACM and union, in
  // that order, with the union naming its data interface.
  std::vector<std::vector<uint8_t>> functional;
  bool inAcm = false;
  for (const auto& desc : Descriptors(d.configurations[0])) {
    if (desc[1] == 0x04) inAcm = desc[2] == 2;
    if (inAcm && desc[1] == 0x24) functional.push_back(desc);
  }
  EXPECT_EQ(functional, (std::vector<std::vector<uint8_t>>{{0x05, 0x24, 0x00, 0x10, 0x01},
                                                           {0x05, 0x24, 0x01, 0x00, 0x03},
                                                           {0x04, 0x24, 0x02, 0x02},
                                                           {0x05, 0x24, 0x06, 0x02, 0x03}}));
  // Out of range and too-short sets read as zero rather than past the bytes.
  EXPECT_EQ(d.ConfigurationIndex(3), std::nullopt);
  EXPECT_EQ(d.MaxPowerMilliamps(2), 0u);
  auto shortSet = wdmsim::UsbDescriptionFromRaw({0x12}, {{0x09, 0x02, 0x09}});
  EXPECT_EQ(shortSet.ConfigurationValue(0), 0);
  EXPECT_EQ(shortSet.VendorId(), 0);
  EXPECT_EQ(shortSet.NumConfigurations(), 0);
}

TEST(UsbDescriptionDemoLayout, BuilderComputesCountsAndSharesStrings) {
  auto d = wdmsim::UsbDescriptionBuilder(0x4A9B, 0x0050)
               .Manufacturer(u"M")
               .Product(u"P")
               .Languages({0x0409, 0x0407})
               .Configuration(1, 0x80, 100, u"P")  // same text as the product: same index
               .Interface(0, 0, 0x02, 0x06, 0x00, u"ctl")
               .CdcHeader()
               .CdcUnion(0, {1})
               .CdcEthernet(u"020000000001")
               .InterruptIn(0x81, 16, 8)
               .Interface(1, 0, 0x0A, 0x00, 0x00)
               .Interface(1, 1, 0x0A, 0x00, 0x00)
               .BulkIn(0x82)
               .BulkOut(0x01)
               .Descriptor({0x04, 0x30, 0x00, 0x00})  // not an endpoint: not counted
               .Build();
  EXPECT_FALSE(d.FramingError().has_value()) << *d.FramingError();
  const auto& set = d.configurations[0];
  EXPECT_EQ(set.size(), 9u + 9 + 5 + 5 + 13 + 7 + 9 + 9 + 7 + 7 + 4);
  EXPECT_EQ(set[2] | set[3] << 8, static_cast<int>(set.size()));
  EXPECT_EQ(set[4], 2);  // interface 1 counts once for both alternate settings
  EXPECT_EQ(set[6], d.device[15]);
  EXPECT_EQ(d.device[17], 1);
  const auto descriptors = Descriptors(set);
  std::vector<int> endpointCounts;
  for (const auto& desc : descriptors) {
    if (desc[1] == 0x04) endpointCounts.push_back(desc[4]);
  }
  EXPECT_EQ(endpointCounts, (std::vector<int>{1, 0, 2}));
  // The Ethernet descriptor's MAC string index resolves in both languages.
  const auto& ethernet = descriptors[4];
  ASSERT_EQ(ethernet[2], 0x0F);
  EXPECT_EQ(*d.FindString(ethernet[3], 0x0407), u"020000000001");
  EXPECT_EQ(d.strings.size(), 2u * 4);  // M, P, ctl, MAC in two languages
}

TEST(UsbDescriptionDemoLayout, FramingErrorNamesTheDefect) {
  const auto demo = wdmsim::DemoCompositeDevice();
  auto check = [](wdmsim::UsbDeviceDescription d, const std::string& expected) {
    auto error = d.FramingError();
    ASSERT_TRUE(error.has_value()) << expected;
    EXPECT_NE(error->find(expected), std::string::npos) << *error;
  };
  auto d = demo;
  d.device.pop_back();
  check(d, "device descriptor is not 18 bytes");
  d = demo;
  d.configurations.pop_back();
  check(d, "bNumConfigurations 2 but 1 configuration sets");
  d = demo;
  d.configurations[1].push_back(0);
  check(d, "configuration index 1: byte 91: descriptor cut off");
  d = demo;
  d.configurations[1].insert(d.configurations[1].end(), {0x02, 0x24});
  check(d, "configuration index 1: wTotalLength 91 but the set has 93 bytes");
  d = demo;
  d.configurations[0][9] = 0;
  check(d, "configuration index 0: byte 9: descriptor with bLength 0");
}

}  // namespace
