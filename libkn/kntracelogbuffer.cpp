#include "kntracelogbuffer.h"

#include "libknnewdelete.h"
#include "kntrace.h"

KnTraceLogBuffer* gKnTraceLogBuffer = NULL;

// Blocks are whole pages: the platform hands out contiguous memory by the page anyway.
static const ULONG kPageSize = 4096;

// Kept as UTF-16 in the image, so that a search of the image for the 8-bit marker does not
// mistake the driver file itself for a log buffer.
static const WCHAR kMarker[] = L"VELDORAN-*TRCLOGBUFFER*-VELDORAN";

// Written behind the newest message and overwritten by the next one: a reader finds the
// newest text just before it and the oldest just behind it.
static const char kEndMarker[] = "################\n";

static_assert(sizeof(KnTraceLogControlBlock) == kKnTraceLogControlBlockSize, "control block layout");
static_assert(sizeof(kMarker) / sizeof(WCHAR) - 1 == sizeof(((KnTraceLogControlBlock*)0)->Marker),
              "marker fills its field exactly");

KnTraceLogBuffer::KnTraceLogBuffer() : mControlBlock(NULL), mMemory(NULL), mSize(0) {
  KeInitializeSpinLock(&mLock);
}

KnTraceLogBuffer::~KnTraceLogBuffer() {
  Free();
}

BOOLEAN KnTraceLogBuffer::Create(ULONG Bytes) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  Free();

  ULONGLONG size = ((ULONGLONG)Bytes + kPageSize - 1) / kPageSize * kPageSize;
  if (size < kPageSize) {
    size = kPageSize;
  }
  if (size > 0xFFFFFFFFull) {
    return FALSE;
  }
  PHYSICAL_ADDRESS highestAcceptable;
  highestAcceptable.QuadPart = -1;  // anywhere in physical memory
  PUCHAR memory = (PUCHAR)MmAllocateContiguousMemory((SIZE_T)size, highestAcceptable);
  if (memory == NULL) {
    return FALSE;
  }

  mMemory = memory;
  mSize = (ULONG)size;
  RtlZeroMemory(mMemory, mSize);
  mControlBlock = (KnTraceLogControlBlock*)mMemory;
  for (ULONG i = 0; i < sizeof(mControlBlock->Marker); i++) {
    mControlBlock->Marker[i] = (char)(kMarker[i] & 0xFF);
  }
  mControlBlock->ControlBlockSize = kKnTraceLogControlBlockSize;
  mControlBlock->Version = kKnTraceLogVersion;
  mControlBlock->DataStart = kKnTraceLogControlBlockSize;
  mControlBlock->DataEnd = mSize;
  mControlBlock->WriteOffset = kKnTraceLogControlBlockSize;
  mControlBlock->EndOffset = kKnTraceLogControlBlockSize;
  return TRUE;
}

void KnTraceLogBuffer::Free() {
  if (mMemory == NULL) {
    return;
  }
  // A later search of memory (or of a dump) must not find a stale log by its marker.
  RtlZeroMemory(mMemory, kKnTraceLogControlBlockSize);
  mControlBlock = NULL;
  mSize = 0;
  MmFreeContiguousMemory(mMemory);
  mMemory = NULL;
}

void KnTraceLogBuffer::WriteMessage(const char* Message, const char* Prefix) {
  if (Message == NULL || Message[0] == '\0') {
    return;
  }
  // One message (prefix, text and end marker) stays contiguous in the ring against
  // writers on other processors.
  KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&mLock);
  if (Prefix != NULL) {
    Append(Prefix, TRUE);
  }
  Append(Message, TRUE);
  Append(kEndMarker, FALSE);
  KeReleaseSpinLock(&mLock, oldIrql);
}

void KnTraceLogBuffer::Append(const char* Text, BOOLEAN Advance) {
  KN_ASSERT(mControlBlock!=NULL);
  if (mControlBlock == NULL) {
    return;
  }
  // The bounds come from this object, not from the block, which debuggers may write to.
  const ULONG dataStart = kKnTraceLogControlBlockSize;
  const ULONG dataEnd = mSize;
  ULONG position = mControlBlock->WriteOffset;
  if (position < dataStart || position >= dataEnd) {
    position = dataStart;
  }
  ULONG length = (ULONG)strlen(Text);
  while (length > 0) {
    ULONG chunk = dataEnd - position;
    if (chunk > length) {
      chunk = length;
    }
    RtlCopyMemory(mMemory + position, Text, chunk);
    Text += chunk;
    length -= chunk;
    position += chunk;
    if (position >= dataEnd) {
      position = dataStart;  // text that wraps is split here without any other mark
    }
  }
  mControlBlock->EndOffset = position;
  if (Advance) {
    mControlBlock->WriteOffset = position;
  }
}

BOOLEAN KnTraceCreateLogBuffer(ULONG SizeKb) {
  if (gKnTraceLogBuffer == NULL) {
    gKnTraceLogBuffer = new (NonPagedPool, gKnTraceLogBufferTag) KnTraceLogBuffer;
    if (gKnTraceLogBuffer == NULL) {
      return FALSE;
    }
  }
  // Kilobytes whose byte count does not fit 32 bits cannot make a block.
  ULONGLONG bytes = (ULONGLONG)SizeKb * 1024;
  if (bytes > 0xFFFFFFFFull || !gKnTraceLogBuffer->Create((ULONG)bytes)) {
    KnTraceDeleteLogBuffer();
    return FALSE;
  }
  return TRUE;
}

void KnTraceDeleteLogBuffer() {
  KnTraceLogBuffer* log = gKnTraceLogBuffer;
  // Unpublished first: a trace from the destructor must not write into the dying buffer.
  gKnTraceLogBuffer = NULL;
  delete log;
}

ULONG KnTraceGetLogBufferSizeKb() {
  if (gKnTraceLogBuffer == NULL) {
    return 0;
  }
  return (gKnTraceLogBuffer->GetSize() >> 10) & 0x3FFFFF;
}
