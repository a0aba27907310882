// Conversions between 32-bit integers and UNICODE_STRING text.
#include <wdm.h>

namespace {

bool IsValidBase(ULONG base) { return base == 2 || base == 8 || base == 10 || base == 16; }

// The value of c as a digit, or a value >= 16 for anything else.
ULONG DigitValue(WCHAR c) {
  if (c >= L'0' && c <= L'9') return c - L'0';
  if (c >= L'a' && c <= L'f') return c - L'a' + 10;
  if (c >= L'A' && c <= L'F') return c - L'A' + 10;
  return 16;
}

}  // namespace

extern "C" NTSTATUS NTAPI RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String) {
  if (Base == 0) Base = 10;
  if (!IsValidBase(Base)) return STATUS_INVALID_PARAMETER;

  WCHAR digits[32];
  size_t count = 0;
  do {
    ULONG digit = Value % Base;
    digits[count++] = static_cast<WCHAR>(digit < 10 ? L'0' + digit : L'A' + digit - 10);
    Value /= Base;
  } while (Value != 0);

  // Like the kernel, which converts through an ANSI string: the text needs room for its
  // terminator as well.
  size_t bytes = count * sizeof(WCHAR);
  if (bytes >= String->MaximumLength) return STATUS_BUFFER_OVERFLOW;
  for (size_t i = 0; i < count; ++i) String->Buffer[i] = digits[count - 1 - i];
  String->Length = static_cast<USHORT>(bytes);
  if (bytes + sizeof(WCHAR) <= String->MaximumLength) String->Buffer[count] = 0;
  return STATUS_SUCCESS;
}

// Leading characters up to the space are skipped, one sign is taken, and with base 0 a
// "0x", "0o" or "0b" prefix chooses the base (decimal otherwise). Digits are read until
// the first character that is not one; the value wraps at 32 bits. An empty or odd-sized
// string is refused, as Windows Vista and later do.
extern "C" NTSTATUS NTAPI RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value) {
  if (Base != 0 && !IsValidBase(Base)) return STATUS_INVALID_PARAMETER;
  if (String->Length == 0 || (String->Length & 1) != 0) return STATUS_INVALID_PARAMETER;

  const WCHAR* c = String->Buffer;
  const WCHAR* end = c + String->Length / sizeof(WCHAR);
  while (c < end && *c <= L' ') ++c;
  bool negative = false;
  if (c < end && (*c == L'+' || *c == L'-')) {
    negative = *c == L'-';
    ++c;
  }
  if (Base == 0) {
    Base = 10;
    if (end - c >= 2 && c[0] == L'0') {
      switch (c[1]) {
        case L'x': Base = 16; c += 2; break;
        case L'o': Base = 8; c += 2; break;
        case L'b': Base = 2; c += 2; break;
        default: break;
      }
    }
  }
  ULONG result = 0;
  for (; c < end; ++c) {
    ULONG digit = DigitValue(*c);
    if (digit >= Base) break;
    result = result * Base + digit;
  }
  *Value = negative ? 0u - result : result;
  return STATUS_SUCCESS;
}
