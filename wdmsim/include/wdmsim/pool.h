// wdmsim host API: inspection and fault injection of the kernel pool.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace wdmsim {

struct PoolBlockInfo {
  const void* address;
  uint32_t tag;
  int poolType;
  size_t size;
  uint8_t allocatingIrql;
};

std::vector<PoolBlockInfo> LivePoolBlocks();
size_t LivePoolBlockCount(uint32_t tag);  // blocks still allocated with that tag

// Contiguous blocks (MmAllocateContiguousMemory) still allocated.
size_t LiveContiguousBlockCount();

// Fault injection: fail the nth allocation from now on (1 = the next one; only that one,
// n <= 0 switches it off), or every allocation with the tag (each call adds a tag).
// ClearPoolFaults() undoes all of them, the contiguous one too, and resets the count.
// The end of a run (Kernel destruction) clears them as well.
void FailNthPoolAllocation(int n);
void FailPoolAllocationsWithTag(uint32_t tag);
void FailContiguousAllocations(bool fail);
void ClearPoolFaults();
// How many allocations the injected faults have failed since they were last cleared.
int InjectedPoolFailures();

// The four bytes of a tag in memory order, e.g. 0x6E4B624C -> "LbKn".
std::string TagText(uint32_t tag);

}  // namespace wdmsim
