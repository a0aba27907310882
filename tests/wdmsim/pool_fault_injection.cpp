// Injected pool failures: the nth allocation from now, every allocation with a tag, and
// contiguous allocations; counted, and cleared at the end of a run.
#include <vector>

#include <gtest/gtest.h>

#include <wdm.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pool.h>

namespace {

constexpr ULONG kTagA = 0x41676154;  // "TagA"
constexpr ULONG kTagB = 0x42676154;  // "TagB"

class PoolFaults : public testing::Test {
 protected:
  // Allocates count blocks and tells which of them failed (1-based).
  std::vector<int> FailedAmong(int count, ULONG tag) {
    std::vector<int> failed;
    for (int i = 1; i <= count; ++i) {
      void* block = ExAllocatePoolWithTag(NonPagedPool, 16, tag);
      if (block == nullptr) {
        failed.push_back(i);
      } else {
        ExFreePool(block);
      }
    }
    return failed;
  }

  wdmsim::Kernel mKernel;
};

TEST_F(PoolFaults, NthAllocationFromNowFailsExactlyOnce) {
  for (int n = 1; n <= 4; ++n) {
    SCOPED_TRACE(n);
    wdmsim::FailNthPoolAllocation(n);
    EXPECT_EQ(FailedAmong(n + 2, kTagA), std::vector<int>{n});  // n-1 and n+1 succeed
    EXPECT_EQ(wdmsim::InjectedPoolFailures(), 1);
    wdmsim::ClearPoolFaults();
    EXPECT_EQ(wdmsim::InjectedPoolFailures(), 0);
  }
  wdmsim::FailNthPoolAllocation(0);
  EXPECT_TRUE(FailedAmong(3, kTagA).empty());
  // The count runs over allocations of every tag.
  wdmsim::FailNthPoolAllocation(2);
  EXPECT_TRUE(FailedAmong(1, kTagA).empty());
  EXPECT_EQ(FailedAmong(1, kTagB), std::vector<int>{1});
}

TEST_F(PoolFaults, EveryAllocationWithTheTagFailsOthersSucceed) {
  wdmsim::FailPoolAllocationsWithTag(kTagA);
  EXPECT_EQ(FailedAmong(3, kTagA), (std::vector<int>{1, 2, 3}));
  EXPECT_TRUE(FailedAmong(3, kTagB).empty());
  EXPECT_EQ(wdmsim::InjectedPoolFailures(), 3);
  void* untagged = ExAllocatePool(NonPagedPool, 8);  // tagged "None", which is not failed
  EXPECT_NE(untagged, nullptr);
  ExFreePool(untagged);

  wdmsim::FailPoolAllocationsWithTag(kTagB);  // tags add up
  EXPECT_EQ(FailedAmong(1, kTagA).size(), 1u);
  EXPECT_EQ(FailedAmong(1, kTagB).size(), 1u);
  wdmsim::ClearPoolFaults();
  EXPECT_TRUE(FailedAmong(2, kTagA).empty());
  EXPECT_TRUE(FailedAmong(2, kTagB).empty());
}

TEST_F(PoolFaults, ContiguousAllocationsFailWhenAskedAndCount) {
  PHYSICAL_ADDRESS anywhere;
  anywhere.QuadPart = 0x7FFFFFFFFFFFFFFFLL;
  wdmsim::FailContiguousAllocations(true);
  EXPECT_EQ(MmAllocateContiguousMemory(4096, anywhere), nullptr);
  EXPECT_EQ(wdmsim::InjectedPoolFailures(), 1);
  EXPECT_TRUE(FailedAmong(1, kTagA).empty());  // the pool is not affected
  wdmsim::FailContiguousAllocations(false);
  void* block = MmAllocateContiguousMemory(4096, anywhere);
  EXPECT_NE(block, nullptr);
  MmFreeContiguousMemory(block);
}

TEST(PoolFaultsEndOfRun, AreClearedWhenTheMachineStops) {
  {
    wdmsim::Kernel kernel;
    wdmsim::FailPoolAllocationsWithTag(kTagA);
    wdmsim::FailNthPoolAllocation(5);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, 8, kTagA), nullptr);
  }
  wdmsim::Kernel kernel;
  EXPECT_EQ(wdmsim::InjectedPoolFailures(), 0);
  for (int i = 0; i < 6; ++i) {
    void* block = ExAllocatePoolWithTag(NonPagedPool, 8, kTagA);
    ASSERT_NE(block, nullptr) << "allocation " << i;
    ExFreePool(block);
  }
}

}  // namespace
