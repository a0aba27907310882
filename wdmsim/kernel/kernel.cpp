// wdmsim::Kernel: boots and shuts down one simulated machine.
#include <wdmsim/kernel.h>

#include <atomic>
#include <string>

#include <wdmsim/debugout.h>
#include <wdmsim/verifier.h>

#include "kernel/clock.h"
#include "kernel/dispatcher.h"
#include "kernel/dpcs.h"
#include "kernel/handles.h"
#include "kernel/irql.h"
#include "kernel/lifecycle.h"
#include "kernel/objects.h"
#include "kernel/scheduler.h"
#include "kernel/spinlocks.h"
#include "kernel/systemthreads.h"
#include "kernel/threads.h"
#include "kernel/timers.h"
#include "kernel/workitems.h"

namespace wdmsim {
namespace {

std::atomic<Kernel*> gCurrent{nullptr};
std::atomic<Platform> gPlatform{Platform::WindowsVista};

// Before the machine stops: what the run left queued, armed or running.
void ReportLeftovers() {
  kernel::sched::Guard guard = kernel::sched::Lock();
  kernel::systemthreads::ReportStillRunning(guard);
  kernel::timers::ReportArmedAndReset(guard);
  kernel::dpcs::ReportQueuedAndReset(guard);
  kernel::workitems::ReportQueued(guard);
}

}  // namespace

Kernel::Kernel(const KernelOptions& options) {
  Kernel* expected = nullptr;
  if (!gCurrent.compare_exchange_strong(expected, this)) {
    ReportViolation("WDMSIM_KERNEL_ALREADY_RUNNING", expected,
                    "a second wdmsim::Kernel was constructed while one is running; it does nothing");
    return;
  }
  mOwnsMachine = true;
  gPlatform = options.platform;

  kernel::clock::Reset(options.clock);
  kernel::sched::Reset();
  kernel::dispatcher::Reset();
  kernel::objects::Reset();
  kernel::spinlocks::Reset();
  kernel::BeginRun();
  TakeDebugOutput();
  TakeRtlAssertCount();
  kernel::systemthreads::RegisterHandleCloser();

  kernel::RegisterCurrentThread("test thread", kernel::ThreadRole::Test);
  kernel::dpcs::Start();
  kernel::workitems::Start(options.criticalWorkerThreads, options.delayedWorkerThreads);
}

Kernel::~Kernel() {
  if (!mOwnsMachine) return;
  kernel::ThreadRecord* self = kernel::CurrentThread();
  if (self->role != kernel::ThreadRole::Test) {
    ReportViolation("WDMSIM_KERNEL_DESTROYED_ELSEWHERE", this,
                    "the Kernel is destroyed on %s, not on the thread that constructed it", self->name.c_str());
  }
  // Let what is in flight settle, so that what is reported below was really left behind.
  RunUntilIdle();
  ReportLeftovers();
  {
    kernel::sched::Guard guard = kernel::sched::Lock();
    kernel::sched::BeginShutdown(guard, self);
    kernel::sched::WaitForOtherThreads(guard, self);
  }
  kernel::JoinAllThreads();
  kernel::workitems::ReportLeakedAndReset();
  kernel::ReportLeakedThreadObjects();

  usb::EndOfRun();
  pnp::EndOfRun();
  power::EndOfRun();
  io::EndOfRun();
  pool::EndOfRun();
  registry::EndOfRun();
  handles::EndOfRun();

  kernel::EndCurrentThread();
  kernel::EndRun();
  kernel::dispatcher::Reset();
  kernel::objects::Reset();
  gCurrent = nullptr;
}

void Kernel::RunUntilIdle() {
  kernel::ThreadRecord* self = kernel::CurrentThread();
  kernel::RequireIrqlAtMost(APC_LEVEL, "Kernel::RunUntilIdle", nullptr);
  kernel::sched::Guard guard = kernel::sched::Lock();
  kernel::sched::BlockUntilIdle(guard, self, kernel::clock::InterruptTime());
}

void Kernel::Advance(uint32_t ms) {
  kernel::ThreadRecord* self = kernel::CurrentThread();
  kernel::RequireIrqlAtMost(APC_LEVEL, "Kernel::Advance", nullptr);
  int64_t until = kernel::clock::InterruptTime() + static_cast<int64_t>(ms) * kernel::kUnitsPerMs;
  kernel::sched::Guard guard = kernel::sched::Lock();
  if (kernel::clock::Mode() == ClockMode::Real) {
    kernel::WaitTarget target;
    target.what = "Kernel::Advance";
    while (kernel::clock::InterruptTime() < until) {
      kernel::sched::Block(guard, self, kernel::BlockKind::Delay, until, target);
    }
  }
  kernel::sched::BlockUntilIdle(guard, self, until);
}

int64_t Kernel::SystemTime() const { return kernel::clock::SystemTime(); }

ClockMode Kernel::clockMode() const { return kernel::clock::Mode(); }

Platform Kernel::platform() const { return gPlatform; }

void Kernel::SetPlatform(Platform platform) { gPlatform = platform; }

Kernel* Kernel::Current() { return gCurrent; }

void RunOnKernelThread(const std::function<void()>& fn) {
  kernel::ThreadRecord* self = kernel::CurrentThread();
  if (self->role == kernel::ThreadRole::None) return;  // no machine: already reported
  _KTHREAD* thread = kernel::StartKernelThread("kernel thread (RunOnKernelThread)", kernel::ThreadRole::Helper, fn);
  PVOID objects[1] = {thread};
  // After a deadlock report this returns early; the thread is stopped with the machine.
  kernel::dispatcher::Wait(self, 1, objects, WaitAny, nullptr);
  kernel::objects::Dereference(thread);
}

}  // namespace wdmsim
