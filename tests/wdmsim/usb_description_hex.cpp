// The hex text reader and writer: grammar, consistency checks reported at the right line,
// the !raw escape, strings and languages, and the trip through the writer.
#include <gtest/gtest.h>

#include <wdmsim/usbdevice.h>

namespace {

using wdmsim::UsbDescriptionError;
using wdmsim::UsbStringKey;

// A minimal well-formed device: one configuration with one vendor interface and one
// bulk endpoint. Lines 1..4.
const char* const kDevice = "12 01 00 02 00 00 00 40 9B 4A 47 00 00 01 01 02 03 01\n";
const char* const kConfig = "09 02 19 00 01 01 00 80 32\n";
const char* const kInterface = "09 04 00 00 01 FF FF 00 00\n";
const char* const kEndpoint = "07 05 81 02 00 02 00\n";

std::string Minimal() { return std::string(kDevice) + kConfig + kInterface + kEndpoint; }

TEST(UsbDescriptionHex, ReadsDescriptorsCommentsStringsAndSerial) {
  const std::string text =
      "# a comment line\r\n"
      "\n"
      "   12 0100 02 00 00 00 40 9B4A 4700 00 01 01 02 03 01   # run-together groups\r\n"
      "09 02 19 00 01 01 00 80 32\n"
      "09 04 00 00 01 FF FF 00 00\n"
      "\t07 05 81 02 00 02 00\n"
      "languages 0x0409 1031\n"
      "string 1 0x0409 \"Acme \\\"Q\\\" \\\\ # not a comment\"  # a comment\n"
      "string 2 1031 \"Gr\xC3\xBC\xC3\x9F \xF0\x9F\x94\x8C \\u0001\"\n"
      "serial \"SN-7\"\n";
  auto result = wdmsim::ParseHexDescription(text, "t.hex");
  ASSERT_TRUE(result) << result.error.Message();
  const auto& d = *result.description;
  EXPECT_EQ(d.device.size(), 18u);
  EXPECT_EQ(d.VendorId(), 0x4A9B);
  EXPECT_EQ(d.ProductId(), 0x0047);
  ASSERT_EQ(d.configurations.size(), 1u);
  EXPECT_EQ(d.configurations[0],
            (std::vector<uint8_t>{0x09, 0x02, 0x19, 0x00, 0x01, 0x01, 0x00, 0x80, 0x32, 0x09, 0x04, 0x00, 0x00,
                                  0x01, 0xFF, 0xFF, 0x00, 0x00, 0x07, 0x05, 0x81, 0x02, 0x00, 0x02, 0x00}));
  EXPECT_EQ(d.languages, (std::vector<uint16_t>{0x0409, 0x0407}));
  EXPECT_EQ(d.strings.at(UsbStringKey{1, 0x0409}), u"Acme \"Q\" \\ # not a comment");
  EXPECT_EQ(d.strings.at(UsbStringKey{2, 0x0407}), u"Grüß \U0001F50C \u0001");
  // serial fills iSerialNumber (3) in every language of the table.
  EXPECT_EQ(d.strings.at(UsbStringKey{3, 0x0409}), u"SN-7");
  EXPECT_EQ(d.strings.at(UsbStringKey{3, 0x0407}), u"SN-7");
  EXPECT_EQ(d.SerialNumber(), std::u16string(u"SN-7"));
  EXPECT_EQ(d.strings.size(), 4u);

  // The language table defaults to US English only when there are strings.
  auto bare = wdmsim::ParseHexDescription(Minimal(), "t.hex");
  ASSERT_TRUE(bare) << bare.error.Message();
  EXPECT_TRUE(bare.description->languages.empty());
  auto withString = wdmsim::ParseHexDescription(Minimal() + "string 1 0x0409 \"x\"\n", "t.hex");
  ASSERT_TRUE(withString) << withString.error.Message();
  EXPECT_EQ(withString.description->languages, (std::vector<uint16_t>{0x0409}));
}

struct HexCase {
  const char* name;
  std::string text;
  uint64_t line;
  const char* what;
};

TEST(UsbDescriptionHex, EveryInconsistencyIsReportedAtItsLine) {
  const std::string d = kDevice, c = kConfig, i = kInterface, e = kEndpoint;
  const HexCase cases[] = {
      {"unknown keyword", Minimal() + "\ninterface 0\n", 6, "unknown line starting with 'interface'"},
      {"unknown directive", "!strict\n" + Minimal(), 1, "unknown line starting with '!strict'"},
      {"odd hex digits", d + "09 02 19 00 01 01 00 80 3\n" + i + e, 2, "odd number of hex digits"},
      {"not hex later on the line", d + c + "09 04 00 00 01 FF FF 00 0g\n" + e, 3, "'0g' is not hex"},
      {"bLength one more than the line", d + c + i + "08 05 81 02 00 02 00\n", 4, "bLength 8 but the line has 7"},
      {"bLength one less than the line", d + c + i + "06 05 81 02 00 02 00\n", 4, "bLength 6 but the line has 7"},
      {"a one-byte descriptor", d + c + i + e + "01\n", 5, "at least bLength and bDescriptorType"},
      {"first descriptor not a device", c + d + i + e, 1, "must be the device descriptor"},
      {"second device descriptor", Minimal() + d, 5, "a second device descriptor"},
      {"descriptor before any configuration", d + i + c + e, 2, "before the first configuration"},
      {"configuration of 10 bytes", d + "0A 02 1A 00 01 01 00 80 32 00\n" + i + e, 2, "is 9 bytes"},
      {"wTotalLength one short", d + "09 02 18 00 01 01 00 80 32\n" + i + e, 2,
       "wTotalLength 24 but the configuration's lines hold 25 bytes"},
      {"wTotalLength one long", d + "09 02 1A 00 01 01 00 80 32\n" + i + e, 2,
       "wTotalLength 26 but the configuration's lines hold 25 bytes"},
      {"bNumInterfaces", d + "09 02 19 00 02 01 00 80 32\n" + i + e, 2, "bNumInterfaces 2 but the configuration has 1"},
      {"bNumEndpoints", d + c + "09 04 00 00 02 FF FF 00 00\n" + e, 3, "bNumEndpoints 2 but 1 endpoint"},
      {"bNumConfigurations", "12 01 00 02 00 00 00 40 9B 4A 47 00 00 01 01 02 03 02\n" + c + i + e, 1,
       "bNumConfigurations 2 but the file has 1"},
      {"the first set's error before the second's", d + "09 02 18 00 01 01 00 80 32\n" + i + e +
       "09 02 18 00 01 01 00 80 32\n" + i + e, 2, "wTotalLength 24"},
      {"string index 0", Minimal() + "string 0 0x0409 \"x\"\n", 5, "string 0 is the language table"},
      {"string index 256", Minimal() + "string 256 0x0409 \"x\"\n", 5, "out of range"},
      {"language 0x10000", Minimal() + "languages 0x10000\n", 5, "out of range"},
      {"language not a number", Minimal() + "languages en\n", 5, "'en' is not a number"},
      {"empty languages", Minimal() + "languages # none\n", 5, "at least one language"},
      {"second languages line", Minimal() + "languages 0x0409\nlanguages 0x0407\n", 6, "first at line 5"},
      {"string in a language not in the table", Minimal() + "languages 0x0409\nstring 1 0x0407 \"x\"\n", 6,
       "not in the language table"},
      {"string given twice", Minimal() + "string 1 0x0409 \"x\"\n\nstring 1 0x0409 \"y\"\n", 7,
       "already given at line 5"},
      {"serial collides with a string", Minimal() + "string 3 0x0409 \"x\"\nserial \"y\"\n", 6,
       "already given at line 5"},
      {"serial without iSerialNumber", "12 01 00 02 00 00 00 40 9B 4A 47 00 00 01 01 02 00 01\n" + c + i + e +
       "serial \"S\"\n", 5, "iSerialNumber is 0"},
      {"unterminated text", Minimal() + "serial \"S\n", 5, "no closing quote"},
      {"unknown escape", Minimal() + "serial \"a\\tb\"\n", 5, "unknown escape"},
      {"short \\u escape", Minimal() + "serial \"\\u12G4\"\n", 5, "four hex digits"},
      {"invalid UTF-8", Minimal() + "serial \"\xC3\x28\"\n", 5, "not valid UTF-8"},
      {"overlong UTF-8", Minimal() + "serial \"\xC0\xAF\"\n", 5, "not valid UTF-8"},
      {"junk after the text", Minimal() + "serial \"S\" extra\n", 5, "unexpected 'extra'"},
      {"missing language", Minimal() + "string 1 \"x\"\n", 5, "missing language"},
  };
  for (const auto& hc : cases) {
    SCOPED_TRACE(hc.name);
    auto result = wdmsim::ParseHexDescription(hc.text, "bad.hex");
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error.where, UsbDescriptionError::Where::Line);
    EXPECT_EQ(result.error.position, hc.line);
    EXPECT_NE(result.error.what.find(hc.what), std::string::npos) << result.error.what;
    EXPECT_EQ(result.error.Message().rfind("bad.hex:" + std::to_string(hc.line) + ": ", 0), 0u);
  }

  for (const char* nothing : {"", "# only a comment\n\n", "languages 0x0409\n"}) {
    auto result = wdmsim::ParseHexDescription(nothing, "empty.hex");
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error.where, UsbDescriptionError::Where::File);
    EXPECT_EQ(result.error.Message(), "empty.hex: no device descriptor");
  }
}

TEST(UsbDescriptionHex, RawKeepsDeliberatelyMalformedBytesAsWritten) {
  const std::string text =
      "12 01 00 02 00 00 00 40 9B 4A 47 00 00 01 01 02 03 02 EE\n"  // 19 bytes, announces 2 sets
      "09 02 40 00 05 01 00 80 32\n"                                  // wTotalLength 64, 5 interfaces
      "09 04 00 00 03 FF FF 00 00\n"                                  // 3 endpoints announced
      "00 24 01\n"                                                    // bLength 0
      "!raw\n"
      "string 1 0x0407 \"not in the table\"\n"
      "languages 0x0409\n";
  auto result = wdmsim::ParseHexDescription(text, "raw.hex");
  ASSERT_TRUE(result) << result.error.Message();
  const auto& d = *result.description;
  EXPECT_EQ(d.device.size(), 19u);
  EXPECT_EQ(d.device.back(), 0xEE);
  ASSERT_EQ(d.configurations.size(), 1u);
  EXPECT_EQ(d.configurations[0].size(), 21u);
  EXPECT_EQ(d.configurations[0][18], 0x00);
  EXPECT_EQ(d.strings.at(UsbStringKey{1, 0x0407}), u"not in the table");
  EXPECT_TRUE(d.FramingError().has_value());

  // Structure of the file itself still counts under !raw.
  auto orphan = wdmsim::ParseHexDescription("!raw\n12 01\n09 04 00\n", "raw.hex");
  ASSERT_FALSE(orphan);
  EXPECT_EQ(orphan.error.position, 3u);
}

TEST(UsbDescriptionHex, WriterOutputReadsBackIdentically) {
  auto demo = wdmsim::DemoCompositeDevice();
  demo.languages.push_back(0x0407);
  demo.strings[UsbStringKey{2, 0x0407}] = u"Demo-Verbundgerät \"quoted\" \\ \u0007";
  const std::string text = demo.ToHexText();
  EXPECT_EQ(text.find("!raw"), std::string::npos);
  auto back = wdmsim::ParseHexDescription(text, "demo.hex");
  ASSERT_TRUE(back) << back.error.Message() << "\n" << text;
  EXPECT_EQ(*back.description, demo);

  // A malformed description comes back marked !raw and byte-identical, including a set
  // that stops framing halfway.
  auto raw = wdmsim::UsbDescriptionFromRaw(
      {0x12, 0x01, 0x00, 0x02},
      {{0x09, 0x02, 0x30, 0x00, 0x01, 0x01, 0x00, 0x80, 0x32, 0x09, 0x04, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0x00, 0x00,
        0x00, 0x05, 0x81, 0x02},
       {0x09, 0x02, 0x09, 0x00, 0x00, 0x02, 0x00, 0x80, 0x32}});
  const std::string rawText = raw.ToHexText();
  EXPECT_NE(rawText.find("!raw"), std::string::npos);
  auto rawBack = wdmsim::ParseHexDescription(rawText, "raw.hex");
  ASSERT_TRUE(rawBack) << rawBack.error.Message() << "\n" << rawText;
  EXPECT_EQ(*rawBack.description, raw);

  // A configuration descriptor inside a set must not start a set of its own on reading.
  auto stray = wdmsim::DemoCompositeDevice();
  auto& set = stray.configurations[1];
  const std::vector<uint8_t> header(set.begin(), set.begin() + 9);
  set.insert(set.begin() + 9, header.begin(), header.end());
  set[2] = static_cast<uint8_t>(set.size());
  auto strayBack = wdmsim::ParseHexDescription(stray.ToHexText(), "stray.hex");
  ASSERT_TRUE(strayBack) << strayBack.error.Message();
  EXPECT_EQ(*strayBack.description, stray);
}

}  // namespace
