// Whole runs of usbmi-sim's simulation: the report must say what the driver really did to
// the device (configuration chosen by hub power and settings, children in list order with
// their identifiers and sets), for the demo device and for every device file.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <string>
#include <vector>

#include "configuration_scan.h"
#include "simulation.h"

namespace {

using usbmisim::ChildReport;
using usbmisim::HubKind;
using usbmisim::ParseCommandLine;
using usbmisim::SimOptions;
using usbmisim::SimReport;

std::string DevicesDir() {
  std::string here = __FILE__;
  return here.substr(0, here.rfind("/tools/")) + "/devices/";
}

SimOptions Options(const std::vector<std::string>& args) {
  auto parsed = ParseCommandLine(args);
  EXPECT_TRUE(parsed) << parsed.error;
  return parsed.options;
}

SimReport RunTool(const std::vector<std::string>& args) {
  SimOptions options = Options(args);
  auto loaded = usbmisim::LoadSimDevice(options);
  EXPECT_EQ(loaded.error, "");
  return usbmisim::RunSimulation(options, loaded.device);
}

// Where `part` starts inside `whole`, or npos.
size_t Find(const std::vector<uint8_t>& whole, const std::vector<uint8_t>& part) {
  auto at = std::search(whole.begin(), whole.end(), part.begin(), part.end());
  return at == whole.end() ? std::string::npos : static_cast<size_t>(at - whole.begin());
}

TEST(DeviceReport, DemoDeviceBecomesThreeChildrenWithTheirOwnSets) {
  SimReport report = RunTool({});
  ASSERT_TRUE(report.violations.empty()) << report.violations.front();
  const auto demo = wdmsim::DemoCompositeDevice();
  EXPECT_EQ(report.device.vendorId, demo.VendorId());
  EXPECT_EQ(report.device.driverService, "usbmi");
  EXPECT_EQ(report.device.startStatus, "STATUS_SUCCESS");
  ASSERT_TRUE(report.device.configurationIndex.has_value());
  EXPECT_EQ(*report.device.configurationIndex, 0);
  EXPECT_EQ(report.device.notificationInterface, std::optional<uint8_t>(5));

  // RNDIS first, then CDC ACM, then the vendor function; the notification interface is no child.
  ASSERT_EQ(report.children.size(), 3u);
  const uint8_t firsts[] = {0, 2, 4}, counts[] = {2, 2, 1}, protocols[] = {0xFF, 0x01, 0x00};
  const std::vector<uint8_t>& parentSet = demo.configurations[0];
  for (size_t i = 0; i < 3; ++i) {
    const ChildReport& c = report.children[i];
    SCOPED_TRACE(c.deviceId);
    EXPECT_EQ(c.firstInterface, firsts[i]);
    EXPECT_EQ(c.interfaceCount, counts[i]);
    EXPECT_EQ(c.interfaceProtocol, protocols[i]);
    EXPECT_EQ(c.deviceId, "USB\\VID_4A9B&PID_0042&MI_0" + std::to_string(firsts[i]));
    EXPECT_EQ(c.hardwareIds, std::vector<std::string>{c.deviceId});
    EXPECT_EQ(c.instanceId, "WDMSIM-DEMO-0001");  // the parent's serial number, for every child
    EXPECT_EQ(c.driverService, "wdmgeneric");
    EXPECT_EQ(c.state, "Started");
    // The child's set: the parent's header with its own length and count, then the
    // function's bytes exactly as the parent's set holds them.
    const auto& set = c.configurationDescriptor;
    ASSERT_GT(set.size(), 9u);
    EXPECT_EQ(set[2] | set[3] << 8, static_cast<int>(set.size()));
    EXPECT_EQ(set[4], counts[i]);
    EXPECT_TRUE(std::equal(set.begin() + 5, set.begin() + 9, parentSet.begin() + 5));
    EXPECT_NE(Find(parentSet, std::vector<uint8_t>(set.begin() + 9, set.end())), std::string::npos);
    EXPECT_EQ(Find(std::vector<uint8_t>(set.begin() + 9, set.end()), {0x09, 0x04, 0x05}), std::string::npos);
  }
  EXPECT_EQ(report.children[0].compatibleIds.front(), "USB\\MS_COMP_RNDIS&MS_SUBCOMP_5162001");
  EXPECT_EQ(report.children[2].compatibleIds.front(), "USB\\MS_COMP_MTP");
  // Texts come from each function's iInterface string.
  EXPECT_EQ(report.children[1].description, report.children[1].location);
  EXPECT_NE(report.children[0].description, report.children[1].description);

  const std::string json = usbmisim::FormatJson(report);
  EXPECT_NE(json.find("\"vid\": " + std::to_string(demo.VendorId())), std::string::npos);
  EXPECT_NE(json.find("\"protocol\": \"FF\""), std::string::npos);
  EXPECT_NE(json.find("\"notification_interface\": 5"), std::string::npos);
}

TEST(DeviceReport, HubPowerAndSettingsChooseTheConfiguration) {
  struct Case {
    std::vector<std::string> args;
    uint8_t index;
    size_t children;
  } cases[] = {
      {{"--hub", "root"}, 0, 3},
      {{"--hub", "self", "--set", "HighPowerCfg=1"}, 1, 1},
      {{"--hub", "bus", "--set", "HighPowerCfg=1"}, 0, 3},  // a bus-powered hub reads LowPowerCfg
      {{"--hub", "bus", "--set", "LowPowerCfg=1"}, 1, 1},
      {{"--set", "HighPowerCfg=5"}, 1, 1},                  // beyond the last one: clamped
      {{"--set", "HighPowerCfg=0x100", "--platform", "xp"}, 0, 3},  // only the low byte counts
  };
  for (const Case& c : cases) {
    SimReport report = RunTool(c.args);
    SCOPED_TRACE(c.args.back());
    EXPECT_TRUE(report.violations.empty());
    ASSERT_TRUE(report.device.configurationIndex.has_value());
    EXPECT_EQ(*report.device.configurationIndex, c.index);
    EXPECT_EQ(report.children.size(), c.children);
  }
  SimReport clamped = RunTool({"--set", "HighPowerCfg=5"});
  EXPECT_NE(clamped.device.configurationReason.find("clamped to 1"), std::string::npos)
      << clamped.device.configurationReason;
}

TEST(DeviceReport, FamilyNameSettingReachesTheIdentifiers) {
  SimReport report = RunTool({"--set", "FamilyName=Fam", "--set", "UsbConfiguration=0x123", "--set", "Unused=1"});
  ASSERT_EQ(report.children.size(), 3u);
  EXPECT_EQ(report.children[0].hardwareIds,
            (std::vector<std::string>{"USB\\Fam&VID_4A9B&PID_0042&CF_123&MI_00", "USB\\Fam&02_02_FF",
                                      "USB\\Fam&02_02", "USB\\Fam&02"}));
  ASSERT_EQ(report.notes.size(), 1u);
  EXPECT_NE(report.notes[0].find("\"Unused\""), std::string::npos);
}

TEST(DeviceReport, EveryDeviceFileLoadsOrFailsWithItsPlace) {
  DIR* dir = opendir(DevicesDir().c_str());
  ASSERT_NE(dir, nullptr);
  std::vector<std::string> files;
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name.size() > 4 && (name.substr(name.size() - 4) == ".hex" || name.substr(name.size() - 4) == ".bin")) {
      files.push_back(name);
    }
  }
  closedir(dir);
  ASSERT_GE(files.size(), 10u);
  for (const std::string& name : files) {
    SCOPED_TRACE(name);
    SimOptions options = Options({"--device", DevicesDir() + name});
    auto loaded = usbmisim::LoadSimDevice(options);
    if (name.rfind("malformed_", 0) == 0) {
      // One line that names the file and the place.
      EXPECT_EQ(loaded.error.find(DevicesDir() + name), 0u) << loaded.error;
      EXPECT_TRUE(loaded.error.find(": byte ") != std::string::npos ||
                  loaded.error.find(name + ":") != std::string::npos) << loaded.error;
      EXPECT_EQ(loaded.error.find('\n'), std::string::npos);
      continue;
    }
    ASSERT_EQ(loaded.error, "");
    SimReport report = usbmisim::RunSimulation(options, loaded.device);
    EXPECT_TRUE(report.violations.empty());
    EXPECT_EQ(report.device.driverService, "usbmi");
    // A set shorter than it claims is refused: the start fails, cleanly.
    EXPECT_EQ(report.device.state, name == "raw_total_length_short.hex" ? "StartFailed" : "Started");
    for (const ChildReport& c : report.children) EXPECT_EQ(c.state, "Started") << c.deviceId;
  }
}

}  // namespace
