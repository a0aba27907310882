// IRQL preconditions of the I/O manager's services.
#pragma once
#include <wdm.h>

namespace wdmsim {
namespace io {

// True when the caller runs at or below max. Otherwise reports IRQL_NOT_LESS_OR_EQUAL naming
// the service and the object it was called for, and returns false.
bool IrqlAtMost(KIRQL max, const char* service, const void* culprit);

}  // namespace io
}  // namespace wdmsim
