// An INF file as text structure: sections of lines, each line an optional key and its
// comma-separated fields, with comments, line continuation, quoting and %string% tokens
// of the [Strings] section resolved. The meaning of sections is inf_package's business.
#pragma once
#include <map>
#include <string>
#include <vector>

#include <wdmsim/pnpmanager.h>

namespace wdmsim {
namespace pnp {

struct InfLine {
  int number = 0;      // where the logical line starts in the file (1-based)
  bool hasKey = false;
  std::string key;     // before '=', tokens resolved
  std::vector<std::string> fields;
};

struct InfSection {
  std::string name;  // as first written
  std::vector<InfLine> lines;
};

class InfFile {
 public:
  // Parses text; false with *error on a malformed line or an undefined string token.
  bool Parse(const std::string& fileName, const std::string& text, InfError* error);

  const std::string& fileName() const { return mFileName; }
  // Sections compare case-insensitively; several sections of one name are merged.
  const InfSection* Find(const std::string& name) const;
  // The first field of the first line with that key in section, or "" when absent.
  std::string Value(const std::string& section, const std::string& key) const;
  // The first line with that key in section, or NULL.
  const InfLine* FindLine(const std::string& section, const std::string& key) const;

 private:
  std::string mFileName;
  std::map<std::string, InfSection> mSections;  // upper-case name -> section
};

std::string UpperAscii(std::string text);
bool EqualsNoCase(const std::string& a, const std::string& b);
// UTF-8 to UTF-16 (invalid bytes become U+FFFD).
std::u16string Utf16FromUtf8(const std::string& text);
std::string Utf8FromUtf16(const std::u16string& text);

}  // namespace pnp
}  // namespace wdmsim
