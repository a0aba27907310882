// The kernel's wide-character string functions, for 16-bit WCHAR (the C library's work on
// its own 32-bit wchar_t; <wdm.h> sends the driver's calls here).
#include <wdm.h>

namespace {

// The C runtime's case folding for _wcsicmp: ASCII letters only, to lower case.
wchar_t AsciiLower(wchar_t c) { return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c + (L'a' - L'A')) : c; }

}  // namespace

extern "C" size_t wdmsim_wcslen(const wchar_t* String) {
  const wchar_t* end = String;
  while (*end != 0) ++end;
  return static_cast<size_t>(end - String);
}

extern "C" wchar_t* wdmsim_wcscpy(wchar_t* Destination, const wchar_t* Source) {
  wchar_t* out = Destination;
  while ((*out++ = *Source++) != 0) {
  }
  return Destination;
}

extern "C" wchar_t* wdmsim_wcscat(wchar_t* Destination, const wchar_t* Source) {
  wdmsim_wcscpy(Destination + wdmsim_wcslen(Destination), Source);
  return Destination;
}

// Characters compare as unsigned 16-bit values.
extern "C" int wdmsim_wcscmp(const wchar_t* A, const wchar_t* B) {
  while (*A != 0 && *A == *B) {
    ++A;
    ++B;
  }
  return static_cast<int>(static_cast<uint16_t>(*A)) - static_cast<int>(static_cast<uint16_t>(*B));
}

extern "C" int wdmsim__wcsicmp(const wchar_t* A, const wchar_t* B) {
  wchar_t a, b;
  do {
    a = AsciiLower(*A++);
    b = AsciiLower(*B++);
  } while (a != 0 && a == b);
  return static_cast<int>(static_cast<uint16_t>(a)) - static_cast<int>(static_cast<uint16_t>(b));
}

// Copies at most Count characters and pads with NULs up to Count; a source of Count
// characters or more leaves the destination unterminated.
extern "C" wchar_t* wdmsim_wcsncpy(wchar_t* Destination, const wchar_t* Source, size_t Count) {
  size_t i = 0;
  for (; i < Count && Source[i] != 0; ++i) Destination[i] = Source[i];
  for (; i < Count; ++i) Destination[i] = 0;
  return Destination;
}

// The terminator counts as part of the string: searching for 0 finds it.
extern "C" wchar_t* wdmsim_wcschr(const wchar_t* String, wchar_t Character) {
  for (;; ++String) {
    if (*String == Character) return const_cast<wchar_t*>(String);
    if (*String == 0) return nullptr;
  }
}

extern "C" wchar_t* wdmsim_wcsrchr(const wchar_t* String, wchar_t Character) {
  const wchar_t* found = nullptr;
  for (;; ++String) {
    if (*String == Character) found = String;
    if (*String == 0) return const_cast<wchar_t*>(found);
  }
}
