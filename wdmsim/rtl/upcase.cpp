// RtlUpcaseUnicodeChar: the kernel's case folding for names and case-insensitive compares.
//
// Windows folds with its NLS upcase table. This host table covers what driver, registry
// and device names use: ASCII, Latin-1, Latin Extended-A, basic Greek and Cyrillic and the
// fullwidth Latin letters. Characters with no simple one-to-one capital (the German sharp s,
// dotless i and the like) stay as they are, as in the NLS table.
#include <wdm.h>

namespace {

WCHAR UpcaseLatinExtendedA(WCHAR c) {
  // Pairs of capital (even) and small (odd) letters, except where the block shifts parity.
  if ((c >= 0x0100 && c <= 0x012F) || (c >= 0x0132 && c <= 0x0137) || (c >= 0x014A && c <= 0x0177)) {
    return (c & 1) ? static_cast<WCHAR>(c - 1) : c;
  }
  if ((c >= 0x0139 && c <= 0x0148) || (c >= 0x0179 && c <= 0x017E)) {
    return (c & 1) ? c : static_cast<WCHAR>(c - 1);
  }
  return c;
}

}  // namespace

extern "C" WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR c) {
  if (c < 0x61) return c;
  if (c <= 0x7A) return static_cast<WCHAR>(c - 0x20);
  if (c < 0xE0) return c;
  if (c <= 0xFE) return c == 0xF7 ? c : static_cast<WCHAR>(c - 0x20);  // 0xF7 is the division sign
  if (c == 0xFF) return 0x0178;
  if (c <= 0x017F) return UpcaseLatinExtendedA(c);
  if (c >= 0x03B1 && c <= 0x03C9 && c != 0x03C2) return static_cast<WCHAR>(c - 0x20);  // Greek, not final sigma
  if (c == 0x03C2) return 0x03A3;
  if (c >= 0x0430 && c <= 0x044F) return static_cast<WCHAR>(c - 0x20);  // Cyrillic
  if (c >= 0x0450 && c <= 0x045F) return static_cast<WCHAR>(c - 0x50);
  if (c >= 0xFF41 && c <= 0xFF5A) return static_cast<WCHAR>(c - 0x20);  // fullwidth a-z
  return c;
}
