// wdmsim host API: the simulated machine that tests, tools and benchmarks run the driver on.
#pragma once
#include <cstdint>
#include <functional>

namespace wdmsim {

enum class ClockMode {
  Virtual,  // time moves only when every kernel thread is blocked: jumps to the next deadline
  Real,     // wall clock
};

// Platform generation answered by IoIsWdmVersionAvailable.
enum class Platform {
  WindowsXp,     // WDM 1.20
  WindowsVista,  // WDM 6.0 and later
};

struct KernelOptions {
  ClockMode clock = ClockMode::Virtual;
  Platform platform = Platform::WindowsVista;
  int criticalWorkerThreads = 2;
  int delayedWorkerThreads = 1;
};

// One simulated machine. Constructing it boots the kernel: the DPC thread and the
// system worker threads start, and the constructing thread is registered as a
// kernel thread at PASSIVE_LEVEL (it plays the PnP manager and the function drivers).
// Destroying it stops every kernel thread, runs the end-of-run checks (pool blocks,
// IRPs, timers, work items, threads left behind are violations) and resets all state,
// so the next Kernel starts clean. Exactly one Kernel may exist at a time.
//
// Virtual clock: when every kernel thread is blocked and nothing is queued, time jumps to
// the earliest timer or timed wait (equal deadlines in the order they were set). When no
// deadline is left and some thread waits for an object nobody can signal, a DEADLOCK
// violation names every wait, and the test thread's wait ends with STATUS_TIMEOUT so the
// run can finish.
class Kernel {
 public:
  explicit Kernel(const KernelOptions& options = KernelOptions());
  ~Kernel();
  Kernel(const Kernel&) = delete;
  Kernel& operator=(const Kernel&) = delete;

  // Run until no kernel thread can make progress and no DPC or work item is queued.
  // Virtual time does not move.
  void RunUntilIdle();
  // Move virtual time forward by ms, firing due timers in deadline order and running
  // until idle after each. In real mode: sleep ms, then RunUntilIdle.
  void Advance(uint32_t ms);

  // System time in 100 ns units since 1601 (what KeQuerySystemTime returns).
  int64_t SystemTime() const;
  ClockMode clockMode() const;
  Platform platform() const;
  void SetPlatform(Platform platform);

  static Kernel* Current();  // NULL when no machine is running

 private:
  bool mOwnsMachine = false;  // false for a second Kernel constructed while one runs
};

// Runs fn on a new registered kernel thread at PASSIVE_LEVEL and waits for it to return
// (the caller counts as blocked meanwhile, so virtual time can move).
void RunOnKernelThread(const std::function<void()>& fn);

}  // namespace wdmsim
