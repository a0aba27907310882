// usbmi-sim's command line: typed registry settings, and one clear error per bad argument.
#include <gtest/gtest.h>

#include "sim_options.h"

namespace {

using usbmisim::HubKind;
using usbmisim::ParseCommandLine;
using usbmisim::PlatformKind;

TEST(CommandLine, SettingsTakeTheTypeTheDriverReads) {
  auto result = ParseCommandLine({"--set", "FamilyName=123", "--set=HighPowerCfg=0x101", "--set", "Extra=7",
                                  "--set", "Other=a=b", "--hub", "self", "--platform=xp", "--json"});
  ASSERT_TRUE(result) << result.error;
  const auto& s = result.options.settings;
  ASSERT_EQ(s.size(), 4u);
  // A family name that looks like a number is still a string.
  EXPECT_FALSE(s[0].isDword);
  EXPECT_EQ(s[0].text, u"123");
  EXPECT_TRUE(s[0].known);
  EXPECT_TRUE(s[1].isDword);
  EXPECT_EQ(s[1].dword, 0x101u);
  // Values the driver does not read are typed by their look, and marked unknown.
  EXPECT_TRUE(s[2].isDword);
  EXPECT_FALSE(s[2].known);
  EXPECT_FALSE(s[3].isDword);
  EXPECT_EQ(s[3].name, u"Other");
  EXPECT_EQ(s[3].text, u"a=b");
  EXPECT_EQ(result.options.hub, HubKind::SelfPowered);
  EXPECT_EQ(result.options.platform, PlatformKind::Xp);
  EXPECT_TRUE(result.options.json);
}

TEST(CommandLine, DwordBoundsAndBadArgumentsNameTheCulprit) {
  EXPECT_TRUE(ParseCommandLine({"--set", "LowPowerCfg=4294967295"}));
  struct Case {
    std::vector<std::string> args;
    const char* expected;
  } cases[] = {
      {{"--set", "LowPowerCfg=4294967296"}, "--set LowPowerCfg=4294967296: LowPowerCfg is a DWORD"},
      {{"--set", "LowPowerCfg=-1"}, "LowPowerCfg is a DWORD"},
      {{"--set", "UsbConfiguration=12abc"}, "UsbConfiguration is a DWORD"},
      {{"--set", "=5"}, "--set =5: expected Name=Value"},
      {{"--set", "NoValue"}, "--set NoValue: expected Name=Value"},
      {{"--set"}, "--set: missing value"},
      {{"--hub", "usb3"}, "--hub usb3: expected root, self or bus"},
      {{"--platform", "win7"}, "--platform win7: expected xp or vista"},
      {{"--device="}, "--device: empty file name"},
      {{"--trace", "lots"}, "--trace lots: expected a mask"},
      {{"--verbose"}, "--verbose: unknown option"},
  };
  for (const Case& c : cases) {
    auto result = ParseCommandLine(c.args);
    EXPECT_FALSE(result) << c.args[0];
    EXPECT_NE(result.error.find(c.expected), std::string::npos) << result.error;
  }
}

}  // namespace
