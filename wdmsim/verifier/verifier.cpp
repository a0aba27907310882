#include <wdmsim/verifier.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace wdmsim {
namespace {

struct VerifierState {
  std::mutex lock;
  std::vector<Violation> violations;
  std::function<void(const Violation&)> handler;
};

VerifierState& state() {
  static VerifierState* s = new VerifierState;
  return *s;
}

}  // namespace

void ReportViolation(const char* bugcheck, const void* culprit, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  Violation v{bugcheck, culprit, text};
  std::function<void(const Violation&)> handler;
  {
    std::lock_guard<std::mutex> guard(state().lock);
    state().violations.push_back(v);
    handler = state().handler;
  }
  if (handler) {
    handler(v);
  } else {
    fprintf(stderr, "wdmsim: VIOLATION %s (culprit %p): %s\n", bugcheck, culprit, text);
  }
}

std::vector<Violation> TakeViolations() {
  std::lock_guard<std::mutex> guard(state().lock);
  std::vector<Violation> out;
  out.swap(state().violations);
  return out;
}

void SetViolationHandler(std::function<void(const Violation&)> handler) {
  std::lock_guard<std::mutex> guard(state().lock);
  state().handler = std::move(handler);
}

}  // namespace wdmsim
