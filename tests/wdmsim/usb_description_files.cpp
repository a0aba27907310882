// The device files under tests/devices: each loads with the layout it was written for, the
// binary twins say the same as their hex text, and the broken ones fail at the right place.
#include <gtest/gtest.h>

#include <wdmsim/usbdevice.h>

#include "usb_description_walk.h"

namespace {

using usb_description_test::Layout;
using wdmsim::UsbDescriptionError;

// The source tree is found from this file's own path (the build passes absolute paths).
std::string DevicePath(const std::string& name) {
  std::string here = __FILE__;
  return here.substr(0, here.rfind("/wdmsim/")) + "/devices/" + name;
}

wdmsim::UsbDeviceDescription Load(const std::string& name) {
  auto result = wdmsim::LoadUsbDescription(DevicePath(name));
  if (!result) {
    ADD_FAILURE() << result.error.Message();
    return {};
  }
  return *result.description;
}

TEST(UsbDescriptionFiles, BinaryTwinsMatchTheirHexTextAndSurviveBothWriters) {
  for (const char* base :
       {"demo_composite", "cdc_ecm", "audio_speaker_mic", "acm_vendor_no_iad", "noncontiguous_interfaces"}) {
    SCOPED_TRACE(base);
    auto hex = Load(std::string(base) + ".hex");
    auto bin = Load(std::string(base) + ".bin");
    EXPECT_EQ(bin.device, hex.device);
    EXPECT_EQ(bin.configurations, hex.configurations);
    EXPECT_FALSE(hex.FramingError().has_value());
    EXPECT_FALSE(hex.strings.empty());
    // Both writers give back what they read.
    auto again = wdmsim::ParseHexDescription(hex.ToHexText(), base);
    ASSERT_TRUE(again) << again.error.Message();
    EXPECT_EQ(*again.description, hex);
    auto sysfs = wdmsim::ParseSysfsDescriptors(hex.ToSysfsBytes(), base);
    ASSERT_TRUE(sysfs) << sysfs.error.Message();
    EXPECT_EQ(sysfs.description->ToSysfsBytes(), hex.ToSysfsBytes());
  }
  // The demo files are the built-in device.
  EXPECT_EQ(Load("demo_composite.hex"), wdmsim::DemoCompositeDevice());
}

TEST(UsbDescriptionFiles, SampleDevicesHaveTheirIntendedLayouts) {
  auto ecm = Load("cdc_ecm.hex");
  EXPECT_EQ(Layout(ecm.configurations.at(0)), (std::vector<std::string>{
                                                  "0/0 02/06/00 eps=1 ep 81 type 3 mps 16",
                                                  "1/0 0A/00/00 eps=0",
                                                  "1/1 0A/00/00 eps=2 ep 82 type 2 mps 512 ep 01 type 2 mps 512",
                                              }));
  EXPECT_EQ(ecm.SerialNumber(), std::u16string(u"ECM-0001"));
  EXPECT_EQ(*ecm.FindString(5, 0x0409), u"02005E000001");  // the Ethernet descriptor's MAC string

  auto audio = Load("audio_speaker_mic.hex");
  EXPECT_EQ(Layout(audio.configurations.at(0)), (std::vector<std::string>{
                                                    "0/0 01/01/00 eps=0",
                                                    "1/0 01/02/00 eps=0",
                                                    "1/1 01/02/00 eps=1 ep 01 type 1 mps 192",
                                                    "2/0 01/02/00 eps=0",
                                                    "2/1 01/02/00 eps=1 ep 82 type 1 mps 96",
                                                    "3/0 03/00/00 eps=1 ep 83 type 3 mps 8",
                                                }));
  EXPECT_EQ(audio.SerialNumber(), std::nullopt);
  EXPECT_EQ(audio.MaxPowerMilliamps(0), 100u);

  auto acm = Load("acm_vendor_no_iad.hex");
  EXPECT_EQ(Layout(acm.configurations.at(0)), (std::vector<std::string>{
                                                  "0/0 02/02/01 eps=1 ep 81 type 3 mps 16",
                                                  "1/0 0A/00/00 eps=2 ep 82 type 2 mps 64 ep 02 type 2 mps 64",
                                                  "2/0 FF/00/00 eps=2 ep 83 type 2 mps 64 ep 03 type 2 mps 64",
                                              }));
  EXPECT_TRUE(acm.SelfPowered(0));
  EXPECT_EQ(acm.MaxPowerMilliamps(0), 0u);
  EXPECT_EQ(acm.SerialNumber(), std::u16string(u"SV-0042"));

  auto gapped = Load("noncontiguous_interfaces.hex");
  EXPECT_EQ(Layout(gapped.configurations.at(0)), (std::vector<std::string>{
                                                     "0/0 FF/FF/00 eps=2 ep 81 type 2 mps 512 ep 01 type 2 mps 512",
                                                     "IAD 3+2 02/02/01",
                                                     "3/0 02/02/01 eps=1 ep 82 type 3 mps 16",
                                                     "4/0 0A/00/00 eps=2 ep 83 type 2 mps 512 ep 02 type 2 mps 512",
                                                     "7/0 FF/01/00 eps=1 ep 84 type 3 mps 4",
                                                 }));
  EXPECT_EQ(gapped.languages, (std::vector<uint16_t>{0x0409, 0x0407}));
  EXPECT_EQ(*gapped.FindString(2, 0x0407), u"wdmsim Lückenhafte Schnittstellen");
}

TEST(UsbDescriptionFiles, BrokenFilesFailAtTheRightPlace) {
  struct Case {
    const char* file;
    UsbDescriptionError::Where where;
    uint64_t position;
    const char* what;
  };
  const Case cases[] = {
      {"malformed_truncated.bin", UsbDescriptionError::Where::ByteOffset, 198, "runs past the end of the file"},
      {"malformed_blength_zero.bin", UsbDescriptionError::Where::ByteOffset, 35, "bLength 0"},
      {"malformed_total_length.hex", UsbDescriptionError::Where::Line, 4, "wTotalLength 32 but"},
      {"malformed_unknown_line.hex", UsbDescriptionError::Where::Line, 5, "unknown line"},
      {"no_such_device.hex", UsbDescriptionError::Where::File, 0, "cannot open the file"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    auto result = wdmsim::LoadUsbDescription(DevicePath(c.file));
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error.file, DevicePath(c.file));
    EXPECT_EQ(result.error.where, c.where);
    EXPECT_EQ(result.error.position, c.position);
    EXPECT_NE(result.error.what.find(c.what), std::string::npos) << result.error.Message();
  }
}

TEST(UsbDescriptionFiles, MalformedOnPurposeDevicesLoadAsWritten) {
  auto zero = Load("raw_blength_zero.hex");
  ASSERT_EQ(zero.configurations.size(), 1u);
  ASSERT_EQ(zero.configurations[0].size(), 32u);
  EXPECT_EQ(zero.configurations[0][18], 0x00);
  EXPECT_EQ(zero.configurations[0][2], 32);
  ASSERT_TRUE(zero.FramingError().has_value());
  EXPECT_NE(zero.FramingError()->find("byte 18"), std::string::npos);

  auto shortSet = Load("raw_total_length_short.hex");
  ASSERT_EQ(shortSet.configurations.size(), 1u);
  EXPECT_EQ(shortSet.configurations[0].size(), 25u);
  EXPECT_EQ(shortSet.configurations[0][2], 0x40);
  EXPECT_EQ(shortSet.configurations[0][4], 2);

  // Written out again, they stay raw and byte-identical.
  for (const auto* d : {&zero, &shortSet}) {
    auto again = wdmsim::ParseHexDescription(d->ToHexText(), "again.hex");
    ASSERT_TRUE(again) << again.error.Message();
    EXPECT_EQ(*again.description, *d);
  }
}

}  // namespace
