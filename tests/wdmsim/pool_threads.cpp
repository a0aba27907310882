// The pool under concurrent use: system threads allocate and free pool blocks with their
// own tags while handing ordinary heap blocks through ExFreePool, as the driver's
// operator delete does. Every count must come out exact.
#include <cstdlib>
#include <vector>

#include <gtest/gtest.h>

#include <wdm.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pool.h>

#include "kernel_test_helpers.h"

namespace {

constexpr int kThreads = 4;
constexpr int kBlocksPerThread = 300;

struct Worker {
  ULONG tag;
  std::vector<void*> kept;
  int failedAllocations = 0;
};

void NTAPI AllocateAndFree(PVOID context) {
  Worker* worker = static_cast<Worker*>(context);
  for (int i = 0; i < kBlocksPerThread; ++i) {
    void* block = ExAllocatePoolWithTag(i % 2 ? PagedPool : NonPagedPool, 16 + i % 64, worker->tag);
    if (block == nullptr) {
      ++worker->failedAllocations;
      continue;
    }
    if (i % 3 == 0) {
      worker->kept.push_back(block);
    } else {
      ExFreePoolWithTag(block, worker->tag);
    }
    ExFreePoolWithTag(malloc(32 + i), 0);  // a heap block takes the way back to the C library
  }
}

TEST(PoolThreads, ConcurrentAllocationsAndHeapFreesKeepEveryBlock) {
  wdmsim::Kernel kernel;
  Worker workers[kThreads];
  PVOID threads[kThreads];
  for (int i = 0; i < kThreads; ++i) {
    workers[i].tag = 0x30726854 + (static_cast<ULONG>(i) << 24);  // "Thr0", "Thr1", ...
    threads[i] = kernel_test::StartSystemThread(AllocateAndFree, &workers[i]);
    ASSERT_NE(threads[i], nullptr);
  }
  for (PVOID thread : threads) EXPECT_EQ(kernel_test::JoinSystemThread(thread), STATUS_SUCCESS);

  for (Worker& worker : workers) {
    EXPECT_EQ(worker.failedAllocations, 0);
    EXPECT_EQ(worker.kept.size(), static_cast<size_t>((kBlocksPerThread + 2) / 3));
    EXPECT_EQ(wdmsim::LivePoolBlockCount(worker.tag), worker.kept.size());
    for (void* block : worker.kept) ExFreePoolWithTag(block, worker.tag);
    EXPECT_EQ(wdmsim::LivePoolBlockCount(worker.tag), 0u);
  }
}

}  // namespace
