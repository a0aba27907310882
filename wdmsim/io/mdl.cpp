// Memory descriptor lists. Host memory is always resident, so an MDL describes its buffer
// without locking anything, and the system address of a buffer is the buffer itself.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>

#include <wdmsim/verifier.h>

#include "io/irql_rules.h"
#include "io/mdl_tracking.h"
#include "pool/malloc_allocator.h"

namespace wdmsim {
namespace io {
namespace {

struct MdlTable {
  std::mutex lock;
  std::set<PMDL, std::less<PMDL>, pool::MallocAllocator<PMDL>> live;
};

MdlTable& mdls() {
  static MdlTable* table = new MdlTable;
  return *table;
}

}  // namespace

std::vector<PMDL> ForgetAllMdls() {
  MdlTable& table = mdls();
  std::lock_guard<std::mutex> guard(table.lock);
  std::vector<PMDL> live(table.live.begin(), table.live.end());
  table.live.clear();
  return live;
}

}  // namespace io
}  // namespace wdmsim

using wdmsim::ReportViolation;
using namespace wdmsim::io;

extern "C" PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota,
                              PIRP Irp) {
  IrqlAtMost(DISPATCH_LEVEL, "IoAllocateMdl", Irp);
  ULONG pages = ADDRESS_AND_SIZE_TO_SPAN_PAGES(VirtualAddress, Length);
  size_t size = sizeof(MDL) + pages * sizeof(PFN_NUMBER);
  auto mdl = static_cast<PMDL>(std::calloc(1, size));
  if (mdl == nullptr) return nullptr;
  mdl->Size = static_cast<CSHORT>(size);
  mdl->MdlFlags = MDL_ALLOCATED_FIXED_SIZE;
  mdl->StartVa = PAGE_ALIGN(VirtualAddress);
  mdl->ByteOffset = BYTE_OFFSET(VirtualAddress);
  mdl->ByteCount = Length;
  PPFN_NUMBER frames = MmGetMdlPfnArray(mdl);
  for (ULONG i = 0; i < pages; ++i) frames[i] = (reinterpret_cast<ULONG_PTR>(mdl->StartVa) >> PAGE_SHIFT) + i;
  {
    MdlTable& table = mdls();
    std::lock_guard<std::mutex> guard(table.lock);
    table.live.insert(mdl);
  }
  if (Irp != nullptr) {
    if (!SecondaryBuffer || Irp->MdlAddress == nullptr) {
      Irp->MdlAddress = mdl;
    } else {
      PMDL last = Irp->MdlAddress;
      while (last->Next != nullptr) last = last->Next;
      last->Next = mdl;
    }
  }
  return mdl;
}

extern "C" void IoFreeMdl(PMDL Mdl) {
  IrqlAtMost(DISPATCH_LEVEL, "IoFreeMdl", Mdl);
  bool known;
  {
    MdlTable& table = mdls();
    std::lock_guard<std::mutex> guard(table.lock);
    known = table.live.erase(Mdl) == 1;
  }
  if (!known) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", Mdl, "IoFreeMdl(%p): not an allocated MDL (freed twice?)",
                    (void*)Mdl);
    return;
  }
  memset(Mdl, 0xDD, Mdl->Size);
  std::free(Mdl);
}

extern "C" void MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList) {
  MemoryDescriptorList->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
  MemoryDescriptorList->MappedSystemVa = MmGetMdlVirtualAddress(MemoryDescriptorList);
}

extern "C" PVOID MmGetSystemAddressForMdlSafe(PMDL Mdl, ULONG Priority) {
  IrqlAtMost(DISPATCH_LEVEL, "MmGetSystemAddressForMdlSafe", Mdl);
  if ((Mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) == 0) {
    Mdl->MappedSystemVa = MmGetMdlVirtualAddress(Mdl);
    Mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
  }
  return Mdl->MappedSystemVa;
}
