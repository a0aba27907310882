// Binding ranks a device's hardware IDs before its compatible IDs and an earlier ID before
// a later one; on a tie the model's own hardware ID beats its compatible IDs, then the INF
// installed first wins. IDs compare without regard to case.
#include <gtest/gtest.h>

#include "pnp_test_drivers.h"

namespace {

class PnpDriverBinding : public ::testing::Test {
 protected:
  wdmsim::Kernel kernel;
};

TEST_F(PnpDriverBinding, RanksByDeviceIdOrderThenModelRoleThenInstallOrder) {
  // Installed in this order on purpose: the model-compatible match comes first.
  pnptest::Install("modelcompat", {{"other device", {"OTHER\\X", "WDMSIM\\DEV&REV_01"}}});
  pnptest::Install("hwfirst", {{"exact revision", {"WDMSIM\\DEV&REV_01"}}});
  pnptest::Install("hwsecond", {{"any revision", {"WDMSIM\\DEV"}}});
  pnptest::Install("classdriver", {{"class driver", {"WDMSIM\\CLASS_01"}}});
  pnptest::Install("later", {{"exact revision again", {"WDMSIM\\DEV&REV_01"}}});

  struct Case {
    std::vector<std::u16string> hardware;
    std::vector<std::u16string> compatible;
    const char16_t* service;  // nullptr: no driver
    const char16_t* matched;
  } cases[] = {
      {{u"WDMSIM\\DEV&REV_01", u"WDMSIM\\DEV"}, {u"WDMSIM\\CLASS_01"}, u"hwfirst", u"WDMSIM\\DEV&REV_01"},
      {{u"WDMSIM\\DEV"}, {u"WDMSIM\\CLASS_01"}, u"hwsecond", u"WDMSIM\\DEV"},
      {{u"WDMSIM\\NONE"}, {u"wdmsim\\class_01"}, u"classdriver", u"wdmsim\\class_01"},
      {{u"WDMSIM\\NONE"}, {u"WDMSIM\\DEV&REV_01"}, u"hwfirst", u"WDMSIM\\DEV&REV_01"},
      {{u"WDMSIM\\CLASS_01", u"WDMSIM\\DEV"}, {}, u"classdriver", u"WDMSIM\\CLASS_01"},
      {{u"X\\NONE"}, {u"Y\\NONE"}, nullptr, nullptr},
      {{}, {}, nullptr, nullptr},
  };
  for (const Case& c : cases) {
    auto match = wdmsim::FindDriver(c.hardware, c.compatible);
    std::string first = c.hardware.empty() ? "" : std::string(c.hardware[0].begin(), c.hardware[0].end());
    if (c.service == nullptr) {
      EXPECT_FALSE(match.has_value()) << first;
      continue;
    }
    ASSERT_TRUE(match.has_value()) << first;
    EXPECT_EQ(match->service, c.service) << first;
    EXPECT_EQ(match->matchedId, c.matched) << first;
    EXPECT_EQ(match->infFile, std::string(c.service, c.service + std::char_traits<char16_t>::length(c.service)) + ".inf");
  }
}

}  // namespace
