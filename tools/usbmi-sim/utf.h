// UTF-16 (what the driver and the registry hold) to UTF-8 (what the terminal and JSON get).
#pragma once
#include <string>

namespace usbmisim {

// Unpaired surrogates become U+FFFD.
std::string Utf8FromUtf16(const std::u16string& text);
std::u16string Utf16FromUtf8(const std::string& text);  // ASCII and valid UTF-8 only

}  // namespace usbmisim
