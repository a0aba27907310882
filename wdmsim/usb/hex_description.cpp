// Hex text descriptions of USB devices: reader and writer.
//
// Grammar (one item per line; anything after '#' outside quotes is a comment; blank lines
// are ignored):
//
//   12 01 00 02 EF 02 01 40 ...     one descriptor: hex bytes, two digits each; groups may
//                                   be run together ("120100 02" is 12 01 00 02)
//   languages 0x0409 0x0407         the language table (string descriptor 0)
//   string 2 0x0409 "RNDIS Network" string index 2 in language 0x0409; UTF-8 text with the
//                                   escapes \" \\ and \uXXXX (one UTF-16 code unit)
//   serial "ABC123"                 the text of iSerialNumber in every language of the table
//   !raw                            anywhere in the file: keep the descriptor bytes as
//                                   written and skip the consistency checks
//
// Numbers are decimal or 0x-prefixed hex. The first descriptor line is the device
// descriptor; a line whose second byte is 0x02 starts a configuration set, which holds the
// lines up to the next configuration descriptor. Without a languages line the table is
// 0x0409 when the file has strings, and empty otherwise.
//
// Consistency checks (unless !raw), each reported at the line it concerns: bLength equals
// the bytes on its line; the device descriptor is 18 bytes of type 0x01 and appears once;
// wTotalLength equals the bytes of the set's lines; bNumInterfaces equals the distinct
// interface numbers of the set; bNumEndpoints equals the endpoint descriptors up to the next
// interface descriptor; bNumConfigurations equals the number of sets; every string's
// language is in the table. Always errors: a descriptor line before the first
// configuration, a malformed line, a string given twice, serial without iSerialNumber.
#include <wdmsim/usbdevice.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <sstream>

#include "usb/descriptor_walk.h"

#include <usb200.h>

namespace wdmsim {

namespace {

struct HexError {
  int line;
  std::string what;
};

// Text <-> UTF-16 for the quoted strings.
bool AppendUtf8(const std::string& in, size_t& i, std::u16string& out) {
  const auto byte = [&](size_t k) { return static_cast<uint8_t>(in[k]); };
  const uint8_t lead = byte(i);
  int extra;
  uint32_t cp;
  if (lead < 0x80) {
    extra = 0, cp = lead;
  } else if ((lead & 0xE0) == 0xC0) {
    extra = 1, cp = lead & 0x1F;
  } else if ((lead & 0xF0) == 0xE0) {
    extra = 2, cp = lead & 0x0F;
  } else if ((lead & 0xF8) == 0xF0) {
    extra = 3, cp = lead & 0x07;
  } else {
    return false;
  }
  if (i + extra >= in.size()) {
    return false;
  }
  for (int k = 1; k <= extra; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) {
      return false;
    }
    cp = cp << 6 | (byte(i + k) & 0x3F);
  }
  static const uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
  if (cp < kSmallest[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    return false;
  }
  if (cp >= 0x10000) {
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  } else {
    out.push_back(static_cast<char16_t>(cp));
  }
  i += extra + 1;
  return true;
}

std::string QuoteText(const std::u16string& text) {
  std::string out = "\"";
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t c = text[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
    }
    char buffer[8];
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F || (c >= 0xD800 && c <= 0xDFFF)) {
      std::snprintf(buffer, sizeof buffer, "\\u%04X", static_cast<unsigned>(c));
      out += buffer;
    } else if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | c >> 6);
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | c >> 12);
      out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | c >> 18);
      out += static_cast<char>(0x80 | (c >> 12 & 0x3F));
      out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out + "\"";
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// A cursor over one line of the file.
class LineReader {
 public:
  LineReader(const std::string& text, int line) : mText(text), mLine(line) {}

  // Skips blanks; true at the end of the line or at a comment.
  bool AtEnd() {
    while (mPos < mText.size() && (mText[mPos] == ' ' || mText[mPos] == '\t')) {
      ++mPos;
    }
    return mPos == mText.size() || mText[mPos] == '#';
  }

  std::string Word() {
    AtEnd();
    const size_t start = mPos;
    while (mPos < mText.size() && !std::isspace(static_cast<unsigned char>(mText[mPos])) && mText[mPos] != '#' &&
           mText[mPos] != '"') {
      ++mPos;
    }
    return mText.substr(start, mPos - start);
  }

  std::optional<HexError> Number(const char* what, uint32_t max, uint32_t& value) {
    const std::string word = Word();
    if (word.empty()) {
      return Error(std::string("missing ") + what);
    }
    const bool hex = word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X');
    uint64_t v = 0;
    for (size_t i = hex ? 2 : 0; i < word.size(); ++i) {
      const int digit = hex ? HexDigit(word[i]) : (std::isdigit(static_cast<unsigned char>(word[i])) ? word[i] - '0' : -1);
      if (digit < 0) {
        return Error(std::string(what) + " '" + word + "' is not a number");
      }
      v = v * (hex ? 16 : 10) + digit;
      if (v > max) {
        return Error(std::string(what) + " " + word + " is out of range (at most " + std::to_string(max) + ")");
      }
    }
    value = static_cast<uint32_t>(v);
    return std::nullopt;
  }

  std::optional<HexError> Quoted(std::u16string& out) {
    if (AtEnd() || mText[mPos] != '"') {
      return Error("expected a quoted text");
    }
    ++mPos;
    while (mPos < mText.size() && mText[mPos] != '"') {
      if (mText[mPos] != '\\') {
        if (!AppendUtf8(mText, mPos, out)) {
          return Error("text is not valid UTF-8");
        }
        continue;
      }
      const char escaped = mPos + 1 < mText.size() ? mText[mPos + 1] : '\0';
      if (escaped == '"' || escaped == '\\') {
        out.push_back(static_cast<char16_t>(escaped));
        mPos += 2;
      } else if (escaped == 'u' && mPos + 6 <= mText.size()) {
        uint32_t unit = 0;
        for (size_t k = mPos + 2; k < mPos + 6; ++k) {
          const int digit = HexDigit(mText[k]);
          if (digit < 0) {
            return Error("\\u needs four hex digits");
          }
          unit = unit << 4 | digit;
        }
        out.push_back(static_cast<char16_t>(unit));
        mPos += 6;
      } else {
        return Error("unknown escape in text (only \\\", \\\\ and \\uXXXX)");
      }
    }
    if (mPos == mText.size()) {
      return Error("text has no closing quote");
    }
    ++mPos;
    return std::nullopt;
  }

  std::optional<HexError> ExpectEnd() {
    if (!AtEnd()) {
      return Error("unexpected '" + mText.substr(mPos) + "' at the end of the line");
    }
    return std::nullopt;
  }

  HexError Error(const std::string& what) const { return HexError{mLine, what}; }

 private:
  const std::string& mText;
  int mLine;
  size_t mPos = 0;
};

struct DescriptorLine {
  int line;
  std::vector<uint8_t> bytes;
};

struct StringLine {
  int line;
  UsbStringKey key;
  std::u16string text;
};

struct ParsedFile {
  bool raw = false;
  std::vector<DescriptorLine> descriptors;
  std::optional<std::pair<int, std::vector<uint16_t>>> languages;
  std::vector<StringLine> strings;
  std::optional<std::pair<int, std::u16string>> serial;
};

// Reads "12 01 00 02" or "12010002" into bytes.
std::optional<HexError> ReadHexLine(LineReader& reader, std::vector<uint8_t>& bytes) {
  while (!reader.AtEnd()) {
    const std::string word = reader.Word();
    if (word.empty()) {
      return reader.Error("unexpected '\"' in a descriptor line");
    }
    for (char c : word) {
      if (HexDigit(c) < 0) {
        return reader.Error("'" + word + "' is not hex");
      }
    }
    if (word.size() % 2 != 0) {
      return reader.Error("'" + word + "' has an odd number of hex digits");
    }
    for (size_t i = 0; i < word.size(); i += 2) {
      bytes.push_back(static_cast<uint8_t>(HexDigit(word[i]) << 4 | HexDigit(word[i + 1])));
    }
  }
  return std::nullopt;
}

std::optional<HexError> ReadLine(const std::string& text, int lineNumber, ParsedFile& file) {
  LineReader reader(text, lineNumber);
  if (reader.AtEnd()) {
    return std::nullopt;
  }
  const std::string word = reader.Word();
  if (word == "!raw") {
    file.raw = true;
    return reader.ExpectEnd();
  }
  if (word == "languages") {
    if (file.languages) {
      return reader.Error("second languages line (first at line " + std::to_string(file.languages->first) + ")");
    }
    std::vector<uint16_t> table;
    while (!reader.AtEnd()) {
      uint32_t language;
      if (auto error = reader.Number("language", 0xFFFF, language)) {
        return error;
      }
      table.push_back(static_cast<uint16_t>(language));
    }
    if (table.empty()) {
      return reader.Error("languages needs at least one language ID");
    }
    file.languages.emplace(lineNumber, std::move(table));
    return std::nullopt;
  }
  if (word == "string") {
    uint32_t index, language;
    std::u16string value;
    if (auto error = reader.Number("string index", 255, index)) return error;
    if (auto error = reader.Number("language", 0xFFFF, language)) return error;
    if (auto error = reader.Quoted(value)) return error;
    if (auto error = reader.ExpectEnd()) return error;
    if (index == 0) {
      return reader.Error("string 0 is the language table: use a languages line");
    }
    file.strings.push_back(
        StringLine{lineNumber, UsbStringKey{static_cast<uint8_t>(index), static_cast<uint16_t>(language)}, value});
    return std::nullopt;
  }
  if (word == "serial") {
    std::u16string value;
    if (auto error = reader.Quoted(value)) return error;
    if (auto error = reader.ExpectEnd()) return error;
    if (file.serial) {
      return reader.Error("second serial line (first at line " + std::to_string(file.serial->first) + ")");
    }
    file.serial.emplace(lineNumber, value);
    return std::nullopt;
  }
  bool hex = !word.empty();
  for (char c : word) {
    hex = hex && HexDigit(c) >= 0;
  }
  if (!hex) {
    return reader.Error("unknown line starting with '" + word + "'");
  }
  LineReader again(text, lineNumber);
  DescriptorLine descriptor{lineNumber, {}};
  if (auto error = ReadHexLine(again, descriptor.bytes)) {
    return error;
  }
  file.descriptors.push_back(std::move(descriptor));
  return std::nullopt;
}

// Checks of one configuration set against the lines that make it up.
std::optional<HexError> CheckSet(const std::vector<const DescriptorLine*>& lines) {
  const DescriptorLine& header = *lines.front();
  size_t total = 0;
  for (const auto* line : lines) {
    total += line->bytes.size();
  }
  if (total > 0xFFFF) {
    return HexError{header.line, "the configuration's lines hold " + std::to_string(total) +
                                     " bytes, more than wTotalLength can say"};
  }
  const uint16_t totalLength = usb::ReadLe16(&header.bytes[2]);
  if (totalLength != total) {
    return HexError{header.line, "wTotalLength " + std::to_string(totalLength) + " but the configuration's lines hold " +
                                     std::to_string(total) + " bytes"};
  }
  std::set<uint8_t> interfaceNumbers;
  for (const auto* line : lines) {
    if (line->bytes[1] == USB_INTERFACE_DESCRIPTOR_TYPE && line->bytes.size() >= 3) {
      interfaceNumbers.insert(line->bytes[2]);
    }
  }
  if (header.bytes[4] != interfaceNumbers.size()) {
    return HexError{header.line, "bNumInterfaces " + std::to_string(header.bytes[4]) + " but the configuration has " +
                                     std::to_string(interfaceNumbers.size()) + " interfaces"};
  }
  for (size_t i = 0; i < lines.size(); ++i) {
    const DescriptorLine& line = *lines[i];
    if (line.bytes[1] != USB_INTERFACE_DESCRIPTOR_TYPE || line.bytes.size() < 5) {
      continue;
    }
    size_t endpoints = 0;
    for (size_t k = i + 1; k < lines.size() && lines[k]->bytes[1] != USB_INTERFACE_DESCRIPTOR_TYPE; ++k) {
      endpoints += lines[k]->bytes[1] == USB_ENDPOINT_DESCRIPTOR_TYPE;
    }
    if (line.bytes[4] != endpoints) {
      return HexError{line.line, "bNumEndpoints " + std::to_string(line.bytes[4]) + " but " +
                                     std::to_string(endpoints) + " endpoint descriptors follow"};
    }
  }
  return std::nullopt;
}

std::optional<HexError> Assemble(const ParsedFile& file, UsbDeviceDescription& description) {
  if (file.descriptors.empty()) {
    return HexError{0, "no device descriptor"};
  }
  // Descriptor lines: framing of each line, then the sets.
  std::vector<std::vector<const DescriptorLine*>> sets;
  for (const DescriptorLine& line : file.descriptors) {
    const auto& bytes = line.bytes;
    const bool first = &line == &file.descriptors.front();
    if (!file.raw) {
      if (bytes.size() < 2) {
        return HexError{line.line, "a descriptor needs at least bLength and bDescriptorType"};
      }
      if (bytes[0] != bytes.size()) {
        return HexError{line.line, "bLength " + std::to_string(bytes[0]) + " but the line has " +
                                       std::to_string(bytes.size()) + " bytes"};
      }
      if (first && (bytes.size() != usb::kDeviceDescriptorSize || bytes[1] != USB_DEVICE_DESCRIPTOR_TYPE)) {
        return HexError{line.line, "the first descriptor must be the device descriptor (18 bytes, type 0x01)"};
      }
      if (!first && bytes[1] == USB_DEVICE_DESCRIPTOR_TYPE) {
        return HexError{line.line, "a second device descriptor"};
      }
      if (bytes[1] == USB_CONFIGURATION_DESCRIPTOR_TYPE && bytes.size() != usb::kConfigurationDescriptorSize) {
        return HexError{line.line, "a configuration descriptor is 9 bytes"};
      }
    }
    if (first) {
      description.device = bytes;
      continue;
    }
    if (bytes.size() >= 2 && bytes[1] == USB_CONFIGURATION_DESCRIPTOR_TYPE) {
      if (!file.raw && !sets.empty()) {
        if (auto error = CheckSet(sets.back())) return error;
      }
      sets.emplace_back();
    } else if (sets.empty()) {
      return HexError{line.line, "descriptor before the first configuration descriptor"};
    }
    sets.back().push_back(&line);
  }
  if (!file.raw && !sets.empty()) {
    if (auto error = CheckSet(sets.back())) return error;
  }
  for (const auto& set : sets) {
    std::vector<uint8_t> bytes;
    for (const auto* line : set) {
      bytes.insert(bytes.end(), line->bytes.begin(), line->bytes.end());
    }
    description.configurations.push_back(std::move(bytes));
  }
  if (!file.raw && description.NumConfigurations() != sets.size()) {
    return HexError{file.descriptors.front().line, "bNumConfigurations " +
                                                       std::to_string(description.NumConfigurations()) +
                                                       " but the file has " + std::to_string(sets.size()) +
                                                       " configurations"};
  }

  // Strings.
  if (file.languages) {
    description.languages = file.languages->second;
  } else if (!file.strings.empty() || file.serial) {
    description.languages = {0x0409};
  }
  std::map<UsbStringKey, int> definedAt;
  auto define = [&](int line, UsbStringKey key, const std::u16string& text) -> std::optional<HexError> {
    auto [it, added] = definedAt.emplace(key, line);
    if (!added) {
      char language[8];
      std::snprintf(language, sizeof language, "0x%04x", key.language);
      return HexError{line, "string " + std::to_string(key.index) + " in language " + language +
                                " is already given at line " + std::to_string(it->second)};
    }
    description.strings[key] = text;
    return std::nullopt;
  };
  for (const StringLine& s : file.strings) {
    const auto& table = description.languages;
    if (!file.raw && std::find(table.begin(), table.end(), s.key.language) == table.end()) {
      return HexError{s.line, "language is not in the language table"};
    }
    if (auto error = define(s.line, s.key, s.text)) return error;
  }
  if (file.serial) {
    const uint8_t index = description.SerialNumberIndex();
    if (index == 0) {
      return HexError{file.serial->first, "serial given but the device descriptor's iSerialNumber is 0"};
    }
    for (uint16_t language : description.languages) {
      if (auto error = define(file.serial->first, UsbStringKey{index, language}, file.serial->second)) return error;
    }
  }
  return std::nullopt;
}

std::string HexBytes(const uint8_t* bytes, size_t count) {
  std::string out;
  char buffer[4];
  for (size_t i = 0; i < count; ++i) {
    std::snprintf(buffer, sizeof buffer, i == 0 ? "%02X" : " %02X", bytes[i]);
    out += buffer;
  }
  return out + "\n";
}

}  // namespace

UsbDescriptionResult ParseHexDescription(const std::string& text, const std::string& fileName) {
  ParsedFile file;
  std::optional<HexError> error;
  std::istringstream lines(text);
  std::string line;
  for (int number = 1; !error && std::getline(lines, line); ++number) {
    if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    error = ReadLine(line, number, file);
  }
  UsbDeviceDescription description;
  description.name = fileName;
  if (!error) {
    error = Assemble(file, description);
  }
  UsbDescriptionResult result;
  if (error) {
    result.error.file = fileName;
    result.error.where = error->line > 0 ? UsbDescriptionError::Where::Line : UsbDescriptionError::Where::File;
    result.error.position = error->line > 0 ? error->line : 0;
    result.error.what = error->what;
  } else {
    result.description = std::move(description);
  }
  return result;
}

std::string UsbDeviceDescription::ToHexText() const {
  std::string body = HexBytes(device.data(), device.size());
  // Only a set's own header may begin a line with type 0x02, since the reader starts a
  // new set there. A stray configuration descriptor inside a set, and the bytes that do
  // not frame, continue the previous line: under !raw the bytes stay the same. (A set
  // that does not even begin with a configuration header cannot be written faithfully.)
  auto continueLine = [&](const uint8_t* bytes, size_t count) {
    body.back() = ' ';
    body += HexBytes(bytes, count);
  };
  for (const auto& set : configurations) {
    size_t end = 0;
    usb::WalkConfigurationSet(set.data(), set.size(), [&](const usb::DescriptorView& d) {
      if (d.offset > 0 && d.type() == USB_CONFIGURATION_DESCRIPTOR_TYPE) {
        continueLine(d.bytes, d.length());
      } else {
        body += HexBytes(d.bytes, d.length());
      }
      end = d.offset + d.length();
    });
    if (end == 0) {
      body += HexBytes(set.data(), set.size());
    } else if (end < set.size()) {
      continueLine(set.data() + end, set.size() - end);
    }
  }
  if (!languages.empty()) {
    body += "languages";
    for (uint16_t language : languages) {
      char buffer[8];
      std::snprintf(buffer, sizeof buffer, " 0x%04x", language);
      body += buffer;
    }
    body += "\n";
  }
  for (const auto& [key, text] : strings) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "string %u 0x%04x ", key.index, key.language);
    body += buffer + QuoteText(text) + "\n";
  }
  std::string header;
  if (!name.empty()) {
    std::string safe = name;
    for (char& c : safe) {
      c = (c == '\n' || c == '\r') ? ' ' : c;
    }
    header = "# " + safe + "\n";
  }
  auto checked = ParseHexDescription(body, name);
  if (!checked || *checked.description != *this) {
    header += "!raw\n";
  }
  return header + body;
}

}  // namespace wdmsim
