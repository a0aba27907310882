// Where the runtime's string routines take their buffers from: paged pool, with one tag,
// so that RtlFreeUnicodeString and RtlFreeAnsiString can insist on it.
#pragma once

#include <wdm.h>

namespace wdmsim {
namespace rtl {

constexpr ULONG kStringTag = 0x67727453;  // "Strg"

inline PVOID AllocateStringBuffer(SIZE_T bytes) { return ExAllocatePoolWithTag(PagedPool, bytes, kStringTag); }
// Freeing with the tag makes the pool report a buffer that the runtime did not allocate.
inline void FreeStringBuffer(PVOID buffer) { ExFreePoolWithTag(buffer, kStringTag); }

}  // namespace rtl
}  // namespace wdmsim
