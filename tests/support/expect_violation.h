// Tests that provoke a contract breach on purpose declare which one they expect.
#pragma once
#include <string>

#include <wdmsim/verifier.h>

namespace wdmsim_test {

// While alive, violations are collected instead of failing the test; Count(bugcheck)
// tells how many of that kind were seen.
class ExpectViolations {
 public:
  ExpectViolations();
  ~ExpectViolations();
  int Count(const std::string& bugcheck) const;
  int Total() const;

 private:
  struct State;
  State* mState;
};

}  // namespace wdmsim_test
