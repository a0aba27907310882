// The sysfs `descriptors` reader: every framing error is reported at the exact byte, and a
// description survives the trip through the binary layout unchanged.
#include <gtest/gtest.h>

#include <wdmsim/usbdevice.h>

namespace {

using wdmsim::UsbDescriptionError;

// The demo device's binary: 18 + 180 + 91 = 289 bytes; the second set starts at 198.
std::vector<uint8_t> DemoBytes() { return wdmsim::DemoCompositeDevice().ToSysfsBytes(); }

struct SysfsCase {
  const char* name;
  std::vector<uint8_t> bytes;
  uint64_t offset;
  const char* what;  // a part of the message
};

TEST(UsbDescriptionSysfs, FramingErrorsNameTheExactByte) {
  std::vector<uint8_t> demo = DemoBytes();
  ASSERT_EQ(demo.size(), 289u);
  auto with = [&](size_t offset, uint8_t value) {
    auto bytes = demo;
    bytes[offset] = value;
    return bytes;
  };
  auto truncated = demo;
  truncated.pop_back();
  auto longer = demo;
  longer.push_back(0x00);
  auto threeSets = demo;
  threeSets.insert(threeSets.end(), demo.begin() + 198, demo.end());
  auto deviceOnly = std::vector<uint8_t>(demo.begin(), demo.begin() + 18);
  // A 10-byte set whose last byte is a lone descriptor header byte.
  std::vector<uint8_t> loneByte(demo.begin(), demo.begin() + 18);
  loneByte[17] = 1;
  loneByte.insert(loneByte.end(), {0x09, 0x02, 0x0A, 0x00, 0x00, 0x01, 0x00, 0x80, 0x32, 0x05});

  const SysfsCase cases[] = {
      {"empty", {}, 0, "empty file"},
      {"device descriptor one byte short", std::vector<uint8_t>(demo.begin(), demo.begin() + 17), 0, "17 of 18"},
      {"device bLength 17", with(0, 17), 0, "found bLength 17 type 0x01"},
      {"device type 2", with(1, 2), 0, "type 0x02"},
      {"one byte short", truncated, 198, "wTotalLength 91 runs past the end of the file (90 bytes left)"},
      {"one byte long", longer, 289, "1 byte of trailing garbage after the last of 2 configurations"},
      {"more sets than announced", threeSets, 289, "more configurations than bNumConfigurations 2"},
      {"fewer sets than announced", with(17, 3), 289, "file ends after 2 of 3 configurations"},
      {"wTotalLength 8", with(20, 8), 18, "wTotalLength 8 is smaller than 9"},
      {"wTotalLength 0", with(20, 0), 18, "wTotalLength 0 is smaller than 9"},
      {"configuration bLength 10", with(18, 10), 18, "expected a configuration descriptor"},
      {"second set not a configuration", with(199, 4), 198, "configuration index 1: expected a configuration"},
      {"bLength 0 of the first interface", with(35, 0), 35, "bLength 0 (type 0x04)"},
      {"bLength 1 of an endpoint", with(191, 1), 191, "bLength 1 (type 0x05)"},
      {"last descriptor runs past wTotalLength", with(191, 8), 191,
       "bLength 8 runs past the end of the set (7 bytes left)"},
      {"a lone byte at the end of a set", loneByte, 27, "1 byte left in the set"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto result = wdmsim::ParseSysfsDescriptors(c.bytes, "dev.bin");
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error.where, UsbDescriptionError::Where::ByteOffset);
    EXPECT_EQ(result.error.position, c.offset);
    EXPECT_NE(result.error.what.find(c.what), std::string::npos) << result.error.what;
    EXPECT_EQ(result.error.Message().rfind("dev.bin: byte " + std::to_string(c.offset) + ": ", 0), 0u)
        << result.error.Message();
  }

  // Only the device descriptor of a device that announces two sets.
  auto noSet = wdmsim::ParseSysfsDescriptors(deviceOnly, "dev.bin");
  ASSERT_FALSE(noSet);
  EXPECT_EQ(noSet.error.position, 18u);
  EXPECT_NE(noSet.error.what.find("after 0 of 2"), std::string::npos);
}

TEST(UsbDescriptionSysfs, AcceptsExactFramingAtEveryBoundary) {
  // The exact file parses; each set is cut exactly at its wTotalLength.
  auto result = wdmsim::ParseSysfsDescriptors(DemoBytes(), "demo.bin");
  ASSERT_TRUE(result) << result.error.Message();
  ASSERT_EQ(result.description->configurations.size(), 2u);
  EXPECT_EQ(result.description->configurations[0].size(), 180u);
  EXPECT_EQ(result.description->configurations[1].size(), 91u);
  EXPECT_EQ(result.description->name, "demo.bin");
  EXPECT_TRUE(result.description->strings.empty());  // sysfs carries no strings

  // A device that announces no configuration and has none; and a set of exactly 9 bytes.
  std::vector<uint8_t> bytes = DemoBytes();
  bytes.resize(18);
  bytes[17] = 0;
  EXPECT_TRUE(wdmsim::ParseSysfsDescriptors(bytes, "none.bin"));
  bytes[17] = 1;
  bytes.insert(bytes.end(), {0x09, 0x02, 0x09, 0x00, 0x00, 0x01, 0x00, 0x80, 0x32});
  auto bare = wdmsim::ParseSysfsDescriptors(bytes, "bare.bin");
  ASSERT_TRUE(bare) << bare.error.Message();
  EXPECT_EQ(bare.description->configurations[0].size(), 9u);
}

TEST(UsbDescriptionSysfs, RoundTripKeepsEveryByte) {
  // Sentinel values in fields nobody computes show the bytes pass through untouched.
  auto built = wdmsim::UsbDescriptionBuilder(0xBEEF, 0xCAFE)
                   .DeviceClass(0x00, 0x00, 0x00)
                   .DeviceRelease(0x1234)
                   .Configuration(7, 0xC0, 2, u"")
                   .Interface(3, 0, 0xFF, 0x5A, 0xA5)
                   .Descriptor({0x06, 0x41, 0xDE, 0xAD, 0xBE, 0xEF})
                   .BulkIn(0x8E, 0x0040)
                   .Configuration(9, 0x80, 510)
                   .Interface(0, 0, 0x08, 0x06, 0x50)
                   .BulkIn(0x81)
                   .BulkOut(0x02)
                   .Build();
  built.strings.clear();
  built.languages.clear();
  auto parsed = wdmsim::ParseSysfsDescriptors(built.ToSysfsBytes(), "x.bin");
  ASSERT_TRUE(parsed) << parsed.error.Message();
  EXPECT_EQ(*parsed.description, built);
  EXPECT_EQ(parsed.description->ToSysfsBytes(), built.ToSysfsBytes());
  EXPECT_EQ(parsed.description->VendorId(), 0xBEEF);
  EXPECT_EQ(parsed.description->ConfigurationValue(1), 9);
  EXPECT_EQ(parsed.description->MaxPowerMilliamps(1), 510u);
}

}  // namespace
