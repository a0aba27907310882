// Fault injection shared by the pool and the contiguous allocator: each allocation asks
// whether an injected fault fails it. The host API (FailNthPoolAllocation and the rest)
// is declared in <wdmsim/pool.h>.
#pragma once

#include <cstdint>

namespace wdmsim {
namespace pool {

// Called once per pool allocation, which counts towards FailNthPoolAllocation; true
// when the allocation must fail (the failure is counted as injected).
bool ConsumePoolFault(uint32_t tag);
// Called once per contiguous allocation; true when it must fail.
bool ConsumeContiguousFault();

}  // namespace pool
}  // namespace wdmsim
