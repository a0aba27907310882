#include "kernel/workitems.h"

#include <algorithm>
#include <deque>
#include <string>
#include <unordered_set>
#include <vector>

#include <wdmsim/verifier.h>

#include "kernel/dpcs.h"
#include "kernel/irql.h"
#include "kernel/objects.h"
#include "kernel/spinlocks.h"

#include "io/device_references.h"

struct _IO_WORKITEM {
  PDEVICE_OBJECT DeviceObject;
  PIO_WORKITEM_ROUTINE Routine;
  PVOID Context;
  bool Queued;
  int64_t QueuedAt;  // interrupt time
};

namespace wdmsim {
namespace kernel {
namespace workitems {
namespace {

constexpr ULONG kPoolTag = 'k' << 24 | 'W' << 16 | 'o' << 8 | 'I';  // "IoWk" in memory order
constexpr int kMaxExtraWorkers = 16;
constexpr int64_t kStarvationDelay = 1000 * kUnitsPerMs;

struct WorkQueue {
  const char* name;
  std::deque<PIO_WORKITEM> items;
  sched::WaitQueue idleWorkers;
  int extraWorkers = 0;  // started because items starved
  int64_t lastExtraWorkerAt = 0;
};

struct State {
  WorkQueue critical{"critical"};
  WorkQueue delayed{"delayed"};
  std::unordered_set<PIO_WORKITEM> allocated;
};

State& state() {
  static State* s = new State;
  return *s;
}

WorkQueue& QueueFor(WORK_QUEUE_TYPE type) {
  return type == DelayedWorkQueue ? state().delayed : state().critical;
}

void ReferenceDevice(PDEVICE_OBJECT device) {
  if (device != nullptr) io::ReferenceDeviceObject(device);
}

void DereferenceDevice(PDEVICE_OBJECT device) {
  if (device != nullptr) io::DereferenceDeviceObject(device);
}

int64_t StarvesAt(const WorkQueue& queue) {
  if (queue.items.empty() || queue.extraWorkers >= kMaxExtraWorkers) return kNoDeadline;
  return std::max(queue.items.front()->QueuedAt, queue.lastExtraWorkerAt) + kStarvationDelay;
}

// What a work item routine must not leave behind when it returns to the worker.
void CheckReturn(ThreadRecord* self, PIO_WORKITEM_ROUTINE routine, PVOID context) {
  if (self->irql != PASSIVE_LEVEL) {
    ReportViolation("WORKER_THREAD_RETURNED_AT_BAD_IRQL", reinterpret_cast<void*>(routine),
                    "work item routine %p (context %p) returned at IRQL %u", reinterpret_cast<void*>(routine), context,
                    self->irql);
  }
  spinlocks::ReportHeld(self, "WORKER_THREAD_RETURNED_AT_BAD_IRQL", "after its work item routine returned");
  self->heldSpinLocks.clear();
  self->irql = PASSIVE_LEVEL;
  if (self->criticalRegions != 0) {
    ReportViolation("APC_INDEX_MISMATCH", reinterpret_cast<void*>(routine),
                    "work item routine %p returned inside %d critical region(s)", reinterpret_cast<void*>(routine),
                    self->criticalRegions);
    self->criticalRegions = 0;
  }
  size_t mutexes;
  {
    sched::Guard guard = sched::Lock();
    mutexes = self->ownedMutexes.size();
  }
  if (mutexes != 0) {
    ReportViolation("SYSTEM_EXIT_OWNED_MUTEX", reinterpret_cast<void*>(routine),
                    "work item routine %p returned owning %zu mutex(es)", reinterpret_cast<void*>(routine), mutexes);
  }
}

void RunWorker(WorkQueue* queue) {
  ThreadRecord* self = CurrentThread();
  // The delayed queue's workers run one priority below the critical queue's.
  if (queue == &state().delayed) __atomic_store_n(&self->object->Priority, 12, __ATOMIC_SEQ_CST);
  for (;;) {
    sched::Guard guard = sched::Lock();
    if (!queue->idleWorkers.Wait(guard, self, BlockKind::Idle, "work", [queue] { return !queue->items.empty(); })) {
      return;
    }
    PIO_WORKITEM item = queue->items.front();
    queue->items.pop_front();
    item->Queued = false;  // from here on the routine may queue or free it
    PIO_WORKITEM_ROUTINE routine = item->Routine;
    PVOID context = item->Context;
    PDEVICE_OBJECT device = item->DeviceObject;
    guard.unlock();

    routine(device, context);
    CheckReturn(self, routine, context);
    // The item itself may be gone (freed by its routine); the device reference is not.
    DereferenceDevice(device);
  }
}

void StartWorker(sched::Guard* heldLock, WorkQueue* queue, int number) {
  std::string name = std::string(queue->name) + " worker " + std::to_string(number);
  auto body = [queue] { RunWorker(queue); };
  _KTHREAD* thread = heldLock != nullptr
                         ? StartKernelThreadLocked(*heldLock, name, ThreadRole::Worker, body)
                         : StartKernelThread(name, ThreadRole::Worker, body);
  objects::Dereference(thread);
}

const char* QueueName(const _IO_WORKITEM* item) {
  for (WorkQueue* queue : {&state().critical, &state().delayed}) {
    for (PIO_WORKITEM queued : queue->items) {
      if (queued == item) return queue->name;
    }
  }
  return "no";
}

}  // namespace

void Start(int criticalWorkers, int delayedWorkers) {
  State& s = state();
  {
    sched::Guard guard = sched::Lock();
    s.critical.items.clear();
    s.delayed.items.clear();
    for (WorkQueue* queue : {&s.critical, &s.delayed}) {
      queue->extraWorkers = 0;
      queue->lastExtraWorkerAt = 0;
    }
  }
  for (int i = 1; i <= criticalWorkers; ++i) StartWorker(nullptr, &s.critical, i);
  for (int i = 1; i <= delayedWorkers; ++i) StartWorker(nullptr, &s.delayed, i);
}

int64_t StarvationDeadline(sched::Guard& guard) {
  return std::min(StarvesAt(state().critical), StarvesAt(state().delayed));
}

void StartStarvedWorkers(sched::Guard& guard, int64_t now) {
  for (WorkQueue* queue : {&state().critical, &state().delayed}) {
    if (StarvesAt(*queue) > now) continue;
    queue->extraWorkers++;
    queue->lastExtraWorkerAt = now;
    StartWorker(&guard, queue, 100 + queue->extraWorkers);
  }
}

size_t AllocatedForDevice(const DEVICE_OBJECT* device) {
  sched::Guard guard = sched::Lock();
  size_t count = 0;
  for (PIO_WORKITEM item : state().allocated) count += item->DeviceObject == device;
  return count;
}

void ReportQueued(sched::Guard& guard) {
  for (WorkQueue* queue : {&state().critical, &state().delayed}) {
    for (PIO_WORKITEM item : queue->items) {
      ReportViolation("DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS", item,
                      "work item %p (routine %p, device %p) is still queued on the %s work queue at the end of the run",
                      static_cast<void*>(item), reinterpret_cast<void*>(item->Routine),
                      static_cast<void*>(item->DeviceObject), queue->name);
    }
  }
}

void ReportLeakedAndReset() {
  State& s = state();
  std::unordered_set<PIO_WORKITEM> left;
  std::vector<PDEVICE_OBJECT> referencedDevices;
  {
    sched::Guard guard = sched::Lock();
    for (WorkQueue* queue : {&s.critical, &s.delayed}) {
      for (PIO_WORKITEM item : queue->items) referencedDevices.push_back(item->DeviceObject);
      queue->items.clear();
    }
    left.swap(s.allocated);
  }
  for (PDEVICE_OBJECT device : referencedDevices) DereferenceDevice(device);
  for (PIO_WORKITEM item : left) {
    ReportViolation("DRIVER_VERIFIER_DETECTED_VIOLATION", item,
                    "work item %p (device %p) was allocated and never freed with IoFreeWorkItem",
                    static_cast<void*>(item), static_cast<void*>(item->DeviceObject));
    ExFreePoolWithTag(item, kPoolTag);
  }
}

}  // namespace workitems
}  // namespace kernel
}  // namespace wdmsim

using namespace wdmsim::kernel;
using namespace wdmsim::kernel::workitems;

extern "C" PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject) {
  CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, "IoAllocateWorkItem", DeviceObject);
  // From the pool, so that its fault injection reaches IoAllocateWorkItem as low memory
  // reaches it on Windows.
  auto* item = static_cast<PIO_WORKITEM>(ExAllocatePoolWithTag(NonPagedPool, sizeof(_IO_WORKITEM), kPoolTag));
  if (item == nullptr) return nullptr;
  *item = _IO_WORKITEM{DeviceObject, nullptr, nullptr, false, 0};
  sched::Guard guard = sched::Lock();
  state().allocated.insert(item);
  return item;
}

extern "C" void IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                                PVOID Context) {
  CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, "IoQueueWorkItem", IoWorkItem);
  sched::Guard guard = sched::Lock();
  if (!state().allocated.count(IoWorkItem)) {
    guard.unlock();
    wdmsim::ReportViolation("WORKER_INVALID", IoWorkItem,
                            "IoQueueWorkItem(%p): not a work item from IoAllocateWorkItem (or already freed)",
                            static_cast<void*>(IoWorkItem));
    return;
  }
  if (IoWorkItem->Queued) {
    const char* queueName = QueueName(IoWorkItem);
    guard.unlock();
    wdmsim::ReportViolation("WORKER_INVALID", IoWorkItem,
                            "IoQueueWorkItem(%p): the work item is already queued on the %s work queue",
                            static_cast<void*>(IoWorkItem), queueName);
    return;
  }
  IoWorkItem->Routine = WorkerRoutine;
  IoWorkItem->Context = Context;
  IoWorkItem->Queued = true;
  // The device object must outlive the routine, as the I/O manager guarantees. Its
  // references are the I/O manager's, never taken under the dispatcher lock.
  guard.unlock();
  ReferenceDevice(IoWorkItem->DeviceObject);
  guard.lock();
  IoWorkItem->QueuedAt = clock::InterruptTime();
  WorkQueue& queue = QueueFor(QueueType);
  queue.items.push_back(IoWorkItem);
  // With every worker busy the item may starve: the wall clock must know when.
  if (!queue.idleWorkers.WakeOne(guard)) dpcs::DeadlinesChanged(guard);
}

extern "C" void IoFreeWorkItem(PIO_WORKITEM IoWorkItem) {
  CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, "IoFreeWorkItem", IoWorkItem);
  sched::Guard guard = sched::Lock();
  auto it = state().allocated.find(IoWorkItem);
  if (it == state().allocated.end() || IoWorkItem->Queued) {
    bool queued = it != state().allocated.end();
    guard.unlock();
    wdmsim::ReportViolation("WORKER_INVALID", IoWorkItem, "IoFreeWorkItem(%p): %s", static_cast<void*>(IoWorkItem),
                            queued ? "the work item is still queued" : "not an allocated work item (freed twice?)");
    return;
  }
  state().allocated.erase(it);
  guard.unlock();
  ExFreePoolWithTag(IoWorkItem, kPoolTag);
}
