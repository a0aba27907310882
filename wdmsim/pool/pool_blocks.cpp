// The kernel pool: ExAllocatePoolWithTag and ExFreePoolWithTag with the checks of the
// driver verifier (IRQL, tags, double frees, overruns, writes after free, leaks).
//
// Blocks come from the C library. Every block remembers tag, type, size and allocating
// IRQL; new blocks are filled with a non-zero pattern so that code which forgets to zero
// them is caught, and a guard area behind each block shows overruns when it is freed.
// Freed blocks stay in a quarantine for a while, filled with another pattern, so that a
// second free of the same block is recognised and a late write to it is seen.
//
// On the host the driver's global operator delete ends up here with every ordinary heap
// block of the program too (ExFreePoolWithTag(p, 0)). A pointer that is not a pool block
// is therefore handed back to free(). For the same reason the pool's bookkeeping uses
// malloc-backed containers only, and nothing is reported while the pool lock is held:
// reporting allocates, and its frees come back into this file.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <wdm.h>
#include <wdmsim/pool.h>
#include <wdmsim/verifier.h>

#include "kernel/lifecycle.h"
#include "pool/contiguous_memory.h"
#include "pool/malloc_allocator.h"
#include "pool/pool_faults.h"

namespace wdmsim {
namespace pool {
namespace {

constexpr unsigned char kFreshFill = 0xA5;  // as read through a pointer: non-canonical, faults
constexpr unsigned char kFreedFill = 0xDF;
constexpr unsigned char kGuardFill = 0xFD;
constexpr size_t kGuardBytes = 16;
constexpr size_t kPageSize = 4096;
constexpr size_t kLargestBlock = size_t(1) << 32;
constexpr ULONG kUntaggedTag = 0x656E6F4E;  // "None": what ExAllocatePool tags with
constexpr size_t kQuarantineBlocks = 1024;
constexpr size_t kQuarantineBytes = 16u << 20;

struct Block {
  uint32_t tag;
  int poolType;
  size_t size;
  uint8_t allocatingIrql;
  uint64_t sequence;
  bool freed;  // in quarantine
};

using BlockMap =
    std::map<uintptr_t, Block, std::less<uintptr_t>, MallocAllocator<std::pair<const uintptr_t, Block>>>;
template <typename T>
using MallocVector = std::vector<T, MallocAllocator<T>>;

struct PoolState {
  std::mutex lock;
  BlockMap blocks;  // live and quarantined, by address
  std::deque<uintptr_t, MallocAllocator<uintptr_t>> quarantine;
  size_t quarantinedBytes = 0;
  uint64_t nextSequence = 0;
};

PoolState& state() {
  static PoolState* s = new PoolState;  // operator delete may reach the pool after static destruction
  return *s;
}

bool IsPaged(int poolType) { return (poolType & 1) != 0; }

const char* PoolTypeName(int poolType) {
  switch (poolType) {
    case NonPagedPool: return "NonPagedPool";
    case PagedPool: return "PagedPool";
    case NonPagedPoolMustSucceed: return "NonPagedPoolMustSucceed";
    case NonPagedPoolCacheAligned: return "NonPagedPoolCacheAligned";
    case PagedPoolCacheAligned: return "PagedPoolCacheAligned";
    case NonPagedPoolNx: return "NonPagedPoolNx";
    default: return IsPaged(poolType) ? "paged pool" : "nonpaged pool";
  }
}

// As on x64 Windows: 16 bytes, a cache line for the cache-aligned types, whole pages
// for blocks of a page or more.
size_t Alignment(int poolType, size_t size) {
  if (size >= kPageSize) return kPageSize;
  if (poolType == NonPagedPoolCacheAligned || poolType == PagedPoolCacheAligned) return 64;
  return 16;
}

bool IsFilledWith(const unsigned char* bytes, size_t count, unsigned char fill) {
  for (size_t i = 0; i < count; ++i) {
    if (bytes[i] != fill) return false;
  }
  return true;
}

bool GuardIntact(uintptr_t address, const Block& block) {
  return IsFilledWith(reinterpret_cast<const unsigned char*>(address) + block.size, kGuardBytes, kGuardFill);
}

// What a free found out under the lock, reported once the lock is dropped.
struct Corruption {
  uintptr_t address;
  Block block;
  bool overrun;         // guard area behind the block written
  bool writtenAfterFree;
};

void ReportCorruption(const Corruption& c) {
  std::string tag = TagText(c.block.tag);
  if (c.overrun) {
    ReportViolation("SPECIAL_POOL_DETECTED_MEMORY_CORRUPTION", reinterpret_cast<void*>(c.address),
                    "pool block %p (tag '%s', %zu bytes, %s) was written beyond its end", reinterpret_cast<void*>(c.address),
                    tag.c_str(), c.block.size, PoolTypeName(c.block.poolType));
  }
  if (c.writtenAfterFree) {
    ReportViolation("SPECIAL_POOL_DETECTED_MEMORY_CORRUPTION", reinterpret_cast<void*>(c.address),
                    "pool block %p (tag '%s', %zu bytes, %s) was written after it was freed",
                    reinterpret_cast<void*>(c.address), tag.c_str(), c.block.size, PoolTypeName(c.block.poolType));
  }
}

// Called with the lock held: gives the oldest quarantined blocks back to the C library.
void TrimQuarantine(PoolState& s, MallocVector<Corruption>& found) {
  while (!s.quarantine.empty() &&
         (s.quarantine.size() > kQuarantineBlocks || s.quarantinedBytes > kQuarantineBytes)) {
    uintptr_t address = s.quarantine.front();
    s.quarantine.pop_front();
    auto it = s.blocks.find(address);
    const Block& block = it->second;
    if (!IsFilledWith(reinterpret_cast<const unsigned char*>(address), block.size, kFreedFill)) {
      found.push_back(Corruption{address, block, false, true});
    }
    s.quarantinedBytes -= block.size;
    s.blocks.erase(it);
    std::free(reinterpret_cast<void*>(address));
  }
}

enum class FreeOutcome { NotPool, Freed, AlreadyFreed, InsideBlock };

}  // namespace

void EndOfRun() {
  PoolState& s = state();
  BlockMap left;
  MallocVector<Corruption> corruptions;
  {
    std::lock_guard<std::mutex> guard(s.lock);
    left.swap(s.blocks);
    s.quarantine.clear();
    s.quarantinedBytes = 0;
    s.nextSequence = 0;
  }
  MallocVector<std::pair<uintptr_t, Block>> leaks;
  for (const auto& [address, block] : left) {
    if (block.freed) {
      if (!IsFilledWith(reinterpret_cast<const unsigned char*>(address), block.size, kFreedFill)) {
        corruptions.push_back(Corruption{address, block, false, true});
      }
    } else {
      leaks.emplace_back(address, block);
      if (!GuardIntact(address, block)) corruptions.push_back(Corruption{address, block, true, false});
    }
  }
  std::sort(leaks.begin(), leaks.end(),
            [](const auto& a, const auto& b) { return a.second.sequence < b.second.sequence; });
  for (const auto& [address, block] : left) std::free(reinterpret_cast<void*>(address));
  left.clear();

  for (const Corruption& c : corruptions) ReportCorruption(c);
  for (const auto& [address, block] : leaks) {
    std::string tag = TagText(block.tag);
    ReportViolation("POOL_LEAK", reinterpret_cast<void*>(address),
                    "pool block %p with tag '%s' (0x%08X), %zu bytes of %s, allocated at IRQL %u, was never freed",
                    reinterpret_cast<void*>(address), tag.c_str(), block.tag, block.size,
                    PoolTypeName(block.poolType), block.allocatingIrql);
  }
  EndOfRunContiguous();
  ClearPoolFaults();
}

}  // namespace pool

std::vector<PoolBlockInfo> LivePoolBlocks() {
  pool::PoolState& s = pool::state();
  pool::MallocVector<std::pair<uint64_t, PoolBlockInfo>> live;
  {
    std::lock_guard<std::mutex> guard(s.lock);
    for (const auto& [address, block] : s.blocks) {
      if (block.freed) continue;
      live.emplace_back(block.sequence, PoolBlockInfo{reinterpret_cast<const void*>(address), block.tag,
                                                      block.poolType, block.size, block.allocatingIrql});
    }
  }
  std::sort(live.begin(), live.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<PoolBlockInfo> result;
  result.reserve(live.size());
  for (const auto& entry : live) result.push_back(entry.second);
  return result;
}

size_t LivePoolBlockCount(uint32_t tag) {
  pool::PoolState& s = pool::state();
  std::lock_guard<std::mutex> guard(s.lock);
  size_t count = 0;
  for (const auto& entry : s.blocks) count += !entry.second.freed && entry.second.tag == tag;
  return count;
}

std::string TagText(uint32_t tag) {
  std::string text;
  for (int i = 0; i < 4; ++i) {
    char c = static_cast<char>((tag >> (8 * i)) & 0xFF);
    text += (c >= 0x20 && c < 0x7F) ? c : '?';
  }
  return text;
}

}  // namespace wdmsim

extern "C" PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
  using namespace wdmsim;
  using namespace wdmsim::pool;
  KIRQL irql = KeGetCurrentIrql();
  if (irql > DISPATCH_LEVEL) {
    std::string tag = TagText(Tag);
    ReportViolation("BAD_POOL_CALLER", nullptr, "pool allocation (tag '%s', %zu bytes, %s) at IRQL %u",
                    tag.c_str(), (size_t)NumberOfBytes, PoolTypeName(PoolType), irql);
  } else if (IsPaged(PoolType) && irql > APC_LEVEL) {
    std::string tag = TagText(Tag);
    ReportViolation("BAD_POOL_CALLER", nullptr,
                    "paged pool allocation (tag '%s', %zu bytes, %s) at IRQL %u: paged memory needs IRQL <= APC_LEVEL",
                    tag.c_str(), (size_t)NumberOfBytes, PoolTypeName(PoolType), irql);
  }
  if (NumberOfBytes == 0) {
    std::string tag = TagText(Tag);
    ReportViolation("BAD_POOL_CALLER", nullptr, "zero-byte pool allocation (tag '%s')", tag.c_str());
  }
  if (ConsumePoolFault(Tag) || NumberOfBytes > kLargestBlock) return nullptr;

  void* memory = nullptr;
  if (posix_memalign(&memory, Alignment(PoolType, NumberOfBytes), NumberOfBytes + kGuardBytes) != 0) return nullptr;
  std::memset(memory, kFreshFill, NumberOfBytes);
  std::memset(static_cast<unsigned char*>(memory) + NumberOfBytes, kGuardFill, kGuardBytes);

  PoolState& s = state();
  std::lock_guard<std::mutex> guard(s.lock);
  s.blocks[reinterpret_cast<uintptr_t>(memory)] = Block{Tag, PoolType, NumberOfBytes, irql, s.nextSequence++, false};
  return memory;
}

extern "C" PVOID NTAPI ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes) {
  return ExAllocatePoolWithTag(PoolType, NumberOfBytes, wdmsim::pool::kUntaggedTag);
}

extern "C" void NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag) {
  using namespace wdmsim;
  using namespace wdmsim::pool;
  // The C++ runtime frees null pointers through operator delete as well.
  if (P == nullptr) return;

  uintptr_t address = reinterpret_cast<uintptr_t>(P);
  FreeOutcome outcome = FreeOutcome::NotPool;
  Block block{};
  uintptr_t blockAddress = 0;
  MallocVector<Corruption> corruptions;
  PoolState& s = state();
  {
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.blocks.upper_bound(address);
    if (it != s.blocks.begin()) {
      --it;
      blockAddress = it->first;
      block = it->second;
      if (address == blockAddress) {
        outcome = block.freed ? FreeOutcome::AlreadyFreed : FreeOutcome::Freed;
      } else if (address < blockAddress + block.size + kGuardBytes) {
        outcome = FreeOutcome::InsideBlock;
      }
    }
    if (outcome == FreeOutcome::Freed) {
      if (!GuardIntact(address, block)) corruptions.push_back(Corruption{address, block, true, false});
      std::memset(P, kFreedFill, block.size);
      it->second.freed = true;
      s.quarantine.push_back(address);
      s.quarantinedBytes += block.size;
      TrimQuarantine(s, corruptions);
    }
  }

  switch (outcome) {
    case FreeOutcome::NotPool:
      if (IsContiguousBlock(P)) {
        ReportViolation("BAD_POOL_CALLER", P, "ExFreePool(%p): contiguous memory belongs to MmFreeContiguousMemory", P);
        return;
      }
      std::free(P);
      return;
    case FreeOutcome::AlreadyFreed: {
      std::string tag = TagText(block.tag);
      ReportViolation("BAD_POOL_CALLER", P, "pool block %p (tag '%s', %zu bytes) freed twice", P, tag.c_str(),
                      block.size);
      return;
    }
    case FreeOutcome::InsideBlock: {
      std::string tag = TagText(block.tag);
      ReportViolation("BAD_POOL_CALLER", P, "ExFreePool(%p) points %zu bytes into pool block %p (tag '%s')", P,
                      (size_t)(address - blockAddress), reinterpret_cast<void*>(blockAddress), tag.c_str());
      return;
    }
    case FreeOutcome::Freed:
      break;
  }

  KIRQL irql = KeGetCurrentIrql();
  std::string tag = TagText(block.tag);
  if (irql > DISPATCH_LEVEL || (IsPaged(block.poolType) && irql > APC_LEVEL)) {
    ReportViolation("BAD_POOL_CALLER", P, "pool block %p (tag '%s', %s) freed at IRQL %u", P, tag.c_str(),
                    PoolTypeName(block.poolType), irql);
  }
  if (Tag != 0 && Tag != block.tag) {
    std::string given = TagText(Tag);
    ReportViolation("BAD_POOL_CALLER", P, "pool block %p allocated with tag '%s' freed with tag '%s'", P, tag.c_str(),
                    given.c_str());
  }
  for (const Corruption& c : corruptions) ReportCorruption(c);
}

extern "C" void NTAPI ExFreePool(PVOID P) { ExFreePoolWithTag(P, 0); }
