// INF text structure: logical lines (comments stripped, continuations joined), sections,
// keys and fields with quotes removed, then %token% substitution from [Strings].
#include "pnp/inf_file.h"

#include <algorithm>
#include <cctype>

namespace wdmsim {
namespace pnp {
namespace {

struct LogicalLine {
  int number;
  std::string text;
};

// One field while it is scanned: its characters and which of them were quoted, so that
// only unquoted blanks at either end are trimmed.
struct FieldScan {
  std::string chars;
  std::vector<bool> quoted;

  void Add(char c, bool inQuote) {
    chars += c;
    quoted.push_back(inQuote);
  }
  std::string Trimmed() const {
    size_t begin = 0, end = chars.size();
    while (begin < end && !quoted[begin] && std::isspace(static_cast<unsigned char>(chars[begin]))) ++begin;
    while (end > begin && !quoted[end - 1] && std::isspace(static_cast<unsigned char>(chars[end - 1]))) --end;
    return chars.substr(begin, end - begin);
  }
};

std::string TrimBlanks(const std::string& text) {
  size_t begin = text.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return std::string();
  size_t end = text.find_last_not_of(" \t\r");
  return text.substr(begin, end - begin + 1);
}

bool Fail(InfError* error, const std::string& file, int line, const std::string& message) {
  if (error != nullptr) *error = InfError{file, line, message};
  return false;
}

// Strips the comment of one physical line; false when a quoted string is not closed.
bool StripComment(const std::string& line, std::string* out) {
  bool inQuote = false;
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '"') inQuote = !inQuote;
    if (line[i] == ';' && !inQuote) {
      *out = line.substr(0, i);
      return true;
    }
  }
  *out = line;
  return !inQuote;
}

bool SplitLogicalLines(const std::string& file, const std::string& text, std::vector<LogicalLine>* lines,
                       InfError* error) {
  size_t pos = 0;
  int number = 0;
  std::string pending;
  int pendingStart = 0;
  // A UTF-8 byte order mark is not part of the first line.
  if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) pos = 3;
  while (pos <= text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string physical = text.substr(pos, end - pos);
    ++number;
    pos = end + 1;
    std::string content;
    if (!StripComment(physical, &content)) return Fail(error, file, number, "unterminated quoted string");
    content = TrimBlanks(content);
    if (pending.empty()) pendingStart = number;
    bool continues = !content.empty() && content.back() == '\\';
    if (continues) content.pop_back();
    pending += content;
    if (continues) continue;
    if (!TrimBlanks(pending).empty()) lines->push_back({pendingStart, pending});
    pending.clear();
  }
  if (!TrimBlanks(pending).empty()) {
    return Fail(error, file, pendingStart, "line continuation at the end of the file");
  }
  return true;
}

// Fields separated by unquoted commas (none when splitCommas is false), quotes removed
// ("" inside quotes is one quote), unquoted blanks around each field trimmed.
std::vector<std::string> ScanFields(const std::string& text, bool splitCommas) {
  std::vector<FieldScan> fields(1);
  bool inQuote = false;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '"') {
      if (inQuote && i + 1 < text.size() && text[i + 1] == '"') {
        fields.back().Add('"', true);
        ++i;
      } else {
        inQuote = !inQuote;
      }
    } else if (c == ',' && !inQuote && splitCommas) {
      fields.emplace_back();
    } else {
      fields.back().Add(c, inQuote);
    }
  }
  std::vector<std::string> out;
  for (const FieldScan& field : fields) out.push_back(field.Trimmed());
  return out;
}

// Key (everything before the first unquoted '=') and the comma-separated fields.
void Tokenize(const std::string& text, InfLine* line) {
  size_t equals = std::string::npos;
  bool inQuote = false;
  for (size_t i = 0; i < text.size() && equals == std::string::npos; ++i) {
    if (text[i] == '"') inQuote = !inQuote;
    if (text[i] == '=' && !inQuote) equals = i;
  }
  std::string values = text;
  if (equals != std::string::npos) {
    line->hasKey = true;
    line->key = ScanFields(text.substr(0, equals), false)[0];
    values = text.substr(equals + 1);
  }
  line->fields = ScanFields(values, true);
  if (line->fields.size() == 1 && line->fields[0].empty()) line->fields.clear();
}

}  // namespace

std::string UpperAscii(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

bool EqualsNoCase(const std::string& a, const std::string& b) { return UpperAscii(a) == UpperAscii(b); }

std::u16string Utf16FromUtf8(const std::string& text) {
  std::u16string out;
  for (size_t i = 0; i < text.size();) {
    unsigned char c = text[i];
    char32_t code;
    size_t extra;
    if (c < 0x80) {
      code = c;
      extra = 0;
    } else if ((c & 0xE0) == 0xC0) {
      code = c & 0x1F;
      extra = 1;
    } else if ((c & 0xF0) == 0xE0) {
      code = c & 0x0F;
      extra = 2;
    } else if ((c & 0xF8) == 0xF0) {
      code = c & 0x07;
      extra = 3;
    } else {
      out += u'\uFFFD';
      ++i;
      continue;
    }
    bool valid = true;
    for (size_t k = 1; k <= extra; ++k) {
      if (i + k >= text.size() || (static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) {
        valid = false;
        break;
      }
      code = (code << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    }
    if (!valid) {
      out += u'\uFFFD';
      ++i;
      continue;
    }
    i += extra + 1;
    if (code >= 0x10000) {
      code -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (code >> 10));
      out += static_cast<char16_t>(0xDC00 + (code & 0x3FF));
    } else {
      out += static_cast<char16_t>(code);
    }
  }
  return out;
}

std::string Utf8FromUtf16(const std::u16string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    char32_t code = text[i];
    if (code >= 0xD800 && code < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
      code = 0x10000 + ((code - 0xD800) << 10) + (text[++i] - 0xDC00);
    }
    if (code < 0x80) {
      out += static_cast<char>(code);
    } else if (code < 0x800) {
      out += static_cast<char>(0xC0 | (code >> 6));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      out += static_cast<char>(0xE0 | (code >> 12));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (code >> 18));
      out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }
  return out;
}

bool InfFile::Parse(const std::string& fileName, const std::string& text, InfError* error) {
  mFileName = fileName;
  mSections.clear();
  std::vector<LogicalLine> lines;
  if (!SplitLogicalLines(fileName, text, &lines, error)) return false;

  InfSection* current = nullptr;
  for (const LogicalLine& logical : lines) {
    std::string content = TrimBlanks(logical.text);
    if (content[0] == '[') {
      size_t close = content.find(']');
      if (close == std::string::npos) return Fail(error, fileName, logical.number, "section header without ']'");
      if (!TrimBlanks(content.substr(close + 1)).empty()) {
        return Fail(error, fileName, logical.number, "text after the section header");
      }
      std::string name = TrimBlanks(content.substr(1, close - 1));
      if (name.empty()) return Fail(error, fileName, logical.number, "empty section name");
      current = &mSections[UpperAscii(name)];
      if (current->name.empty()) current->name = name;
      continue;
    }
    if (current == nullptr) return Fail(error, fileName, logical.number, "line outside any section");
    InfLine line;
    line.number = logical.number;
    Tokenize(content, &line);
    if (line.hasKey && line.key.empty()) return Fail(error, fileName, logical.number, "'=' without a key");
    current->lines.push_back(std::move(line));
  }

  // [Strings]: token -> text (the whole value, commas included).
  std::map<std::string, std::string> strings;
  if (const InfSection* section = Find("Strings")) {
    for (const InfLine& line : section->lines) {
      if (!line.hasKey) return Fail(error, fileName, line.number, "a [Strings] line needs 'key = value'");
      std::string value;
      for (size_t i = 0; i < line.fields.size(); ++i) value += (i ? "," : "") + line.fields[i];
      strings[UpperAscii(line.key)] = value;
    }
  }
  auto substitute = [&](std::string* text, int number) {
    std::string out;
    for (size_t pos = 0; pos < text->size();) {
      size_t open = text->find('%', pos);
      if (open == std::string::npos) {
        out += text->substr(pos);
        break;
      }
      out += text->substr(pos, open - pos);
      size_t close = text->find('%', open + 1);
      if (close == std::string::npos) return Fail(error, fileName, number, "unpaired '%' in \"" + *text + "\"");
      std::string token = text->substr(open + 1, close - open - 1);
      auto found = strings.find(UpperAscii(token));
      bool dirid = !token.empty() && token.find_first_not_of("0123456789") == std::string::npos;
      if (token.empty()) {
        out += '%';
      } else if (found != strings.end()) {
        out += found->second;
      } else if (dirid) {
        out += "%" + token + "%";  // a directory id, resolved where a path is expected
      } else {
        return Fail(error, fileName, number, "undefined string token %" + token + "%");
      }
      pos = close + 1;
    }
    *text = out;
    return true;
  };
  // In file order, so that the first bad token is the one reported.
  std::vector<InfLine*> ordered;
  for (auto& [upperName, section] : mSections) {
    if (upperName == "STRINGS") continue;
    for (InfLine& line : section.lines) ordered.push_back(&line);
  }
  std::sort(ordered.begin(), ordered.end(), [](const InfLine* a, const InfLine* b) { return a->number < b->number; });
  for (InfLine* line : ordered) {
    if (!substitute(&line->key, line->number)) return false;
    for (std::string& field : line->fields) {
      if (!substitute(&field, line->number)) return false;
    }
  }
  return true;
}

const InfSection* InfFile::Find(const std::string& name) const {
  auto it = mSections.find(UpperAscii(name));
  return it == mSections.end() ? nullptr : &it->second;
}

const InfLine* InfFile::FindLine(const std::string& section, const std::string& key) const {
  const InfSection* found = Find(section);
  if (found == nullptr) return nullptr;
  for (const InfLine& line : found->lines) {
    if (line.hasKey && EqualsNoCase(line.key, key)) return &line;
  }
  return nullptr;
}

std::string InfFile::Value(const std::string& section, const std::string& key) const {
  const InfLine* line = FindLine(section, key);
  return line == nullptr || line->fields.empty() ? std::string() : line->fields[0];
}

}  // namespace pnp

std::string InfError::Text() const {
  return line > 0 ? file + ":" + std::to_string(line) + ": " + message : file + ": " + message;
}

}  // namespace wdmsim
