// KnBufferBlock: one pool block owned by an object, with its size. Empty (no block,
// size 0) until something is stored; the block is freed on replacement and destruction.
#pragma once

#include <ntddk.h>

class KnBufferBlock {
 public:
  KnBufferBlock();
  virtual ~KnBufferBlock();

  PVOID GetBuffer() const { return mBuffer; }
  ULONG GetBufferSize() const { return mBufferSize; }

  // Up to DISPATCH_LEVEL (PagedPool: PASSIVE_LEVEL). Frees the held block, then takes a
  // zero-filled one of NumberOfBytes. False when the pool has none: the object is empty.
  bool Allocate(POOL_TYPE PoolType, ULONG NumberOfBytes, ULONG Tag);
  // Frees the held block and owns Buffer (from KnAllocateMemory, Size bytes) instead.
  void Attach(PVOID Buffer, ULONG Size);
  void Free();

 private:
  KnBufferBlock(const KnBufferBlock&);  // owns its block: no copies
  KnBufferBlock& operator=(const KnBufferBlock&);

  PVOID mBuffer;
  ULONG mBufferSize;
};
