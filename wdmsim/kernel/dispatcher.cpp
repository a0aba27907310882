#include "kernel/dispatcher.h"

#include <algorithm>
#include <unordered_map>

#include <wdmsim/verifier.h>

#include "kernel/clock.h"

namespace wdmsim {
namespace kernel {
namespace dispatcher {
namespace {

// One thread's wait on one or more objects. It lives on the waiting thread's stack and is
// linked into the wait list of each object while the thread is blocked.
struct WaitBlock {
  ThreadRecord* thread;
  PVOID const* objects;
  ULONG count;
  WAIT_TYPE waitType;
  bool satisfied = false;
  NTSTATUS status = STATUS_SUCCESS;
};

// Wait lists by object address, each in the order the waits began.
std::unordered_map<const void*, std::vector<WaitBlock*>>& waitLists() {
  static auto* lists = new std::unordered_map<const void*, std::vector<WaitBlock*>>;
  return *lists;
}

DISPATCHER_HEADER* HeaderOf(const void* object) {
  return static_cast<DISPATCHER_HEADER*>(const_cast<void*>(object));
}

bool IsSignalledFor(const void* object, const ThreadRecord* thread) {
  const DISPATCHER_HEADER* header = HeaderOf(object);
  if (header->Type == kMutant) {
    // A mutex is free, or already owned by the waiter (kernel mutexes are recursive).
    const auto* mutex = static_cast<const KMUTEX*>(object);
    return SignalState(header) > 0 || mutex->OwnerThread == thread->object;
  }
  return SignalState(header) > 0;
}

// Takes what a satisfied wait consumes. True when a mutex came back abandoned.
bool Acquire(void* object, ThreadRecord* thread) {
  DISPATCHER_HEADER* header = HeaderOf(object);
  switch (header->Type) {
    case kSynchronizationEvent:
    case kSynchronizationTimer:
      SetSignalState(header, 0);
      return false;
    case kSemaphore:
      SetSignalState(header, SignalState(header) - 1);
      return false;
    case kMutant: {
      auto* mutex = static_cast<KMUTEX*>(object);
      LONG state = SignalState(header) - 1;
      SetSignalState(header, state);
      if (state == 0) {
        bool abandoned = mutex->Abandoned;
        mutex->OwnerThread = thread->object;
        mutex->Abandoned = FALSE;
        thread->ownedMutexes.push_back(mutex);
        return abandoned;
      }
      return false;
    }
    default:  // notification events and timers stay signalled; an ended thread stays ended
      return false;
  }
}

// Satisfies the wait now if its objects allow, taking what it consumes.
bool TrySatisfy(ThreadRecord* thread, ULONG count, PVOID const objects[], WAIT_TYPE waitType, NTSTATUS* status) {
  if (waitType == WaitAny) {
    for (ULONG i = 0; i < count; ++i) {
      if (!IsSignalledFor(objects[i], thread)) continue;
      bool abandoned = Acquire(objects[i], thread);
      *status = (abandoned ? STATUS_ABANDONED_WAIT_0 : STATUS_WAIT_0) + static_cast<NTSTATUS>(i);
      return true;
    }
    return false;
  }
  for (ULONG i = 0; i < count; ++i) {
    if (!IsSignalledFor(objects[i], thread)) return false;
  }
  *status = STATUS_WAIT_0;
  for (ULONG i = 0; i < count; ++i) {
    if (Acquire(objects[i], thread)) *status = STATUS_ABANDONED_WAIT_0 + static_cast<NTSTATUS>(i);
  }
  return true;
}

void Link(WaitBlock* block) {
  for (ULONG i = 0; i < block->count; ++i) waitLists()[block->objects[i]].push_back(block);
}

void Unlink(WaitBlock* block) {
  auto& lists = waitLists();
  for (ULONG i = 0; i < block->count; ++i) {
    auto it = lists.find(block->objects[i]);
    if (it == lists.end()) continue;
    auto& list = it->second;
    list.erase(std::remove(list.begin(), list.end(), block), list.end());
    if (list.empty()) lists.erase(it);
  }
}

}  // namespace

void InitializeHeader(DISPATCHER_HEADER* header, ObjectType type, size_t objectSize, LONG signalState) {
  header->Type = type;
  header->Absolute = 0;
  header->Size = static_cast<UCHAR>(objectSize / sizeof(LONG));
  header->Inserted = FALSE;
  SetSignalState(header, signalState);
  InitializeListHead(&header->WaitListHead);
}

bool IsDispatcherObject(const void* object) {
  if (object == nullptr) return false;
  switch (HeaderOf(object)->Type) {
    case kNotificationEvent:
    case kSynchronizationEvent:
    case kMutant:
    case kSemaphore:
    case kThread:
    case kNotificationTimer:
    case kSynchronizationTimer:
      return true;
    default:
      return false;
  }
}

LONG SignalState(const DISPATCHER_HEADER* header) { return __atomic_load_n(&header->SignalState, __ATOMIC_SEQ_CST); }

void SetSignalState(DISPATCHER_HEADER* header, LONG state) {
  __atomic_store_n(&header->SignalState, state, __ATOMIC_SEQ_CST);
}

void WaitTest(sched::Guard& guard, void* object) {
  auto& lists = waitLists();
  auto it = lists.find(object);
  if (it == lists.end()) return;
  // Satisfied waits leave every list they are in, this one included: walk a copy.
  std::vector<WaitBlock*> waiters = it->second;
  for (WaitBlock* block : waiters) {
    if (SignalState(HeaderOf(object)) <= 0) return;
    if (block->satisfied) continue;
    NTSTATUS status;
    if (!TrySatisfy(block->thread, block->count, block->objects, block->waitType, &status)) continue;
    block->satisfied = true;
    block->status = status;
    Unlink(block);
    sched::Wake(guard, block->thread);
  }
}

NTSTATUS Wait(ThreadRecord* self, ULONG count, PVOID const objects[], WAIT_TYPE waitType,
              const LARGE_INTEGER* timeout) {
  sched::Guard guard = sched::Lock();
  NTSTATUS status;
  if (TrySatisfy(self, count, objects, waitType, &status)) return status;

  int64_t deadline = kNoDeadline;
  if (timeout != nullptr) {
    if (timeout->QuadPart == 0) return STATUS_TIMEOUT;
    deadline = clock::DeadlineFromDueTime(timeout->QuadPart);
    if (deadline <= clock::InterruptTime()) return STATUS_TIMEOUT;
  }

  WaitBlock block{self, objects, count, waitType};
  Link(&block);
  // The machine may end this thread while it waits: the block must not stay linked.
  struct UnlinkOnExit {
    WaitBlock* block;
    ~UnlinkOnExit() {
      if (!block->satisfied) Unlink(block);
    }
  } unlinkOnExit{&block};

  WaitTarget target;
  target.objects = objects;
  target.count = count;
  target.waitType = waitType;
  for (;;) {
    WakeReason reason = sched::Block(guard, self, BlockKind::Object, deadline, target);
    if (block.satisfied) return block.status;
    if (reason != WakeReason::Signalled) return STATUS_TIMEOUT;
  }
}

void AbandonMutexes(sched::Guard& guard, ThreadRecord* thread) {
  std::vector<PRKMUTEX> owned;
  owned.swap(thread->ownedMutexes);
  for (PRKMUTEX mutex : owned) {
    mutex->OwnerThread = nullptr;
    mutex->Abandoned = TRUE;
    SetSignalState(&mutex->Header, 1);
    WaitTest(guard, mutex);
  }
}

void Reset() {
  sched::Guard guard = sched::Lock();
  waitLists().clear();
}

}  // namespace dispatcher
}  // namespace kernel
}  // namespace wdmsim
