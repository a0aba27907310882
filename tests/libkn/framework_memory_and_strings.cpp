// Framework memory (KnAllocateMemory, the pool `new`) and KnUnicodeString's buffer
// ownership: every block has the caller's pool type and tag, `new` always hands out
// zeroed memory or NULL, and a string gives its buffer back the way it was obtained.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <algorithm>
#include <string>

#include <wdmsim/pool.h>

#include "knmemory.h"
#include "knunicodestring.h"
#include "kntrace.h"
#include "libknnewdelete.h"
#include "support_test_driver.h"

namespace {

using kntest::Has;
using kntest::HasIf;
using kntest::FrameworkTest;

const ULONG kTestTag = KN_POOLTAG("KnTs");

// The pool's record of the block at address (address NULL when there is none).
wdmsim::PoolBlockInfo FindBlock(const void* address) {
  for (const auto& block : wdmsim::LivePoolBlocks()) {
    if (block.address == address) return block;
  }
  return wdmsim::PoolBlockInfo{};
}

struct Payload {
  ULONG words[32];
};

class Constructed {
 public:
  Constructed() : mSentinel(0xC0DE) {}
  ULONG mSentinel;
  ULONG mUntouched;
};

class FrameworkMemoryTest : public FrameworkTest {};

TEST_F(FrameworkMemoryTest, ZeroFlagDecidesWhetherTheBlockIsCleared) {
  // Tags read in memory order, as pool tools show them.
  EXPECT_EQ("KnTs", wdmsim::TagText(kTestTag));
  EXPECT_EQ("LbKn", wdmsim::TagText(gKnDefaultPoolTag));
  for (BOOLEAN zero : {FALSE, TRUE}) {
    SCOPED_TRACE(int(zero));
    PUCHAR block = static_cast<PUCHAR>(KnAllocateMemory(PagedPool, 64, kTestTag, zero));
    ASSERT_NE(nullptr, block);
    wdmsim::PoolBlockInfo info = FindBlock(block);
    ASSERT_EQ(block, info.address);
    EXPECT_EQ(kTestTag, info.tag);
    EXPECT_EQ(int(PagedPool), info.poolType);
    EXPECT_EQ(64u, info.size);
    // The simulated pool hands out patterned memory: only the flag clears it.
    EXPECT_EQ(zero ? 64 : 0, std::count(block, block + 64, 0));
    KnFreeMemory(block);
    EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(kTestTag));
  }
}

TEST_F(FrameworkMemoryTest, PagedPoolIsForPassiveLevelOnly) {
  gKnTraceMask = 0x1;
  struct Case {
    KIRQL irql;
    POOL_TYPE type;
    bool asserted;
  };
  const Case cases[] = {
      {PASSIVE_LEVEL, PagedPool, false},
      {APC_LEVEL, PagedPool, true},
      {APC_LEVEL, NonPagedPool, false},
      {DISPATCH_LEVEL, NonPagedPool, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(int(c.irql));
    KIRQL old;
    KeRaiseIrql(c.irql, &old);
    PVOID block = KnAllocateMemory(c.type, 16, kTestTag, TRUE);
    KeLowerIrql(old);
    ASSERT_NE(nullptr, block);
    KnFreeMemory(block);
    std::string trace = TakeTrace();
    EXPECT_TRUE(HasIf(c.asserted, trace, "ASSERTION FAILED: (!(PoolType==PagedPool && KeGetCurrentIrql()>PASSIVE_LEVEL))"));
  }
}

TEST_F(FrameworkMemoryTest, NewHandsOutZeroedTaggedMemoryOrNull) {
  Payload* payload = new (NonPagedPool, kTestTag) Payload;
  ASSERT_NE(nullptr, payload);
  for (ULONG word : payload->words) EXPECT_EQ(0u, word);
  wdmsim::PoolBlockInfo info = FindBlock(payload);
  ASSERT_EQ(payload, info.address);
  EXPECT_EQ(kTestTag, info.tag);
  EXPECT_EQ(int(NonPagedPool), info.poolType);
  EXPECT_EQ(sizeof(Payload), info.size);
  delete payload;
  EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(kTestTag));

  // Members the constructor leaves alone are zero as well.
  Constructed* object = new (NonPagedPool, kTestTag) Constructed;
  ASSERT_NE(nullptr, object);
  EXPECT_EQ(0xC0DEu, object->mSentinel);
  EXPECT_EQ(0u, object->mUntouched);
  delete object;

  // Out of pool: NULL, and no constructor runs on it.
  wdmsim::FailNthPoolAllocation(1);
  Constructed* none = new (NonPagedPool, kTestTag) Constructed;
  EXPECT_EQ(nullptr, none);
  EXPECT_EQ(1, wdmsim::InjectedPoolFailures());
  wdmsim::ClearPoolFaults();

  Payload* array = new (PagedPool, kTestTag) Payload[3];
  ASSERT_NE(nullptr, array);
  EXPECT_EQ(0u, array[2].words[31]);
  delete[] array;
  EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(kTestTag));
}

TEST_F(FrameworkMemoryTest, FrameworkStringBufferIsZeroedTaggedAndGivenBack) {
  gKnTraceMask = 0x1;
  KnUnicodeString string;
  EXPECT_EQ(KnUnicodeStringKind_Borrowed, string.GetKind());
  EXPECT_EQ(nullptr, string.Buffer);

  ASSERT_EQ(STATUS_SUCCESS, string.Allocate(PagedPool, 10, KN_UNICODE_STRING_TAG));
  EXPECT_EQ(KnUnicodeStringKind_KnAllocated, string.GetKind());
  EXPECT_EQ(10, string.MaximumLength);
  EXPECT_EQ(0, string.Length);
  for (int i = 0; i < 5; i++) EXPECT_EQ(0, string.Buffer[i]);
  wdmsim::PoolBlockInfo info = FindBlock(string.Buffer);
  ASSERT_EQ(string.Buffer, info.address);
  EXPECT_EQ(int(PagedPool), info.poolType);

  // A new allocation gives the old buffer back first.
  ASSERT_EQ(STATUS_SUCCESS, string.Allocate(NonPagedPool, 0xFFFF, KN_UNICODE_STRING_TAG));
  EXPECT_EQ(0xFFFF, string.MaximumLength);
  EXPECT_EQ(1u, wdmsim::LivePoolBlockCount(KN_UNICODE_STRING_TAG));
  EXPECT_EQ("", TakeTrace());

  // One byte more than the counted lengths can describe.
  EXPECT_EQ(STATUS_INVALID_PARAMETER, string.Allocate(NonPagedPool, 0x10000, KN_UNICODE_STRING_TAG));
  EXPECT_TRUE(Has(TakeTrace(), "ASSERTION FAILED: (NumberOfBytes<=0xFFFF)"));
  EXPECT_EQ(nullptr, string.Buffer);
  EXPECT_EQ(0, string.MaximumLength);
  EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(KN_UNICODE_STRING_TAG));

  ASSERT_EQ(STATUS_SUCCESS, string.Allocate(NonPagedPool, 4, KN_UNICODE_STRING_TAG));
  string.Free();
  EXPECT_EQ(nullptr, string.Buffer);
  EXPECT_EQ(0, string.Length);
  EXPECT_EQ(0, string.MaximumLength);
  EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(KN_UNICODE_STRING_TAG));

  // Without the pool: no buffer, and the lengths say so.
  wdmsim::FailPoolAllocationsWithTag(KN_UNICODE_STRING_TAG);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, string.Allocate(NonPagedPool, 8, KN_UNICODE_STRING_TAG));
  wdmsim::ClearPoolFaults();
  EXPECT_EQ(nullptr, string.Buffer);
  EXPECT_EQ(0, string.MaximumLength);

  {
    KnUnicodeString scoped;
    ASSERT_EQ(STATUS_SUCCESS, scoped.Allocate(NonPagedPool, 8, KN_UNICODE_STRING_TAG));
    EXPECT_EQ(1u, wdmsim::LivePoolBlockCount(KN_UNICODE_STRING_TAG));
  }
  EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(KN_UNICODE_STRING_TAG));
}

TEST_F(FrameworkMemoryTest, BorrowedAndPlatformStringsAreReleasedTheirOwnWay) {
  static const WCHAR kLiteral[] = L"abc";
  size_t blocksBefore = wdmsim::LivePoolBlocks().size();
  {
    KnUnicodeString borrowed;
    borrowed.SetBorrowed(kLiteral);
    EXPECT_EQ(kLiteral, borrowed.Buffer);
    EXPECT_EQ(6, borrowed.Length);
    EXPECT_EQ(8, borrowed.MaximumLength);
    borrowed.Free();
    EXPECT_EQ(nullptr, borrowed.Buffer);
    EXPECT_EQ(0, borrowed.Length);
  }
  EXPECT_EQ(kLiteral[0], L'a');  // the literal itself was not touched

  ANSI_STRING ansi;
  RtlInitAnsiString(&ansi, "platform text");
  UNICODE_STRING converted;
  ASSERT_EQ(STATUS_SUCCESS, RtlAnsiStringToUnicodeString(&converted, &ansi, TRUE));
  PWSTR buffer = converted.Buffer;
  ASSERT_EQ(blocksBefore + 1, wdmsim::LivePoolBlocks().size());
  {
    KnUnicodeString adopted;
    adopted.AdoptRtlAllocated(&converted);
    EXPECT_EQ(KnUnicodeStringKind_RtlAllocated, adopted.GetKind());
    EXPECT_EQ(buffer, adopted.Buffer);
    EXPECT_EQ(26, adopted.Length);
    EXPECT_EQ(nullptr, converted.Buffer);
  }
  // RtlFreeUnicodeString gave it back when the string went out of scope.
  EXPECT_EQ(blocksBefore, wdmsim::LivePoolBlocks().size());
  EXPECT_EQ("", TakeTrace());
}

}  // namespace
