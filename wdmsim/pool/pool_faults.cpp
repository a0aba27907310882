#include "pool/pool_faults.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include <wdmsim/pool.h>

namespace wdmsim {
namespace pool {
namespace {

struct Faults {
  std::mutex lock;
  int nthCountdown = 0;  // 0: off; otherwise allocations left until the one that fails
  std::vector<uint32_t> failingTags;
  bool failContiguous = false;
  int injectedFailures = 0;
};

Faults& faults() {
  static Faults* f = new Faults;  // operator delete may reach the pool after static destruction
  return *f;
}

}  // namespace

bool ConsumePoolFault(uint32_t tag) {
  Faults& f = faults();
  std::lock_guard<std::mutex> guard(f.lock);
  bool fail = false;
  if (f.nthCountdown > 0 && --f.nthCountdown == 0) fail = true;
  if (std::find(f.failingTags.begin(), f.failingTags.end(), tag) != f.failingTags.end()) fail = true;
  if (fail) ++f.injectedFailures;
  return fail;
}

bool ConsumeContiguousFault() {
  Faults& f = faults();
  std::lock_guard<std::mutex> guard(f.lock);
  if (f.failContiguous) ++f.injectedFailures;
  return f.failContiguous;
}

}  // namespace pool

void FailNthPoolAllocation(int n) {
  pool::Faults& f = pool::faults();
  std::lock_guard<std::mutex> guard(f.lock);
  f.nthCountdown = n > 0 ? n : 0;
}

void FailPoolAllocationsWithTag(uint32_t tag) {
  pool::Faults& f = pool::faults();
  std::lock_guard<std::mutex> guard(f.lock);
  if (std::find(f.failingTags.begin(), f.failingTags.end(), tag) == f.failingTags.end()) {
    f.failingTags.push_back(tag);
  }
}

void FailContiguousAllocations(bool fail) {
  pool::Faults& f = pool::faults();
  std::lock_guard<std::mutex> guard(f.lock);
  f.failContiguous = fail;
}

void ClearPoolFaults() {
  pool::Faults& f = pool::faults();
  std::lock_guard<std::mutex> guard(f.lock);
  f.nthCountdown = 0;
  f.failingTags.clear();
  f.failContiguous = false;
  f.injectedFailures = 0;
}

int InjectedPoolFailures() {
  pool::Faults& f = pool::faults();
  std::lock_guard<std::mutex> guard(f.lock);
  return f.injectedFailures;
}

}  // namespace wdmsim
