// Framework memory: every object of the framework and the driver comes from the pool,
// with a pool type and a tag, through these two functions.
#pragma once

#include <ntddk.h>

// A pool tag written as its four bytes in memory order, the way pool tools show it:
// KN_POOLTAG("LbKn") == 0x6E4B624C.
#define KN_POOLTAG(text)                                                          \
  ((ULONG)(UCHAR)(text)[0] | ((ULONG)(UCHAR)(text)[1] << 8) |                    \
   ((ULONG)(UCHAR)(text)[2] << 16) | ((ULONG)(UCHAR)(text)[3] << 24))

// Tag of every `new` that names no tag of its own (driver object, parent device, ...).
const ULONG gKnDefaultPoolTag = KN_POOLTAG("LbKn");

// Any IRQL up to DISPATCH_LEVEL; PagedPool only at PASSIVE_LEVEL. NULL when the pool
// has no block of that size. With Zero set the block comes back zero-filled.
PVOID KnAllocateMemory(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag, BOOLEAN Zero);

// Returns a block of KnAllocateMemory to the pool.
void KnFreeMemory(PVOID Memory);
