// The in-memory trace log: every trace message, time-stamped, in a ring inside one block
// of physically contiguous memory, so that the recent history of the driver can be read
// from a memory dump or by a debugger attached later. Tools find the block by the 32-byte
// marker at its start.
#pragma once

#include <ntddk.h>

#include "knmemory.h"

// Pool tag of the KnTraceLogBuffer object ("BcrT").
const ULONG gKnTraceLogBufferTag = KN_POOLTAG("BcrT");

// The head of the memory block: the format that tools read. All offsets are in bytes from
// the start of the block, little-endian.
struct KnTraceLogControlBlock {
  char Marker[32];           // "VELDORAN-*TRCLOGBUFFER*-VELDORAN", no terminator
  ULONG ControlBlockSize;    // 256
  ULONG Version;             // 1
  ULONG DataStart;           // 256: the ring starts behind this block
  ULONG DataEnd;             // the block size
  ULONG WriteOffset;         // where the next message starts
  ULONG EndOffset;           // just behind the end marker that follows the newest message
  UCHAR Reserved[200];
};

const ULONG kKnTraceLogControlBlockSize = 256;
const ULONG kKnTraceLogVersion = 1;

class KnTraceLogBuffer {
 public:
  KnTraceLogBuffer();
  ~KnTraceLogBuffer();

  // PASSIVE_LEVEL. Replaces any previous block by a zeroed one of Bytes rounded up to whole
  // pages (at least one) and writes the marker and the control block. FALSE when there is
  // no contiguous memory (or Bytes cannot be rounded within 32 bits).
  BOOLEAN Create(ULONG Bytes);

  // Wipes the control block (so the marker vanishes from memory) and gives the block back.
  void Free();

  // Up to DISPATCH_LEVEL. Appends Prefix (when not NULL), Message and the end marker as one
  // piece of the ring; an empty Message is ignored.
  void WriteMessage(const char* Message, const char* Prefix);

  ULONG GetSize() const { return mSize; }
  // The block as tools see it (control block first); NULL without memory.
  const UCHAR* GetMemory() const { return mMemory; }

 private:
  // Under mLock: copies Text into the ring from the write offset on, wrapping at the data
  // end; the end offset (and with Advance the write offset) then points behind it.
  void Append(const char* Text, BOOLEAN Advance);

  KnTraceLogControlBlock* mControlBlock;  // the block read as its head; NULL without memory
  PUCHAR mMemory;                         // the contiguous block; NULL without memory
  ULONG mSize;                            // bytes in the block; 0 without memory
  KSPIN_LOCK mLock;                       // serialises writers
};

// The driver's trace log, or NULL (KnTraceOutput writes to it when present).
extern KnTraceLogBuffer* gKnTraceLogBuffer;

// PASSIVE_LEVEL. Creates gKnTraceLogBuffer if there is none and gives it a block of
// SizeKb kilobytes. On failure no log buffer exists and FALSE is returned.
BOOLEAN KnTraceCreateLogBuffer(ULONG SizeKb);

// PASSIVE_LEVEL. Deletes gKnTraceLogBuffer, if any.
void KnTraceDeleteLogBuffer();

// 0 without a log buffer, else its block size in kilobytes.
ULONG KnTraceGetLogBufferSizeKb();
