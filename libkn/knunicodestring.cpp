#include "knunicodestring.h"

#include "knmemory.h"
#include "kntrace.h"

KnUnicodeString::KnUnicodeString() : mKind(KnUnicodeStringKind_Borrowed) {
  Length = 0;
  MaximumLength = 0;
  Buffer = NULL;
}

void KnUnicodeString::SetBorrowed(PCWSTR Text) {
  Free();
  RtlInitUnicodeString(this, Text);
  mKind = KnUnicodeStringKind_Borrowed;
}

void KnUnicodeString::AdoptRtlAllocated(UNICODE_STRING* String) {
  Free();
  Length = String->Length;
  MaximumLength = String->MaximumLength;
  Buffer = String->Buffer;
  mKind = KnUnicodeStringKind_RtlAllocated;
  String->Length = 0;
  String->MaximumLength = 0;
  String->Buffer = NULL;
}

NTSTATUS KnUnicodeString::Allocate(POOL_TYPE PoolType, ULONG NumberOfBytes, ULONG Tag) {
  KN_ASSERT_IRQL_LTEQ_DISPATCH();
  KN_ASSERT(NumberOfBytes<=0xFFFF);
  Free();
  mKind = KnUnicodeStringKind_KnAllocated;
  if (NumberOfBytes == 0 || NumberOfBytes > 0xFFFF) {
    // The counted lengths are 16-bit; such a string cannot be described.
    return STATUS_INVALID_PARAMETER;
  }
  Buffer = (PWSTR)KnAllocateMemory(PoolType, NumberOfBytes, Tag, TRUE);
  if (Buffer == NULL) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  MaximumLength = (USHORT)NumberOfBytes;
  return STATUS_SUCCESS;
}

void KnUnicodeString::Free() {
  if (Buffer != NULL) {
    switch (mKind) {
      case KnUnicodeStringKind_RtlAllocated:
        KN_ASSERT_IRQL_EQ_PASSIVE();
        RtlFreeUnicodeString(this);
        break;
      case KnUnicodeStringKind_KnAllocated:
        KnFreeMemory(Buffer);
        break;
      case KnUnicodeStringKind_Borrowed:
        break;
    }
  }
  Buffer = NULL;
  Length = 0;
  MaximumLength = 0;
}
