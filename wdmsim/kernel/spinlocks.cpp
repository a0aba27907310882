#include "kernel/spinlocks.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include <wdmsim/verifier.h>

#include "kernel/irql.h"

namespace wdmsim {
namespace kernel {
namespace spinlocks {
namespace {

// Spinning this long means the holder will not let go; Windows' DPC watchdog fires too.
constexpr auto kWatchdog = std::chrono::seconds(20);

KSPIN_LOCK gCancelSpinLock = 0;

ULONG_PTR OwnerValue(const ThreadRecord* self) { return reinterpret_cast<ULONG_PTR>(self->object) | 1; }

void Acquire(ThreadRecord* self, PKSPIN_LOCK lock, const char* service) {
  ULONG_PTR mine = OwnerValue(self);
  if (__atomic_load_n(lock, __ATOMIC_RELAXED) == mine) {
    ReportViolation("SPIN_LOCK_ALREADY_OWNED", lock, "%s(%p) by %s, which already holds it", service,
                    static_cast<void*>(lock), self->name.c_str());
    return;
  }
  auto spinStart = std::chrono::steady_clock::now();
  bool watchdogReported = false;
  for (unsigned spins = 0;; ++spins) {
    ULONG_PTR expected = 0;
    if (__atomic_compare_exchange_n(lock, &expected, mine, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) break;
    if (self->terminateRequested) throw ThreadTermination{STATUS_THREAD_IS_TERMINATING};
    std::this_thread::yield();
    if ((spins & 1023) == 1023 && !watchdogReported && std::chrono::steady_clock::now() - spinStart > kWatchdog) {
      watchdogReported = true;
      ReportViolation("DPC_WATCHDOG_VIOLATION", lock, "%s spun for %lld s on spin lock %p held by thread object %p",
                      self->name.c_str(), static_cast<long long>(kWatchdog.count()), static_cast<void*>(lock),
                      reinterpret_cast<void*>(expected & ~static_cast<ULONG_PTR>(1)));
    }
  }
  self->heldSpinLocks.push_back(lock);
}

void Release(ThreadRecord* self, PKSPIN_LOCK lock, const char* service) {
  ULONG_PTR value = __atomic_load_n(lock, __ATOMIC_RELAXED);
  if (value != OwnerValue(self)) {
    if (value == 0) {
      ReportViolation("SPIN_LOCK_NOT_OWNED", lock, "%s(%p) by %s: the lock is not held", service,
                      static_cast<void*>(lock), self->name.c_str());
    } else {
      ReportViolation("SPIN_LOCK_NOT_OWNED", lock, "%s(%p) by %s: the lock is held by thread object %p", service,
                      static_cast<void*>(lock), self->name.c_str(),
                      reinterpret_cast<void*>(value & ~static_cast<ULONG_PTR>(1)));
    }
    return;
  }
  auto& held = self->heldSpinLocks;
  held.erase(std::find(held.begin(), held.end(), lock));
  __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
}

void LowerAfterRelease(ThreadRecord* self, KIRQL newIrql, const char* service) {
  if (newIrql > DISPATCH_LEVEL) {
    ReportViolation("IRQL_NOT_LESS_OR_EQUAL", nullptr, "%s to IRQL %u on %s: above DISPATCH_LEVEL", service, newIrql,
                    self->name.c_str());
    return;
  }
  CheckLowering(self, newIrql, service);
  self->irql = newIrql;
}

KIRQL AcquireRaiseToDpc(PKSPIN_LOCK lock, const char* service) {
  ThreadRecord* self = CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, service, lock);
  KIRQL old = self->irql;
  if (old < DISPATCH_LEVEL) self->irql = DISPATCH_LEVEL;
  Acquire(self, lock, service);
  return old;
}

void ReleaseAndLower(PKSPIN_LOCK lock, KIRQL newIrql, const char* service) {
  ThreadRecord* self = CurrentThread();
  RequireIrqlExactly(DISPATCH_LEVEL, service, lock);
  Release(self, lock, service);
  LowerAfterRelease(self, newIrql, service);
}

}  // namespace

// KeInitializeSpinLock is inline and may reset a lock behind our back: only locks that
// still carry this thread's mark count as held.
void ForgetLocksNoLongerHeld(ThreadRecord* self) {
  auto& held = self->heldSpinLocks;
  ULONG_PTR mine = OwnerValue(self);
  held.erase(std::remove_if(held.begin(), held.end(),
                            [mine](PKSPIN_LOCK lock) { return __atomic_load_n(lock, __ATOMIC_RELAXED) != mine; }),
             held.end());
}

void CheckLowering(ThreadRecord* self, KIRQL newIrql, const char* service) {
  if (newIrql >= DISPATCH_LEVEL || self->heldSpinLocks.empty()) return;
  ForgetLocksNoLongerHeld(self);
  if (self->heldSpinLocks.empty()) return;
  ReportViolation("DRIVER_VERIFIER_DETECTED_VIOLATION", self->heldSpinLocks.back(),
                  "%s lowers IRQL to %u on %s while it still holds spin lock %p", service, newIrql,
                  self->name.c_str(), static_cast<void*>(self->heldSpinLocks.back()));
}

void ReportHeld(ThreadRecord* self, const char* bugcheck, const char* where) {
  ForgetLocksNoLongerHeld(self);
  for (PKSPIN_LOCK lock : self->heldSpinLocks) {
    ReportViolation(bugcheck, lock, "%s still holds spin lock %p %s", self->name.c_str(), static_cast<void*>(lock),
                    where);
  }
}

void Reset() { __atomic_store_n(&gCancelSpinLock, 0, __ATOMIC_SEQ_CST); }

}  // namespace spinlocks
}  // namespace kernel
}  // namespace wdmsim

using namespace wdmsim::kernel;
using namespace wdmsim::kernel::spinlocks;

extern "C" KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) {
  return AcquireRaiseToDpc(SpinLock, "KeAcquireSpinLockRaiseToDpc");
}

extern "C" void KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
  ReleaseAndLower(SpinLock, NewIrql, "KeReleaseSpinLock");
}

extern "C" void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
  ThreadRecord* self = CurrentThread();
  RequireIrqlAtLeast(DISPATCH_LEVEL, "KeAcquireSpinLockAtDpcLevel", SpinLock);
  Acquire(self, SpinLock, "KeAcquireSpinLockAtDpcLevel");
}

extern "C" void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) {
  ThreadRecord* self = CurrentThread();
  RequireIrqlAtLeast(DISPATCH_LEVEL, "KeReleaseSpinLockFromDpcLevel", SpinLock);
  Release(self, SpinLock, "KeReleaseSpinLockFromDpcLevel");
}

// The I/O manager's one global cancel spin lock is a plain spin lock.
extern "C" void IoAcquireCancelSpinLock(PKIRQL Irql) {
  *Irql = AcquireRaiseToDpc(&gCancelSpinLock, "IoAcquireCancelSpinLock");
}

extern "C" void IoReleaseCancelSpinLock(KIRQL Irql) {
  ReleaseAndLower(&gCancelSpinLock, Irql, "IoReleaseCancelSpinLock");
}
