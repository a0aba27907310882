#include "utf.h"

namespace usbmisim {
namespace {

void AppendUtf8(std::string* out, char32_t c) {
  if (c < 0x80) {
    *out += static_cast<char>(c);
  } else if (c < 0x800) {
    *out += static_cast<char>(0xC0 | (c >> 6));
    *out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    *out += static_cast<char>(0xE0 | (c >> 12));
    *out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    *out += static_cast<char>(0xF0 | (c >> 18));
    *out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    *out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

bool IsHigh(char16_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLow(char16_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

}  // namespace

std::string Utf8FromUtf16(const std::u16string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    char16_t c = text[i];
    if (IsHigh(c) && i + 1 < text.size() && IsLow(text[i + 1])) {
      AppendUtf8(&out, 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00));
      ++i;
    } else if (IsHigh(c) || IsLow(c)) {
      AppendUtf8(&out, 0xFFFD);
    } else {
      AppendUtf8(&out, c);
    }
  }
  return out;
}

std::u16string Utf16FromUtf8(const std::string& text) {
  std::u16string out;
  for (size_t i = 0; i < text.size();) {
    unsigned char b = static_cast<unsigned char>(text[i]);
    char32_t c;
    size_t extra;
    if (b < 0x80) {
      c = b, extra = 0;
    } else if ((b & 0xE0) == 0xC0) {
      c = b & 0x1F, extra = 1;
    } else if ((b & 0xF0) == 0xE0) {
      c = b & 0x0F, extra = 2;
    } else {
      c = b & 0x07, extra = 3;
    }
    ++i;
    for (size_t k = 0; k < extra && i < text.size(); ++k, ++i) c = (c << 6) | (text[i] & 0x3F);
    if (c >= 0x10000) {
      c -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (c >> 10));
      out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    } else {
      out += static_cast<char16_t>(c);
    }
  }
  return out;
}

}  // namespace usbmisim
