// The framework's `new`: every object is created from a named pool with a tag, and
// starts zero-filled. `delete` returns the block to the pool.
//
//   Device* device = new (NonPagedPool, gKnDefaultPoolTag) Device;
//   ...
//   delete device;
#pragma once

#include <ntddk.h>

#include "knmemory.h"

// NULL when the pool has no memory. Declared noexcept so that the compiler checks the
// result before it runs a constructor: callers test for NULL.
void* __cdecl operator new(size_t Size, POOL_TYPE PoolType, ULONG Tag) noexcept;
void* __cdecl operator new[](size_t Size, POOL_TYPE PoolType, ULONG Tag) noexcept;

// Only reached when a constructor throws, which kernel code never does; declared so that
// the new above has its matching form.
void __cdecl operator delete(void* Memory, POOL_TYPE PoolType, ULONG Tag) noexcept;
void __cdecl operator delete[](void* Memory, POOL_TYPE PoolType, ULONG Tag) noexcept;
