#include "expect_violation.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <vector>

namespace wdmsim_test {

struct ExpectViolations::State {
  mutable std::mutex lock;
  std::vector<wdmsim::Violation> seen;
};

ExpectViolations::ExpectViolations() : mState(new State) {
  State* state = mState;
  wdmsim::SetViolationHandler([state](const wdmsim::Violation& v) {
    std::lock_guard<std::mutex> guard(state->lock);
    state->seen.push_back(v);
  });
}

ExpectViolations::~ExpectViolations() {
  wdmsim::SetViolationHandler([](const wdmsim::Violation& v) {
    ADD_FAILURE() << "wdmsim violation " << v.bugcheck << ": " << v.message;
  });
  delete mState;
}

int ExpectViolations::Count(const std::string& bugcheck) const {
  std::lock_guard<std::mutex> guard(mState->lock);
  int n = 0;
  for (const auto& v : mState->seen) n += v.bugcheck == bugcheck;
  return n;
}

int ExpectViolations::Total() const {
  std::lock_guard<std::mutex> guard(mState->lock);
  return static_cast<int>(mState->seen.size());
}

}  // namespace wdmsim_test
