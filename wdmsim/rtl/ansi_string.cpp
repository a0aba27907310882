// 8-bit counted strings and their conversion to and from UNICODE_STRING. The host's
// ANSI code page is Latin-1: a byte is the code point of the same value, and characters
// above 0xFF become '?' (the kernel's default character).
#include <wdm.h>

#include "rtl/string_pool.h"

namespace {

constexpr USHORT kMaxAnsiBytes = 0xFFFE;
constexpr ULONG kMaxCountedBytes = 0xFFFF;
constexpr char kDefaultChar = '?';

}  // namespace

extern "C" void NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString) {
  DestinationString->Buffer = const_cast<PCHAR>(SourceString);
  if (SourceString == nullptr) {
    DestinationString->Length = 0;
    DestinationString->MaximumLength = 0;
    return;
  }
  size_t bytes = strlen(SourceString);
  if (bytes > kMaxAnsiBytes - 1u) bytes = kMaxAnsiBytes - 1u;
  DestinationString->Length = static_cast<USHORT>(bytes);
  DestinationString->MaximumLength = static_cast<USHORT>(bytes + 1);
}

extern "C" NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PANSI_STRING SourceString,
                                                       BOOLEAN AllocateDestinationString) {
  ULONG needed = (SourceString->Length + 1u) * sizeof(WCHAR);
  if (needed > kMaxCountedBytes) return STATUS_INVALID_PARAMETER_2;
  USHORT length = static_cast<USHORT>(SourceString->Length * sizeof(WCHAR));
  if (AllocateDestinationString) {
    PWSTR buffer = static_cast<PWSTR>(wdmsim::rtl::AllocateStringBuffer(needed));
    if (buffer == nullptr) return STATUS_NO_MEMORY;
    DestinationString->Buffer = buffer;
    DestinationString->MaximumLength = static_cast<USHORT>(needed);
  } else if (length >= DestinationString->MaximumLength) {
    return STATUS_BUFFER_OVERFLOW;
  }
  DestinationString->Length = length;
  for (USHORT i = 0; i < SourceString->Length; ++i) {
    DestinationString->Buffer[i] = static_cast<unsigned char>(SourceString->Buffer[i]);
  }
  if (length + sizeof(WCHAR) <= DestinationString->MaximumLength) DestinationString->Buffer[SourceString->Length] = 0;
  return STATUS_SUCCESS;
}

extern "C" NTSTATUS NTAPI RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                                       BOOLEAN AllocateDestinationString) {
  ULONG chars = SourceString->Length / sizeof(WCHAR);
  if (chars + 1 > kMaxCountedBytes) return STATUS_INVALID_PARAMETER_2;
  NTSTATUS status = STATUS_SUCCESS;
  if (AllocateDestinationString) {
    PCHAR buffer = static_cast<PCHAR>(wdmsim::rtl::AllocateStringBuffer(chars + 1));
    if (buffer == nullptr) return STATUS_NO_MEMORY;
    DestinationString->Buffer = buffer;
    DestinationString->MaximumLength = static_cast<USHORT>(chars + 1);
  } else if (chars >= DestinationString->MaximumLength) {
    // What fits is still converted; the caller learns that the rest was cut.
    if (DestinationString->MaximumLength == 0) return STATUS_BUFFER_OVERFLOW;
    status = STATUS_BUFFER_OVERFLOW;
    chars = DestinationString->MaximumLength - 1u;
  }
  for (ULONG i = 0; i < chars; ++i) {
    WCHAR c = SourceString->Buffer[i];
    DestinationString->Buffer[i] = c <= 0xFF ? static_cast<char>(c) : kDefaultChar;
  }
  DestinationString->Buffer[chars] = 0;
  DestinationString->Length = static_cast<USHORT>(chars);
  return status;
}

extern "C" void NTAPI RtlFreeAnsiString(PANSI_STRING AnsiString) {
  if (AnsiString->Buffer != nullptr) wdmsim::rtl::FreeStringBuffer(AnsiString->Buffer);
  AnsiString->Buffer = nullptr;
  AnsiString->Length = 0;
  AnsiString->MaximumLength = 0;
}
