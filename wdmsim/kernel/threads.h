// Kernel threads: every execution context of the simulated machine is a real host thread
// registered here, with its own IRQL, thread object and blocking state.
#pragma once
#include <wdm.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace wdmsim {
namespace kernel {
struct ThreadRecord;
}
}  // namespace wdmsim

// The thread object (KTHREAD/ETHREAD are opaque to drivers). It is a dispatcher object,
// signalled when the thread has ended, and reference counted (objects.h): it may outlive
// its thread for as long as someone holds a reference.
struct _KTHREAD {
  DISPATCHER_HEADER Header;
  ULONG ThreadId;
  volatile KPRIORITY Priority;
  bool SystemThread;                      // created by PsCreateSystemThread
  LONG OpenHandles;                       // handles from PsCreateSystemThread not yet closed
  wdmsim::kernel::ThreadRecord* Record;   // NULL once the thread has ended (dispatcher lock)
};
struct _ETHREAD {
  struct _KTHREAD Tcb;
};

namespace wdmsim {
namespace kernel {

enum class ThreadRole {
  Test,     // the thread that constructed the Kernel: plays PnP manager and function drivers
  Dpc,      // runs queued DPCs at DISPATCH_LEVEL
  Worker,   // system worker thread behind IoQueueWorkItem
  System,   // PsCreateSystemThread
  Helper,   // RunOnKernelThread, or a wdmsim subsystem's own context (StartServiceThread)
  Foreign,  // a host thread that called a service without being created by wdmsim
  None,     // no Kernel is running: services answer, but nothing can block
};

enum class BlockKind {
  Object,     // waits for a dispatcher object or an internal condition: can be part of a deadlock
  Delay,      // KeDelayExecutionThread: only time ends it
  Idle,       // a service thread (DPC thread, worker) waiting for something to do
  IdleWatch,  // RunUntilIdle/Advance: runs again once nothing else can
};

enum class WakeReason { Signalled, TimedOut, DeadlockBroken };

// What a blocked thread waits for; the deadlock report names it.
struct WaitTarget {
  const char* what = nullptr;      // an internal condition, e.g. "KeFlushQueuedDpcs"
  PVOID const* objects = nullptr;  // or dispatcher objects
  ULONG count = 0;
  WAIT_TYPE waitType = WaitAny;
};

struct ThreadRecord {
  std::string name;
  ThreadRole role = ThreadRole::None;
  uint64_t generation = 0;          // the Kernel this thread belongs to
  struct _KTHREAD* object = nullptr;

  // Touched only by the thread itself.
  KIRQL irql = PASSIVE_LEVEL;
  int criticalRegions = 0;
  std::vector<PKSPIN_LOCK> heldSpinLocks;

  // Guarded by the dispatcher lock (scheduler.h).
  bool blocked = false;
  BlockKind blockKind = BlockKind::Object;
  int64_t deadline = 0;             // interrupt time, or kNoDeadline
  uint64_t blockSequence = 0;       // orders equal deadlines
  WaitTarget target;
  WakeReason wakeReason = WakeReason::Signalled;
  std::vector<PRKMUTEX> ownedMutexes;
  std::condition_variable wakeup;

  std::atomic<bool> terminateRequested{false};
};

// Thrown inside a kernel thread to end it (PsTerminateSystemThread, or the machine shutting
// down while the thread is still blocked); caught where the thread started.
struct ThreadTermination {
  NTSTATUS status;
};

// The calling thread's record. A thread that wdmsim did not create is reported and then
// adopted, so that the run can go on; with no Kernel running it gets a stand-in record.
ThreadRecord* CurrentThread();
// NULL when the calling thread is not a registered kernel thread; reports nothing.
ThreadRecord* CurrentThreadIfRegistered();

// Registers a thread that is about to start (it counts as runnable from now on, so the
// scheduler never sees it missing in between) and starts it running body at PASSIVE_LEVEL.
// The Kernel owns the host thread and joins it. Returns the thread object with one
// reference for the caller, who must drop it (objects::Dereference).
_KTHREAD* StartKernelThread(std::string name, ThreadRole role, std::function<void()> body);
// The same with the dispatcher lock already held by the caller.
_KTHREAD* StartKernelThreadLocked(std::unique_lock<std::mutex>& dispatcherLock, std::string name, ThreadRole role,
                                  std::function<void()> body);
// Registers the calling thread itself (the Kernel's constructing thread).
ThreadRecord* RegisterCurrentThread(std::string name, ThreadRole role);
// The last act of a kernel thread: checks what it leaves behind, signals its thread object
// and unregisters it.
void EndCurrentThread();

// Kernel lifetime.
void BeginRun();                  // a new machine: fresh ids and generation
void JoinAllThreads();            // every host thread started by StartKernelThread
void EndRun();                    // forgets the machine; thread objects are freed
uint64_t CurrentGeneration();

// Thread objects that someone still references beyond their open handles: reported at
// the end of a run as leaked references.
void ReportLeakedThreadObjects();

// Human-readable description of a dispatcher object for reports.
std::string DescribeObject(const void* object);

}  // namespace kernel
}  // namespace wdmsim
