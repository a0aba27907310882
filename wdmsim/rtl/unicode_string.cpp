// Counted UTF-16 strings: UNICODE_STRING initialisation, copy, append and compare.
// Lengths are in bytes; a string is terminated only where its buffer has room.
#include <wdm.h>

#include "rtl/string_pool.h"

namespace {

constexpr USHORT kMaxStringBytes = 0xFFFE;

size_t Chars(PCUNICODE_STRING s) { return s->Length / sizeof(WCHAR); }

// Terminates the string when its buffer has room for one more character.
void TerminateIfRoom(PUNICODE_STRING s) {
  if (s->Length + sizeof(WCHAR) <= s->MaximumLength) s->Buffer[Chars(s)] = 0;
}

LONG CompareChars(const WCHAR* a, size_t aChars, const WCHAR* b, size_t bChars, BOOLEAN caseInsensitive) {
  size_t common = aChars < bChars ? aChars : bChars;
  for (size_t i = 0; i < common; ++i) {
    WCHAR ca = caseInsensitive ? RtlUpcaseUnicodeChar(a[i]) : a[i];
    WCHAR cb = caseInsensitive ? RtlUpcaseUnicodeChar(b[i]) : b[i];
    if (ca != cb) return static_cast<LONG>(ca) - static_cast<LONG>(cb);
  }
  return static_cast<LONG>(aChars) - static_cast<LONG>(bChars);
}

}  // namespace

extern "C" void NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
  DestinationString->Buffer = const_cast<PWSTR>(SourceString);
  if (SourceString == nullptr) {
    DestinationString->Length = 0;
    DestinationString->MaximumLength = 0;
    return;
  }
  size_t bytes = wcslen(SourceString) * sizeof(WCHAR);
  // A longer text does not fit a counted string: it is cut, as the kernel does.
  if (bytes > kMaxStringBytes - sizeof(WCHAR)) bytes = kMaxStringBytes - sizeof(WCHAR);
  DestinationString->Length = static_cast<USHORT>(bytes);
  DestinationString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
}

extern "C" void NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString) {
  if (UnicodeString->Buffer != nullptr) wdmsim::rtl::FreeStringBuffer(UnicodeString->Buffer);
  UnicodeString->Buffer = nullptr;
  UnicodeString->Length = 0;
  UnicodeString->MaximumLength = 0;
}

extern "C" void NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString) {
  if (SourceString == nullptr) {
    DestinationString->Length = 0;
    return;
  }
  USHORT bytes = SourceString->Length < DestinationString->MaximumLength ? SourceString->Length
                                                                         : DestinationString->MaximumLength;
  bytes &= ~static_cast<USHORT>(1);
  memmove(DestinationString->Buffer, SourceString->Buffer, bytes);
  DestinationString->Length = bytes;
  TerminateIfRoom(DestinationString);
}

extern "C" NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
  if (Source->Length == 0) return STATUS_SUCCESS;
  if (Destination->Length + Source->Length > Destination->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
  memmove(Destination->Buffer + Chars(Destination), Source->Buffer, Source->Length);
  Destination->Length = static_cast<USHORT>(Destination->Length + Source->Length);
  TerminateIfRoom(Destination);
  return STATUS_SUCCESS;
}

extern "C" NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source) {
  if (Source == nullptr) return STATUS_SUCCESS;
  size_t bytes = wcslen(Source) * sizeof(WCHAR);
  if (Destination->Length + bytes > Destination->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
  memmove(Destination->Buffer + Chars(Destination), Source, bytes);
  Destination->Length = static_cast<USHORT>(Destination->Length + bytes);
  TerminateIfRoom(Destination);
  return STATUS_SUCCESS;
}

extern "C" LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                              BOOLEAN CaseInSensitive) {
  return CompareChars(String1->Buffer, Chars(String1), String2->Buffer, Chars(String2), CaseInSensitive);
}

extern "C" BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                               BOOLEAN CaseInSensitive) {
  if (String1->Length != String2->Length) return FALSE;
  return CompareChars(String1->Buffer, Chars(String1), String2->Buffer, Chars(String2), CaseInSensitive) == 0;
}
