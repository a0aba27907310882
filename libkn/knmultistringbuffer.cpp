#include "knmultistringbuffer.h"

#include "knmemory.h"
#include "kntrace.h"

static ULONG StringBytesWithNul(PCWSTR String) {
  return (ULONG)((wcslen(String) + 1) * sizeof(KnMultiStringBuffer::TChar));
}

void KnMultiStringBuffer::SetString(PCWSTR String, POOL_TYPE PoolType, ULONG Tag) {
  ULONG size = StringBytesWithNul(String);
  if (Allocate(PoolType, size, Tag)) {
    RtlCopyMemory(GetBuffer(), String, size);
  }
}

void KnMultiStringBuffer::AppendString(PCWSTR String, POOL_TYPE PoolType, ULONG Tag) {
  ULONG stringSize = StringBytesWithNul(String);
  // A held block smaller than one character holds no list: it is replaced like none.
  ULONG oldSize = GetBuffer() != NULL && GetBufferSize() >= sizeof(TChar) ? GetBufferSize() : 0;
  ULONG newSize = stringSize + (oldSize != 0 ? oldSize : sizeof(TChar));
  PUCHAR list = (PUCHAR)KnAllocateMemory(PoolType, newSize, Tag, TRUE);
  if (list == NULL) {
    return;
  }
  ULONG offset = 0;
  if (oldSize != 0) {
    KN_ASSERT(GetBufferSize()>=(2*sizeof(TChar)));
    RtlCopyMemory(list, GetBuffer(), oldSize);
    // The new string goes over the list's closing NUL.
    offset = (oldSize & ~1u) - sizeof(TChar);
  }
  RtlCopyMemory(list + offset, String, stringSize);
  *(TChar*)(list + offset + stringSize) = 0;
  Attach(list, newSize);
}
