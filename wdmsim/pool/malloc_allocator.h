// A standard allocator that takes its memory straight from the C library.
//
// The pool's own bookkeeping must not go through operator new/delete: on the host the
// driver replaces the global operator delete with a call into ExFreePoolWithTag, so a
// container of the pool that freed through delete would re-enter the pool under its own
// lock.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

namespace wdmsim {
namespace pool {

template <typename T>
struct MallocAllocator {
  using value_type = T;

  MallocAllocator() noexcept = default;
  template <typename U>
  MallocAllocator(const MallocAllocator<U>&) noexcept {}

  T* allocate(size_t n) {
    void* p = std::malloc(n * sizeof(T));
    if (p == nullptr) throw std::bad_alloc();
    return static_cast<T*>(p);
  }
  void deallocate(T* p, size_t) noexcept { std::free(p); }

  template <typename U>
  bool operator==(const MallocAllocator<U>&) const noexcept { return true; }
  template <typename U>
  bool operator!=(const MallocAllocator<U>&) const noexcept { return false; }
};

}  // namespace pool
}  // namespace wdmsim
