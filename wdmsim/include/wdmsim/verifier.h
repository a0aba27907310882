// wdmsim host API: the driver verifier. Where Windows would bugcheck, wdmsim reports a
// violation naming the bugcheck and the culprit object, and execution goes on.
#pragma once
#include <functional>
#include <string>
#include <vector>

namespace wdmsim {

struct Violation {
  std::string bugcheck;  // e.g. "MULTIPLE_IRP_COMPLETE_REQUESTS", "IRQL_NOT_LESS_OR_EQUAL"
  const void* culprit;   // the IRP, device object, pool block ... (may be NULL)
  std::string message;   // what happened, where and with which object
};

// Called by every wdmsim service that detects a breach of its contract.
void ReportViolation(const char* bugcheck, const void* culprit, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Violations since the last call (and clears the list).
std::vector<Violation> TakeViolations();

// Called synchronously for each violation in addition to recording it; tests install
// one that fails the running test. Pass an empty function to remove it.
void SetViolationHandler(std::function<void(const Violation&)> handler);

}  // namespace wdmsim
