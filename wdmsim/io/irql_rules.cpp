#include "io/irql_rules.h"

#include <wdmsim/verifier.h>

namespace wdmsim {
namespace io {

bool IrqlAtMost(KIRQL max, const char* service, const void* culprit) {
  KIRQL irql = KeGetCurrentIrql();
  if (irql <= max) return true;
  ReportViolation("IRQL_NOT_LESS_OR_EQUAL", culprit, "%s called at IRQL %d (at most %d allowed), object %p",
                  service, irql, max, culprit);
  return false;
}

}  // namespace io
}  // namespace wdmsim
