#include "knbufferblock.h"

#include "knmemory.h"
#include "kntrace.h"

KnBufferBlock::KnBufferBlock() : mBuffer(NULL), mBufferSize(0) {}

KnBufferBlock::~KnBufferBlock() {
  Free();
}

bool KnBufferBlock::Allocate(POOL_TYPE PoolType, ULONG NumberOfBytes, ULONG Tag) {
  Free();
  KN_ASSERT(NumberOfBytes>0);
  PVOID buffer = KnAllocateMemory(PoolType, NumberOfBytes, Tag, TRUE);
  if (buffer == NULL) {
    return false;
  }
  Attach(buffer, NumberOfBytes);
  return true;
}

void KnBufferBlock::Attach(PVOID Buffer, ULONG Size) {
  Free();
  mBuffer = Buffer;
  mBufferSize = Size;
}

void KnBufferBlock::Free() {
  if (mBuffer != NULL) {
    KnFreeMemory(mBuffer);
    mBuffer = NULL;
  }
  mBufferSize = 0;
}
