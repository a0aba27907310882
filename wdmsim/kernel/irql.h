// IRQL rules of the kernel services. A breach is reported with the bugcheck Windows would
// raise (IRQL_NOT_LESS_OR_EQUAL above the limit, IRQL_NOT_GREATER_OR_EQUAL below it), naming
// the service and the object it was called for; the service then carries on.
#pragma once
#include <wdm.h>

namespace wdmsim {
namespace kernel {

bool RequireIrqlAtMost(KIRQL max, const char* service, const void* culprit);
bool RequireIrqlAtLeast(KIRQL min, const char* service, const void* culprit);
bool RequireIrqlExactly(KIRQL level, const char* service, const void* culprit);

}  // namespace kernel
}  // namespace wdmsim
