// KnUnicodeString: a counted UTF-16 string that knows who owns its buffer, and so how to
// give it back.
#pragma once

#include <ntddk.h>

enum KnUnicodeStringKind {
  KnUnicodeStringKind_Borrowed = 0,      // points at text someone else owns (a literal)
  KnUnicodeStringKind_RtlAllocated = 1,  // from the platform's string routines: RtlFreeUnicodeString
  KnUnicodeStringKind_KnAllocated = 2,   // from KnAllocateMemory: KnFreeMemory
};

class KnUnicodeString : public UNICODE_STRING {
 public:
  KnUnicodeString();
  ~KnUnicodeString() { Free(); }

  // Borrows Text (NUL-terminated, may be NULL) after releasing any previous buffer.
  void SetBorrowed(PCWSTR Text);
  // Takes over a buffer that the platform's string routines allocated.
  void AdoptRtlAllocated(UNICODE_STRING* String);
  // Up to DISPATCH_LEVEL; NumberOfBytes at most 0xFFFF. Releases any previous buffer and
  // takes a zero-filled one: MaximumLength = NumberOfBytes, Length 0.
  NTSTATUS Allocate(POOL_TYPE PoolType, ULONG NumberOfBytes, ULONG Tag);
  // Releases the buffer as its kind requires; Buffer NULL and both lengths 0 afterwards.
  // A platform-allocated buffer may only be released at PASSIVE_LEVEL.
  void Free();

  KnUnicodeStringKind GetKind() const { return mKind; }

 private:
  KnUnicodeString(const KnUnicodeString&);             // owns its buffer: no copies
  KnUnicodeString& operator=(const KnUnicodeString&);

  KnUnicodeStringKind mKind;
};

// Tag of the buffers the framework allocates for its strings: "UStr".
#define KN_UNICODE_STRING_TAG 0x72745355
