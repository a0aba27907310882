// MmAllocateContiguousMemory and friends: page-aligned blocks with stable fake physical
// addresses under the caller's limit, freed only by MmFreeContiguousMemory, leaks reported.
#include <cstdint>

#include <gtest/gtest.h>

#include <wdm.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pool.h>

#include "expect_violation.h"

namespace {

PHYSICAL_ADDRESS Limit(LONGLONG value) {
  PHYSICAL_ADDRESS limit;
  limit.QuadPart = value;
  return limit;
}

class ContiguousMemory : public testing::Test {
 protected:
  wdmsim::Kernel mKernel;
};

TEST_F(ContiguousMemory, BlocksArePageAlignedWithPhysicalAddressesBelowTheLimit) {
  unsigned char* a = static_cast<unsigned char*>(MmAllocateContiguousMemory(100, Limit(0xFFFFFFFF)));
  unsigned char* b = static_cast<unsigned char*>(MmAllocateContiguousMemory(8192, Limit(0xFFFFFFFF)));
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 4096, 0u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % 4096, 0u);
  EXPECT_EQ(a[0], 0xA5);  // not zeroed
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 2u);

  PHYSICAL_ADDRESS pa = MmGetPhysicalAddress(a);
  PHYSICAL_ADDRESS pb = MmGetPhysicalAddress(b);
  EXPECT_EQ(pa.QuadPart % 4096, 0);
  EXPECT_LE(pa.QuadPart + 4096 - 1, 0xFFFFFFFFLL);
  EXPECT_LE(pb.QuadPart + 8192 - 1, 0xFFFFFFFFLL);
  EXPECT_TRUE(pa.QuadPart + 4096 <= pb.QuadPart || pb.QuadPart + 8192 <= pa.QuadPart);  // no overlap
  EXPECT_EQ(MmGetPhysicalAddress(b + 5000).QuadPart, pb.QuadPart + 5000);  // contiguous: offsets carry over
  EXPECT_EQ(MmGetPhysicalAddress(a).QuadPart, pa.QuadPart);                // stable

  MmFreeContiguousMemory(a);
  MmFreeContiguousMemory(b);
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 0u);
  // Nothing fits below too low a limit.
  EXPECT_EQ(MmAllocateContiguousMemory(4096, Limit(0xFFFF)), nullptr);
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 0u);
}

TEST_F(ContiguousMemory, WrongFreesAreReported) {
  wdmsim_test::ExpectViolations expect;
  void* pool = ExAllocatePoolWithTag(NonPagedPool, 64, 0x6C6F6F50);
  MmFreeContiguousMemory(pool);
  EXPECT_EQ(expect.Count("MEMORY_MANAGEMENT"), 1);
  EXPECT_EQ(wdmsim::LivePoolBlockCount(0x6C6F6F50), 1u);  // left alone
  ExFreePool(pool);

  void* contiguous = MmAllocateContiguousMemory(4096, Limit(0x7FFFFFFF));
  ExFreePool(contiguous);
  EXPECT_EQ(expect.Count("BAD_POOL_CALLER"), 1);
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 1u);  // refused, still allocated
  MmFreeContiguousMemory(contiguous);
  EXPECT_EQ(expect.Total(), 2);
}

TEST(ContiguousMemoryLeak, IsReportedAtEndOfRun) {
  wdmsim_test::ExpectViolations expect;
  {
    wdmsim::Kernel kernel;
    ASSERT_NE(MmAllocateContiguousMemory(4096, Limit(0x7FFFFFFF)), nullptr);
  }
  EXPECT_EQ(expect.Count("CONTIGUOUS_MEMORY_LEAK"), 1);
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 0u);
}

TEST(CompareMemory, CountsEqualBytesUpToTheFirstDifference) {
  const unsigned char a[] = {1, 2, 3, 4, 5};
  const unsigned char b[] = {1, 2, 3, 9, 5};
  EXPECT_EQ(RtlCompareMemory(a, b, 5), 3u);
  EXPECT_EQ(RtlCompareMemory(a, b, 3), 3u);
  EXPECT_EQ(RtlCompareMemory(a, a, 5), 5u);
  EXPECT_EQ(RtlCompareMemory(a, b, 0), 0u);
}

}  // namespace
