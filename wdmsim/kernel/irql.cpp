#include "kernel/irql.h"

#include <wdmsim/verifier.h>

#include "kernel/spinlocks.h"
#include "kernel/threads.h"

namespace wdmsim {
namespace kernel {

bool RequireIrqlAtMost(KIRQL max, const char* service, const void* culprit) {
  ThreadRecord* self = CurrentThread();
  if (self->irql <= max) return true;
  ReportViolation("IRQL_NOT_LESS_OR_EQUAL", culprit, "%s called at IRQL %u on %s; it requires IRQL <= %u", service,
                  self->irql, self->name.c_str(), max);
  return false;
}

bool RequireIrqlAtLeast(KIRQL min, const char* service, const void* culprit) {
  ThreadRecord* self = CurrentThread();
  if (self->irql >= min) return true;
  ReportViolation("IRQL_NOT_GREATER_OR_EQUAL", culprit, "%s called at IRQL %u on %s; it requires IRQL >= %u",
                  service, self->irql, self->name.c_str(), min);
  return false;
}

bool RequireIrqlExactly(KIRQL level, const char* service, const void* culprit) {
  ThreadRecord* self = CurrentThread();
  if (self->irql > level) return RequireIrqlAtMost(level, service, culprit);
  return RequireIrqlAtLeast(level, service, culprit);
}

}  // namespace kernel
}  // namespace wdmsim

using namespace wdmsim::kernel;

extern "C" KIRQL KeGetCurrentIrql(void) { return CurrentThread()->irql; }

extern "C" void KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql) {
  ThreadRecord* self = CurrentThread();
  *OldIrql = self->irql;
  if (NewIrql < self->irql || NewIrql > HIGH_LEVEL) {
    wdmsim::ReportViolation("IRQL_NOT_GREATER_OR_EQUAL", nullptr, "KeRaiseIrql to %u from IRQL %u on %s", NewIrql,
                            self->irql, self->name.c_str());
    return;
  }
  self->irql = NewIrql;
}

extern "C" void KeLowerIrql(KIRQL NewIrql) {
  ThreadRecord* self = CurrentThread();
  if (NewIrql > self->irql) {
    wdmsim::ReportViolation("IRQL_NOT_LESS_OR_EQUAL", nullptr, "KeLowerIrql to %u from IRQL %u on %s", NewIrql,
                            self->irql, self->name.c_str());
    return;
  }
  spinlocks::CheckLowering(self, NewIrql, "KeLowerIrql");
  self->irql = NewIrql;
}

extern "C" KIRQL KeRaiseIrqlToDpcLevel(void) {
  ThreadRecord* self = CurrentThread();
  KIRQL old = self->irql;
  if (old > DISPATCH_LEVEL) {
    wdmsim::ReportViolation("IRQL_NOT_GREATER_OR_EQUAL", nullptr, "KeRaiseIrqlToDpcLevel from IRQL %u on %s", old,
                            self->name.c_str());
    return old;
  }
  self->irql = DISPATCH_LEVEL;
  return old;
}
