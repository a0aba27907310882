// Physically contiguous memory (MmAllocateContiguousMemory): page-aligned blocks with
// fake, stable physical addresses, tracked apart from the pool.
#pragma once

namespace wdmsim {
namespace pool {

// True when address is the start of a live contiguous block (the pool refuses to free it).
bool IsContiguousBlock(const void* address);
// End of run: reports every contiguous block still allocated and frees them all.
void EndOfRunContiguous();

}  // namespace pool
}  // namespace wdmsim
