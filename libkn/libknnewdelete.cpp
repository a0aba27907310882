// The framework's new and delete, and what the compiler expects of a C++ runtime that a
// kernel image does not have.
#include "libknnewdelete.h"

#include "kntrace.h"

void* __cdecl operator new(size_t Size, POOL_TYPE PoolType, ULONG Tag) noexcept {
  KN_ASSERT(Size>0);
  return KnAllocateMemory(PoolType, Size, Tag, TRUE);
}

void* __cdecl operator new[](size_t Size, POOL_TYPE PoolType, ULONG Tag) noexcept {
  return operator new(Size, PoolType, Tag);
}

void __cdecl operator delete(void* Memory, POOL_TYPE, ULONG) noexcept {
  if (Memory != NULL) {
    KnFreeMemory(Memory);
  }
}

void __cdecl operator delete[](void* Memory, POOL_TYPE, ULONG) noexcept {
  if (Memory != NULL) {
    KnFreeMemory(Memory);
  }
}

// The global delete operators: every framework object is destroyed through them. (On the
// host they also receive the test program's own heap blocks, which the simulated pool
// hands back to the C library.)
void __cdecl operator delete(void* Memory) noexcept {
  if (Memory != NULL) {
    KnFreeMemory(Memory);
  }
}

void __cdecl operator delete(void* Memory, size_t) noexcept {
  if (Memory != NULL) {
    KnFreeMemory(Memory);
  }
}

void __cdecl operator delete[](void* Memory) noexcept {
  if (Memory != NULL) {
    KnFreeMemory(Memory);
  }
}

void __cdecl operator delete[](void* Memory, size_t) noexcept {
  if (Memory != NULL) {
    KnFreeMemory(Memory);
  }
}

// Reached only through a virtual call on an object under construction or destruction.
// There is no runtime to abort into: report it and return.
extern "C" void __cdecl __cxa_pure_virtual() {
  KnAssert(FALSE, "pure virtual function called", __FILE__, __LINE__);
}
