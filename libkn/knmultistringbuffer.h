// KnMultiStringBuffer: UTF-16 text in one owned pool block, either one NUL-terminated
// string or a list of them closed by one more NUL (the REG_MULTI_SZ form that identifier
// queries answer with). The block is handed out as it is stored.
#pragma once

#include <ntddk.h>

#include "knbufferblock.h"

class KnMultiStringBuffer : public KnBufferBlock {
 public:
  typedef WCHAR TChar;

  // Replaces the content by String with its NUL. When the pool has no block, the buffer
  // is left empty.
  void SetString(PCWSTR String, POOL_TYPE PoolType, ULONG Tag);
  // Appends String to the list (an empty buffer becomes a list of one). When the pool has
  // no block, the list keeps the strings it had.
  void AppendString(PCWSTR String, POOL_TYPE PoolType, ULONG Tag);
  // The stored text (the first string of a list), or NULL when empty.
  PCWSTR GetString() const { return (PCWSTR)GetBuffer(); }
};
