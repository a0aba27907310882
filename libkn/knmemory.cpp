#include "knmemory.h"

#include "kntrace.h"

PVOID KnAllocateMemory(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag, BOOLEAN Zero) {
  KN_ASSERT(NumberOfBytes>0);
  KN_ASSERT_IRQL_LTEQ_DISPATCH();
  // Paged memory may fault, and a page fault above PASSIVE_LEVEL is fatal.
  KN_ASSERT(!(PoolType==PagedPool && KeGetCurrentIrql()>PASSIVE_LEVEL));
  PVOID memory = ExAllocatePoolWithTag(PoolType, NumberOfBytes, Tag);
  if (memory != NULL && Zero) {
    RtlZeroMemory(memory, NumberOfBytes);
  }
  return memory;
}

void KnFreeMemory(PVOID Memory) {
  KN_ASSERT(Memory!=NULL);
  // Tag 0: the pool checks no tag, so a block may be freed by whoever owns it last.
  ExFreePoolWithTag(Memory, 0);
}
