#include "kernel/threads.h"

#include <algorithm>
#include <cstdio>
#include <list>
#include <memory>
#include <mutex>

#include <wdmsim/verifier.h>

#include "kernel/dispatcher.h"
#include "kernel/irql.h"
#include "kernel/objects.h"
#include "kernel/scheduler.h"

namespace wdmsim {
namespace kernel {
namespace {

std::atomic<uint64_t> gActiveGeneration{0};  // 0: no Kernel is running
uint64_t gLastGeneration = 0;

thread_local ThreadRecord* tCurrent = nullptr;
thread_local uint64_t tGeneration = 0;

// A host thread started by StartKernelThread; joined once finished, or at shutdown.
struct HostThread {
  std::thread thread;
  std::atomic<bool> finished{false};
};

struct Registry {
  std::mutex lock;  // a leaf: host threads and the list of thread objects
  std::list<std::unique_ptr<HostThread>> hostThreads;
  std::vector<_KTHREAD*> threadObjects;  // every thread object of this run not yet deleted
  ULONG nextThreadId = 0x100;
};

Registry& registry() {
  static Registry* r = new Registry;
  return *r;
}

KPRIORITY DefaultPriority(ThreadRole role) {
  switch (role) {
    case ThreadRole::Dpc: return 31;     // nothing preempts a DPC
    case ThreadRole::Worker: return 13;  // the critical work queue's priority
    default: return 8;                   // a system thread's base priority
  }
}

void DeleteThreadObject(void* object) {
  _KTHREAD* thread = static_cast<_KTHREAD*>(object);
  Registry& r = registry();
  {
    std::lock_guard<std::mutex> guard(r.lock);
    auto it = std::find(r.threadObjects.begin(), r.threadObjects.end(), thread);
    if (it != r.threadObjects.end()) r.threadObjects.erase(it);
  }
  delete thread;
}

// Creates the record and thread object (one reference: the running thread's) and counts
// the thread as runnable.
ThreadRecord* Register(sched::Guard& guard, std::string name, ThreadRole role) {
  Registry& r = registry();
  auto* record = new ThreadRecord;
  auto* object = new _KTHREAD();
  {
    std::lock_guard<std::mutex> lock(r.lock);
    r.nextThreadId += 4;  // NT thread ids are multiples of 4
    object->ThreadId = r.nextThreadId;
    r.threadObjects.push_back(object);
  }
  dispatcher::InitializeHeader(&object->Header, dispatcher::kThread, sizeof(_KTHREAD), 0);
  object->Priority = DefaultPriority(role);
  object->SystemThread = role == ThreadRole::System;
  object->Record = record;
  char id[32];
  snprintf(id, sizeof id, " [thread 0x%x]", object->ThreadId);
  record->name = name + id;
  record->role = role;
  record->generation = gActiveGeneration;
  record->object = object;
  objects::Track(object, 1, &DeleteThreadObject);
  sched::AddThread(guard, record);
  return record;
}

void Attach(ThreadRecord* record) {
  tCurrent = record;
  tGeneration = record->generation;
}

// Host threads that called a service on their own are unregistered when they end.
struct ForeignThreadExit {
  bool armed = false;
  ~ForeignThreadExit() {
    if (!armed || tCurrent == nullptr) return;
    if (tGeneration == gActiveGeneration) {
      EndCurrentThread();
    } else {
      delete tCurrent;  // its Kernel is gone and forgot it
      tCurrent = nullptr;
    }
  }
};
thread_local ForeignThreadExit tForeignExit;

ThreadRecord* StandInRecord() {
  thread_local ThreadRecord standIn;  // role None: no machine, nothing can block
  return &standIn;
}

ThreadRecord* AdoptForeignThread() {
  if (gActiveGeneration == 0) {
    ReportViolation("WDMSIM_NO_KERNEL", nullptr,
                    "a kernel service was called while no wdmsim::Kernel is running");
    return StandInRecord();
  }
  ReportViolation("WDMSIM_UNREGISTERED_THREAD", nullptr,
                  "a kernel service was called from a host thread that wdmsim did not create; kernel "
                  "code must run on the test thread, RunOnKernelThread, PsCreateSystemThread, a work item or a DPC");
  ThreadRecord* record;
  {
    sched::Guard guard = sched::Lock();
    record = Register(guard, "foreign host thread", ThreadRole::Foreign);
  }
  Attach(record);
  tForeignExit.armed = true;
  return record;
}

const char* ExitBugcheckForIrql(ThreadRole role) {
  return role == ThreadRole::Worker ? "WORKER_THREAD_RETURNED_AT_BAD_IRQL" : "IRQL_NOT_LESS_OR_EQUAL";
}

}  // namespace

ThreadRecord* CurrentThreadIfRegistered() {
  if (tCurrent != nullptr && tGeneration == gActiveGeneration) return tCurrent;
  return nullptr;
}

ThreadRecord* CurrentThread() {
  if (tCurrent != nullptr && tGeneration == gActiveGeneration) return tCurrent;
  return AdoptForeignThread();
}

namespace {

_KTHREAD* StartRegisteredThread(ThreadRecord* record, std::function<void()> body) {
  _KTHREAD* object = record->object;
  objects::Reference(object);  // the caller's, taken before the thread can end
  Registry& r = registry();
  auto host = std::make_unique<HostThread>();
  HostThread* self = host.get();
  {
    std::lock_guard<std::mutex> guard(r.lock);
    // Threads that already ended are joined here, so a long run does not pile them up.
    for (auto it = r.hostThreads.begin(); it != r.hostThreads.end();) {
      if ((*it)->finished) {
        (*it)->thread.join();
        it = r.hostThreads.erase(it);
      } else {
        ++it;
      }
    }
    host->thread = std::thread([record, self, body = std::move(body)]() mutable {
      Attach(record);
      try {
        body();
      } catch (const ThreadTermination&) {
        // PsTerminateSystemThread, or the machine shutting down under a blocked thread.
      }
      body = nullptr;  // what the routine captured is released while still a kernel thread
      EndCurrentThread();
      self->finished = true;
    });
    r.hostThreads.push_back(std::move(host));
  }
  return object;
}

}  // namespace

_KTHREAD* StartKernelThread(std::string name, ThreadRole role, std::function<void()> body) {
  ThreadRecord* record;
  {
    sched::Guard guard = sched::Lock();
    record = Register(guard, std::move(name), role);
  }
  return StartRegisteredThread(record, std::move(body));
}

_KTHREAD* StartKernelThreadLocked(sched::Guard& guard, std::string name, ThreadRole role,
                                  std::function<void()> body) {
  return StartRegisteredThread(Register(guard, std::move(name), role), std::move(body));
}

ThreadRecord* RegisterCurrentThread(std::string name, ThreadRole role) {
  ThreadRecord* record;
  {
    sched::Guard guard = sched::Lock();
    record = Register(guard, std::move(name), role);
  }
  Attach(record);
  return record;
}

void EndCurrentThread() {
  ThreadRecord* self = CurrentThreadIfRegistered();
  if (self == nullptr) return;
  // A thread the machine's shutdown ended was reported as left running; where it stopped
  // says nothing more.
  const bool checkWhatIsLeft = !self->terminateRequested;
  if (checkWhatIsLeft && self->irql != PASSIVE_LEVEL) {
    ReportViolation(ExitBugcheckForIrql(self->role), self->object, "%s ended at IRQL %u", self->name.c_str(),
                    self->irql);
  }
  if (checkWhatIsLeft && self->criticalRegions != 0) {
    ReportViolation("KERNEL_APC_PENDING_DURING_EXIT", self->object,
                    "%s ended inside %d critical region(s) (KeEnterCriticalRegion without KeLeaveCriticalRegion)",
                    self->name.c_str(), self->criticalRegions);
  }
  _KTHREAD* object = self->object;
  std::vector<PRKMUTEX> owned;
  {
    sched::Guard guard = sched::Lock();
    if (checkWhatIsLeft) owned = self->ownedMutexes;
  }
  // Reported before the thread counts as ended, so that whoever waits for its end sees them.
  for (PRKMUTEX mutex : owned) {
    ReportViolation("THREAD_TERMINATE_HELD_MUTEX", mutex, "%s ended while owning mutex %p", self->name.c_str(),
                    static_cast<void*>(mutex));
  }
  {
    sched::Guard guard = sched::Lock();
    dispatcher::AbandonMutexes(guard, self);
    object->Record = nullptr;
    dispatcher::SetSignalState(&object->Header, 1);
    dispatcher::WaitTest(guard, object);
    sched::RemoveThread(guard, self);
  }
  tCurrent = nullptr;
  tGeneration = 0;
  delete self;
  objects::Dereference(object);  // the reference the running thread held
}

void BeginRun() {
  Registry& r = registry();
  {
    std::lock_guard<std::mutex> guard(r.lock);
    r.nextThreadId = 0x100;
  }
  gActiveGeneration = ++gLastGeneration;
}

void JoinAllThreads() {
  Registry& r = registry();
  std::list<std::unique_ptr<HostThread>> threads;
  {
    std::lock_guard<std::mutex> guard(r.lock);
    threads.swap(r.hostThreads);
  }
  for (auto& host : threads) host->thread.join();
}

void EndRun() {
  Registry& r = registry();
  std::vector<_KTHREAD*> left;
  {
    std::lock_guard<std::mutex> guard(r.lock);
    left.swap(r.threadObjects);
  }
  for (_KTHREAD* object : left) {
    objects::Forget(object);
    delete object;
  }
  gActiveGeneration = 0;
}

uint64_t CurrentGeneration() { return gActiveGeneration; }

void ReportLeakedThreadObjects() {
  Registry& r = registry();
  std::vector<_KTHREAD*> objectsLeft;
  {
    std::lock_guard<std::mutex> guard(r.lock);
    objectsLeft = r.threadObjects;
  }
  for (_KTHREAD* object : objectsLeft) {
    // The running thread's reference is gone once it ended; leaked handles are the handle
    // table's to report.
    LONG_PTR leaked = objects::ReferenceCount(object) - object->OpenHandles - (object->Record != nullptr ? 1 : 0);
    if (leaked > 0) {
      ReportViolation("OBJECT_REFERENCE_LEAK", object,
                      "thread object %p (thread 0x%x) still has %ld reference(s) never dereferenced "
                      "(ObReferenceObjectByHandle/ObReferenceObject without ObDereferenceObject)",
                      static_cast<void*>(object), object->ThreadId, static_cast<long>(leaked));
    }
  }
}

std::string DescribeObject(const void* object) {
  char text[256];
  const auto* header = static_cast<const DISPATCHER_HEADER*>(object);
  if (!dispatcher::IsDispatcherObject(object)) {
    snprintf(text, sizeof text, "object %p (not a dispatcher object)", object);
    return text;
  }
  switch (header->Type) {
    case dispatcher::kNotificationEvent:
      snprintf(text, sizeof text, "notification event %p", object);
      break;
    case dispatcher::kSynchronizationEvent:
      snprintf(text, sizeof text, "synchronization event %p", object);
      break;
    case dispatcher::kMutant: {
      const auto* mutex = static_cast<const KMUTEX*>(object);
      const _KTHREAD* owner = mutex->OwnerThread;
      std::string ownerName = owner == nullptr ? "nobody"
                              : owner->Record != nullptr ? owner->Record->name
                                                         : "an ended thread";
      snprintf(text, sizeof text, "mutex %p (owned by %s)", object, ownerName.c_str());
      break;
    }
    case dispatcher::kSemaphore:
      snprintf(text, sizeof text, "semaphore %p (count %d)", object, dispatcher::SignalState(header));
      break;
    case dispatcher::kThread: {
      const auto* thread = static_cast<const _KTHREAD*>(object);
      if (thread->Record != nullptr) {
        snprintf(text, sizeof text, "the end of %s", thread->Record->name.c_str());
      } else {
        snprintf(text, sizeof text, "thread object %p", object);
      }
      break;
    }
    case dispatcher::kNotificationTimer:
      snprintf(text, sizeof text, "notification timer %p", object);
      break;
    default:
      snprintf(text, sizeof text, "synchronization timer %p", object);
      break;
  }
  return text;
}

}  // namespace kernel
}  // namespace wdmsim

using namespace wdmsim::kernel;

extern "C" PKTHREAD KeGetCurrentThread(void) { return CurrentThread()->object; }

extern "C" PETHREAD PsGetCurrentThread(void) { return reinterpret_cast<PETHREAD>(CurrentThread()->object); }

extern "C" HANDLE PsGetCurrentThreadId(void) {
  ThreadRecord* self = CurrentThread();
  ULONG id = self->object != nullptr ? self->object->ThreadId : 0;
  return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(id));
}

extern "C" HANDLE PsGetCurrentProcessId(void) {
  CurrentThread();
  return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(4));  // every kernel thread runs in the System process
}

extern "C" KPRIORITY KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority) {
  CurrentThread();
  RequireIrqlExactly(PASSIVE_LEVEL, "KeSetPriorityThread", Thread);
  if (Priority < 0 || Priority > HIGH_PRIORITY) {
    wdmsim::ReportViolation("INVALID_PARAMETER", Thread, "KeSetPriorityThread(%p, %d): priority out of 0..31",
                            static_cast<void*>(Thread), Priority);
    return __atomic_load_n(&Thread->Priority, __ATOMIC_SEQ_CST);
  }
  return __atomic_exchange_n(&Thread->Priority, Priority, __ATOMIC_SEQ_CST);
}

extern "C" KPRIORITY KeQueryPriorityThread(PKTHREAD Thread) {
  CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, "KeQueryPriorityThread", Thread);
  return __atomic_load_n(&Thread->Priority, __ATOMIC_SEQ_CST);
}

extern "C" void KeEnterCriticalRegion(void) {
  ThreadRecord* self = CurrentThread();
  RequireIrqlAtMost(APC_LEVEL, "KeEnterCriticalRegion", nullptr);
  self->criticalRegions++;
}

extern "C" void KeLeaveCriticalRegion(void) {
  ThreadRecord* self = CurrentThread();
  RequireIrqlAtMost(APC_LEVEL, "KeLeaveCriticalRegion", nullptr);
  if (self->criticalRegions == 0) {
    wdmsim::ReportViolation("APC_INDEX_MISMATCH", self->object,
                            "KeLeaveCriticalRegion on %s without a matching KeEnterCriticalRegion", self->name.c_str());
    return;
  }
  self->criticalRegions--;
}

extern "C" ULONG KeGetCurrentProcessorNumber(void) {
  CurrentThread();
  return 0;  // one simulated processor runs DPCs; threads do not migrate
}
