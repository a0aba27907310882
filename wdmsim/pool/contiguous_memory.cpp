#include "pool/contiguous_memory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include <wdm.h>
#include <wdmsim/pool.h>
#include <wdmsim/verifier.h>

#include "pool/malloc_allocator.h"
#include "pool/pool_faults.h"

namespace wdmsim {
namespace pool {
namespace {

constexpr size_t kPageSize = 4096;
constexpr uint64_t kFirstPhysicalAddress = 0x01000000;  // above the legacy 16 MB DMA limit
constexpr unsigned char kFreshFill = 0xA5;              // same pattern as new pool blocks

struct ContiguousBlock {
  size_t size;
  uint64_t physical;
  uint64_t sequence;
  uint8_t allocatingIrql;
};

using BlockMap = std::map<uintptr_t, ContiguousBlock, std::less<uintptr_t>,
                          MallocAllocator<std::pair<const uintptr_t, ContiguousBlock>>>;

struct ContiguousState {
  std::mutex lock;
  BlockMap blocks;
  uint64_t nextPhysical = kFirstPhysicalAddress;
  uint64_t nextSequence = 0;
};

ContiguousState& state() {
  static ContiguousState* s = new ContiguousState;
  return *s;
}

size_t RoundUpToPages(size_t bytes) { return (bytes + kPageSize - 1) & ~(kPageSize - 1); }

}  // namespace

bool IsContiguousBlock(const void* address) {
  ContiguousState& s = state();
  std::lock_guard<std::mutex> guard(s.lock);
  return s.blocks.count(reinterpret_cast<uintptr_t>(address)) != 0;
}

void EndOfRunContiguous() {
  ContiguousState& s = state();
  BlockMap left;
  {
    std::lock_guard<std::mutex> guard(s.lock);
    left.swap(s.blocks);
    s.nextPhysical = kFirstPhysicalAddress;
    s.nextSequence = 0;
  }
  std::vector<std::pair<uintptr_t, ContiguousBlock>> leaks(left.begin(), left.end());
  for (const auto& [address, block] : left) std::free(reinterpret_cast<void*>(address));
  left.clear();
  std::sort(leaks.begin(), leaks.end(),
            [](const auto& a, const auto& b) { return a.second.sequence < b.second.sequence; });
  for (const auto& [address, block] : leaks) {
    ReportViolation("CONTIGUOUS_MEMORY_LEAK", reinterpret_cast<void*>(address),
                    "contiguous memory block %p of %zu bytes (physical 0x%llx), allocated at IRQL %u, "
                    "was never freed",
                    reinterpret_cast<void*>(address), block.size, (unsigned long long)block.physical,
                    block.allocatingIrql);
  }
}

}  // namespace pool

size_t LiveContiguousBlockCount() {
  pool::ContiguousState& s = pool::state();
  std::lock_guard<std::mutex> guard(s.lock);
  return s.blocks.size();
}

}  // namespace wdmsim

extern "C" PVOID MmAllocateContiguousMemory(SIZE_T NumberOfBytes, PHYSICAL_ADDRESS HighestAcceptableAddress) {
  using namespace wdmsim::pool;
  KIRQL irql = KeGetCurrentIrql();
  if (irql > DISPATCH_LEVEL) {
    wdmsim::ReportViolation("IRQL_NOT_LESS_OR_EQUAL", nullptr,
                            "MmAllocateContiguousMemory(%zu bytes) called at IRQL %u", (size_t)NumberOfBytes, irql);
  }
  if (NumberOfBytes == 0 || ConsumeContiguousFault()) return nullptr;

  size_t span = RoundUpToPages(NumberOfBytes);
  ContiguousState& s = state();
  uint64_t physical;
  {
    std::lock_guard<std::mutex> guard(s.lock);
    physical = s.nextPhysical;
    // No memory at or below the caller's limit is left: the request cannot be met.
    // The limit is an unsigned physical address: all 64 bits set means "anywhere".
    if (physical + span - 1 > static_cast<uint64_t>(HighestAcceptableAddress.QuadPart)) {
      return nullptr;
    }
    s.nextPhysical += span;
  }
  void* memory = nullptr;
  if (posix_memalign(&memory, kPageSize, span) != 0) return nullptr;
  std::memset(memory, kFreshFill, span);
  {
    std::lock_guard<std::mutex> guard(s.lock);
    s.blocks[reinterpret_cast<uintptr_t>(memory)] = ContiguousBlock{NumberOfBytes, physical, s.nextSequence++, irql};
  }
  return memory;
}

extern "C" void MmFreeContiguousMemory(PVOID BaseAddress) {
  using namespace wdmsim::pool;
  KIRQL irql = KeGetCurrentIrql();
  if (irql != PASSIVE_LEVEL) {
    wdmsim::ReportViolation("IRQL_NOT_LESS_OR_EQUAL", BaseAddress, "MmFreeContiguousMemory(%p) called at IRQL %u",
                            BaseAddress, irql);
  }
  ContiguousState& s = state();
  bool found;
  {
    std::lock_guard<std::mutex> guard(s.lock);
    found = s.blocks.erase(reinterpret_cast<uintptr_t>(BaseAddress)) != 0;
  }
  if (!found) {
    wdmsim::ReportViolation("MEMORY_MANAGEMENT", BaseAddress,
                            "MmFreeContiguousMemory(%p): not the start of a contiguous block", BaseAddress);
    return;
  }
  std::free(BaseAddress);
}

extern "C" PHYSICAL_ADDRESS MmGetPhysicalAddress(PVOID BaseAddress) {
  using namespace wdmsim::pool;
  uintptr_t address = reinterpret_cast<uintptr_t>(BaseAddress);
  PHYSICAL_ADDRESS result;
  ContiguousState& s = state();
  {
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.blocks.upper_bound(address);
    if (it != s.blocks.begin()) {
      --it;
      if (address < it->first + RoundUpToPages(it->second.size)) {
        result.QuadPart = static_cast<LONGLONG>(it->second.physical + (address - it->first));
        return result;
      }
    }
  }
  // Any other memory: a fixed function of the address, far above the contiguous range.
  result.QuadPart = static_cast<LONGLONG>(0x100000000000ull | (address & 0xFFFFFFFFFFFull));
  return result;
}
