// The pool's verifier checks: leaks by tag at the end of a run, IRQL rules, tags on free,
// double frees, overruns and writes after free, and the hand-back of ordinary heap blocks.
#include <malloc.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdm.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pool.h>

#include "expect_violation.h"

namespace {

constexpr ULONG kLeakTag = 0x6B61654C;   // "Leak"
constexpr ULONG kTestTag = 0x74736554;   // "Test"
constexpr ULONG kOtherTag = 0x72687445;  // "Ethr"

bool MessageHas(const std::vector<wdmsim::Violation>& violations, const std::string& bugcheck,
                const std::string& text) {
  for (const auto& v : violations) {
    if (v.bugcheck == bugcheck && v.message.find(text) != std::string::npos) return true;
  }
  return false;
}

class PoolChecks : public testing::Test {
 protected:
  wdmsim::Kernel mKernel;
};

// Every live block remembers tag, type, size and allocating IRQL, in allocation order; what
// is left at the end of the run is reported with them.
TEST(PoolLeak, BlocksAreReportedByTagSizeTypeAndIrqlAtEndOfRun) {
  std::vector<wdmsim::Violation> seen;
  {
    wdmsim_test::ExpectViolations expect;
    {
      wdmsim::Kernel kernel;
      void* freed = ExAllocatePoolWithTag(NonPagedPool, 8, kTestTag);
      ASSERT_NE(freed, nullptr);
      ExFreePoolWithTag(freed, kTestTag);
      void* first = ExAllocatePoolWithTag(PagedPool, 24, kLeakTag);
      KIRQL old;
      KeRaiseIrql(DISPATCH_LEVEL, &old);
      void* second = ExAllocatePool(NonPagedPool, 40);
      KeLowerIrql(old);
      std::vector<wdmsim::PoolBlockInfo> live = wdmsim::LivePoolBlocks();
      ASSERT_EQ(live.size(), 2u);
      EXPECT_EQ(live[0].address, first);
      EXPECT_EQ(live[0].tag, kLeakTag);
      EXPECT_EQ(live[0].poolType, PagedPool);
      EXPECT_EQ(live[0].size, 24u);
      EXPECT_EQ(live[0].allocatingIrql, PASSIVE_LEVEL);
      EXPECT_EQ(live[1].address, second);
      EXPECT_EQ(wdmsim::TagText(live[1].tag), "None");  // what ExAllocatePool tags with
      EXPECT_EQ(live[1].allocatingIrql, DISPATCH_LEVEL);
      EXPECT_EQ(wdmsim::LivePoolBlockCount(kLeakTag), 1u);
      EXPECT_EQ(wdmsim::LivePoolBlockCount(kTestTag), 0u);
    }
    EXPECT_EQ(expect.Count("POOL_LEAK"), 2);
    EXPECT_EQ(expect.Total(), 2);
    seen = wdmsim::TakeViolations();
  }
  EXPECT_TRUE(MessageHas(seen, "POOL_LEAK", "'Leak'"));
  EXPECT_TRUE(MessageHas(seen, "POOL_LEAK", "24 bytes of PagedPool, allocated at IRQL 0"));
  EXPECT_TRUE(MessageHas(seen, "POOL_LEAK", "40 bytes of NonPagedPool, allocated at IRQL 2"));
  // The end of the run gave everything back: the next machine starts with an empty pool.
  wdmsim::Kernel next;
  EXPECT_TRUE(wdmsim::LivePoolBlocks().empty());
}

TEST_F(PoolChecks, PagedPoolAboveApcLevelIsReportedNonPagedUpToDispatchIsNot) {
  struct Case {
    KIRQL irql;
    POOL_TYPE type;
    int violations;
  } cases[] = {
      {PASSIVE_LEVEL, PagedPool, 0},       {APC_LEVEL, PagedPool, 0},
      {DISPATCH_LEVEL, PagedPool, 1},      {DISPATCH_LEVEL, PagedPoolCacheAligned, 1},
      {DISPATCH_LEVEL, NonPagedPool, 0},   {DISPATCH_LEVEL, NonPagedPoolNx, 0},
      {DISPATCH_LEVEL + 1, NonPagedPool, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "IRQL " << int(c.irql) << ", pool type " << c.type);
    wdmsim_test::ExpectViolations expect;
    KIRQL old;
    KeRaiseIrql(c.irql, &old);
    void* block = ExAllocatePoolWithTag(c.type, 16, kTestTag);
    KeLowerIrql(old);
    EXPECT_NE(block, nullptr);  // reported, and execution goes on
    EXPECT_EQ(expect.Count("BAD_POOL_CALLER"), c.violations);
    EXPECT_EQ(expect.Total(), c.violations);
    ExFreePoolWithTag(block, kTestTag);
  }
}

TEST_F(PoolChecks, FreeChecksTagIrqlAndDoubleFreeAndZeroBytesAreReported) {
  {
    wdmsim_test::ExpectViolations expect;
    void* block = ExAllocatePoolWithTag(NonPagedPool, 0, kTestTag);
    EXPECT_EQ(expect.Count("BAD_POOL_CALLER"), 1);
    ExFreePool(block);
  }
  {
    wdmsim_test::ExpectViolations expect;
    ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPool, 8, kTestTag), 0);  // 0: no tag check
    ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPool, 8, kTestTag), kTestTag);
    EXPECT_EQ(expect.Total(), 0);
  }
  {
    wdmsim_test::ExpectViolations expect;
    void* block = ExAllocatePoolWithTag(NonPagedPool, 8, kTestTag);
    ExFreePoolWithTag(block, kOtherTag);
    EXPECT_EQ(expect.Count("BAD_POOL_CALLER"), 1);
    EXPECT_EQ(wdmsim::LivePoolBlockCount(kTestTag), 0u);  // freed all the same
  }
  {
    wdmsim_test::ExpectViolations expect;
    void* block = ExAllocatePoolWithTag(NonPagedPool, 8, kTestTag);
    ExFreePool(block);
    ExFreePool(block);
    EXPECT_EQ(expect.Count("BAD_POOL_CALLER"), 1);
  }
  {
    wdmsim_test::ExpectViolations expect;
    void* block = ExAllocatePoolWithTag(PagedPool, 8, kTestTag);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    ExFreePool(block);
    KeLowerIrql(old);
    EXPECT_EQ(expect.Count("BAD_POOL_CALLER"), 1);
  }
  {
    wdmsim_test::ExpectViolations expect;
    unsigned char* block = static_cast<unsigned char*>(ExAllocatePoolWithTag(NonPagedPool, 32, kTestTag));
    ExFreePool(block + 8);  // not the start of the block: refused, the block stays
    EXPECT_EQ(expect.Count("BAD_POOL_CALLER"), 1);
    EXPECT_EQ(wdmsim::LivePoolBlockCount(kTestTag), 1u);
    ExFreePool(block);
  }
}

TEST_F(PoolChecks, NewBlocksAreNotZeroedAndAreAligned) {
  const size_t sizes[] = {1, 15, 16, 17, 100, 4095, 4096, 10000};
  for (size_t size : sizes) {
    unsigned char* block = static_cast<unsigned char*>(ExAllocatePoolWithTag(NonPagedPool, size, kTestTag));
    ASSERT_NE(block, nullptr);
    size_t zeros = 0;
    for (size_t i = 0; i < size; ++i) zeros += block[i] == 0;
    EXPECT_EQ(zeros, 0u) << size << " bytes";
    uintptr_t alignment = size >= 4096 ? 4096 : 16;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignment, 0u) << size << " bytes";
    ExFreePool(block);
  }
  void* cacheAligned = ExAllocatePoolWithTag(NonPagedPoolCacheAligned, 8, kTestTag);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(cacheAligned) % 64, 0u);
  ExFreePool(cacheAligned);
}

// A write one past the end is found when the block is freed; a write into a freed block
// when the pool empties its quarantine at the end of the run.
TEST(PoolCorruption, OverrunIsReportedAtFreeAndWriteAfterFreeAtTheEnd) {
  wdmsim_test::ExpectViolations expect;
  {
    wdmsim::Kernel kernel;
    unsigned char* block = static_cast<unsigned char*>(ExAllocatePoolWithTag(NonPagedPool, 10, kTestTag));
    block[9] = 1;  // the last byte is fine
    ExFreePool(block);
    EXPECT_EQ(expect.Total(), 0);
    block = static_cast<unsigned char*>(ExAllocatePoolWithTag(NonPagedPool, 10, kTestTag));
    block[10] = 1;
    ExFreePool(block);
    EXPECT_EQ(expect.Count("SPECIAL_POOL_DETECTED_MEMORY_CORRUPTION"), 1);
    block = static_cast<unsigned char*>(ExAllocatePoolWithTag(NonPagedPool, 32, kTestTag));
    ExFreePool(block);
    block[5] = 0;  // the freed block is still held by the pool, so this lands in it
    EXPECT_EQ(expect.Total(), 1);
  }
  EXPECT_EQ(expect.Count("SPECIAL_POOL_DETECTED_MEMORY_CORRUPTION"), 2);
  EXPECT_EQ(expect.Total(), 2);
}

// The driver's operator delete sends every heap block of the program to the pool; one the
// pool did not allocate goes back to the C library. Large blocks are mapped by malloc, so
// the mapped byte count shows whether the block really was released.
TEST_F(PoolChecks, HeapBlocksThatAreNotPoolGoBackToTheCLibrary) {
  constexpr size_t kBig = 8 << 20;
  size_t mappedBefore = mallinfo2().hblkhd;
  void* heap = malloc(kBig);
  ASSERT_NE(heap, nullptr);
  if (mallinfo2().hblkhd < mappedBefore + kBig) {
    ExFreePoolWithTag(heap, 0);
    GTEST_SKIP() << "malloc is not the C library's (sanitizer build); its leak check covers this";
  }
  ExFreePoolWithTag(heap, 0);
  EXPECT_LT(mallinfo2().hblkhd, mappedBefore + kBig);
  ExFreePoolWithTag(nullptr, 0);  // the runtime deletes null pointers too: nothing happens
}

}  // namespace
