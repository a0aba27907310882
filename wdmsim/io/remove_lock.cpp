// Remove locks (debug layout). The count starts at one for the lock itself; removal drops
// that bias and the caller's own reference, then waits until every other holder has
// released. Every acquisition is tracked by tag, so that releasing a tag never acquired,
// or deleting a device whose lock is still held, is reported with where it was acquired.
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <wdmsim/verifier.h>

#include "io/irql_rules.h"
#include "io/remove_lock_tracking.h"
#include "pool/malloc_allocator.h"

namespace wdmsim {
namespace io {
namespace {

constexpr LONG kSignature = 0x4C526F49;  // "IoRL" in memory order
constexpr LONGLONG kTicksPerMinute = 60LL * 10 * 1000 * 1000;

struct Holder {
  PVOID tag;
  PCSTR file;
  ULONG line;
};

using Holders = std::vector<Holder, pool::MallocAllocator<Holder>>;

struct LockTable {
  std::mutex lock;
  // Ordered by address: a deleted device forgets the locks inside its extension.
  std::map<const IO_REMOVE_LOCK*, Holders, std::less<const IO_REMOVE_LOCK*>,
           pool::MallocAllocator<std::pair<const IO_REMOVE_LOCK* const, Holders>>>
      locks;
};

LockTable& table() {
  static LockTable* t = new LockTable;
  return *t;
}

std::string Describe(const IO_REMOVE_LOCK* lock, const Holders& holders) {
  char text[256];
  const Holder& h = holders.front();
  snprintf(text, sizeof text, "remove lock %p: tag %p acquired at %s:%lu (%zu holder(s))", (const void*)lock, h.tag,
           h.file != nullptr ? h.file : "?", (unsigned long)h.line, holders.size());
  return text;
}

// Reports what is wrong with the lock argument; the service goes on either way.
void CheckLock(PIO_REMOVE_LOCK lock, ULONG size, const char* service) {
  if (size != sizeof(IO_REMOVE_LOCK)) {
    ReportViolation("DRIVER_VERIFIER_DETECTED_VIOLATION", lock,
                    "%s(%p): RemlockSize %u, but remove locks here have the debug layout of %zu bytes", service,
                    (void*)lock, size, sizeof(IO_REMOVE_LOCK));
  }
  if (lock->Dbg.Signature != kSignature) {
    ReportViolation("DRIVER_VERIFIER_DETECTED_VIOLATION", lock, "%s(%p): remove lock was never initialised", service,
                    (void*)lock);
  }
}

bool Removed(PIO_REMOVE_LOCK lock) { return __atomic_load_n(&lock->Common.Removed, __ATOMIC_SEQ_CST); }

// Drops one reference; the last one after removal wakes the remover.
void DropReference(PIO_REMOVE_LOCK lock) {
  LONG count = InterlockedDecrement(&lock->Common.IoCount);
  if (count == 0) {
    if (!Removed(lock)) {
      ReportViolation("DRIVER_VERIFIER_DETECTED_VIOLATION", lock,
                      "remove lock %p released more often than it was acquired", (void*)lock);
    }
    KeSetEvent(&lock->Common.RemoveEvent, IO_NO_INCREMENT, FALSE);
  } else if (count < 0) {
    ReportViolation("DRIVER_VERIFIER_DETECTED_VIOLATION", lock,
                    "remove lock %p released more often than it was acquired (count %d)", (void*)lock, (int)count);
  }
}

void Release(PIO_REMOVE_LOCK lock, PVOID tag, const char* service) {
  bool found = false;
  {
    LockTable& t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    auto it = t.locks.find(lock);
    if (it != t.locks.end()) {
      Holders& holders = it->second;
      for (auto h = holders.begin(); h != holders.end(); ++h) {
        if (h->tag == tag) {
          holders.erase(h);
          found = true;
          break;
        }
      }
    }
  }
  if (!found) {
    ReportViolation("DRIVER_VERIFIER_DETECTED_VIOLATION", lock, "%s(%p): tag %p was never acquired on this lock",
                    service, (void*)lock, tag);
  }
  DropReference(lock);
}

}  // namespace

std::string HeldRemoveLockIn(const void* begin, size_t size) {
  LockTable& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  auto first = static_cast<const IO_REMOVE_LOCK*>(begin);
  auto end = reinterpret_cast<const IO_REMOVE_LOCK*>(static_cast<const char*>(begin) + size);
  for (auto it = t.locks.lower_bound(first); it != t.locks.end() && it->first < end; ++it) {
    if (!it->second.empty()) return Describe(it->first, it->second);
  }
  return std::string();
}

void ForgetRemoveLocksIn(const void* begin, size_t size) {
  LockTable& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  auto first = static_cast<const IO_REMOVE_LOCK*>(begin);
  auto end = reinterpret_cast<const IO_REMOVE_LOCK*>(static_cast<const char*>(begin) + size);
  t.locks.erase(t.locks.lower_bound(first), t.locks.lower_bound(end));
}

void ForgetAllRemoveLocks() {
  LockTable& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  t.locks.clear();
}

}  // namespace io
}  // namespace wdmsim

using wdmsim::ReportViolation;
using namespace wdmsim::io;

extern "C" void NTAPI IoInitializeRemoveLockEx(PIO_REMOVE_LOCK Lock, ULONG AllocateTag, ULONG MaxLockedMinutes,
                                               ULONG HighWatermark, ULONG RemlockSize) {
  IrqlAtMost(PASSIVE_LEVEL, "IoInitializeRemoveLockEx", Lock);
  if (RemlockSize != sizeof(IO_REMOVE_LOCK)) {
    ReportViolation("DRIVER_VERIFIER_DETECTED_VIOLATION", Lock,
                    "IoInitializeRemoveLockEx(%p): RemlockSize %u, but remove locks here have the debug layout of "
                    "%zu bytes",
                    (void*)Lock, RemlockSize, sizeof(IO_REMOVE_LOCK));
  }
  memset(Lock, 0, sizeof(IO_REMOVE_LOCK));
  Lock->Common.Removed = FALSE;
  Lock->Common.IoCount = 1;
  KeInitializeEvent(&Lock->Common.RemoveEvent, SynchronizationEvent, FALSE);
  Lock->Dbg.Signature = kSignature;
  Lock->Dbg.HighWatermark = static_cast<LONG>(HighWatermark);
  Lock->Dbg.MaxLockedTicks = MaxLockedMinutes * kTicksPerMinute;
  Lock->Dbg.AllocateTag = static_cast<LONG>(AllocateTag);
  InitializeListHead(&Lock->Dbg.LockList);
  KeInitializeSpinLock(&Lock->Dbg.Spin);

  LockTable& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  t.locks[Lock].clear();
}

extern "C" NTSTATUS NTAPI IoAcquireRemoveLockEx(PIO_REMOVE_LOCK RemoveLock, PVOID Tag, PCSTR File, ULONG Line,
                                                ULONG RemlockSize) {
  IrqlAtMost(DISPATCH_LEVEL, "IoAcquireRemoveLockEx", RemoveLock);
  CheckLock(RemoveLock, RemlockSize, "IoAcquireRemoveLockEx");
  LONG count = InterlockedIncrement(&RemoveLock->Common.IoCount);
  if (Removed(RemoveLock)) {
    DropReference(RemoveLock);
    return STATUS_DELETE_PENDING;
  }
  LONG highWatermark = RemoveLock->Dbg.HighWatermark;
  if (highWatermark != 0 && count > highWatermark + 1) {
    ReportViolation("DRIVER_VERIFIER_DETECTED_VIOLATION", RemoveLock,
                    "IoAcquireRemoveLockEx(%p): %d holders, above the high-water mark %d", (void*)RemoveLock,
                    (int)count - 1, (int)highWatermark);
  }
  LockTable& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  t.locks[RemoveLock].push_back(Holder{Tag, File, Line});
  return STATUS_SUCCESS;
}

extern "C" void NTAPI IoReleaseRemoveLockEx(PIO_REMOVE_LOCK RemoveLock, PVOID Tag, ULONG RemlockSize) {
  IrqlAtMost(DISPATCH_LEVEL, "IoReleaseRemoveLockEx", RemoveLock);
  CheckLock(RemoveLock, RemlockSize, "IoReleaseRemoveLockEx");
  Release(RemoveLock, Tag, "IoReleaseRemoveLockEx");
}

extern "C" void NTAPI IoReleaseRemoveLockAndWaitEx(PIO_REMOVE_LOCK RemoveLock, PVOID Tag, ULONG RemlockSize) {
  IrqlAtMost(PASSIVE_LEVEL, "IoReleaseRemoveLockAndWaitEx", RemoveLock);
  CheckLock(RemoveLock, RemlockSize, "IoReleaseRemoveLockAndWaitEx");
  if (__atomic_exchange_n(&RemoveLock->Common.Removed, TRUE, __ATOMIC_SEQ_CST)) {
    ReportViolation("DRIVER_VERIFIER_DETECTED_VIOLATION", RemoveLock,
                    "IoReleaseRemoveLockAndWaitEx(%p) called again on a removed lock", (void*)RemoveLock);
    Release(RemoveLock, Tag, "IoReleaseRemoveLockAndWaitEx");
    return;
  }
  // Drop the lock's own bias, then the caller's reference; the last holder out sets the event.
  InterlockedDecrement(&RemoveLock->Common.IoCount);
  Release(RemoveLock, Tag, "IoReleaseRemoveLockAndWaitEx");
  KeWaitForSingleObject(&RemoveLock->Common.RemoveEvent, Executive, KernelMode, FALSE, nullptr);
}
