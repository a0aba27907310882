// Driver objects that are part of wdmsim itself.
#pragma once
#include <wdm.h>

#include <string>

namespace wdmsim {
namespace io {

// Loads a driver built into wdmsim (the raw bus): no service key is created and the driver
// is not reported as left loaded at the end of a run. NULL if its entry point fails.
PDRIVER_OBJECT LoadBuiltInDriver(const std::u16string& name, PDRIVER_INITIALIZE entry);

}  // namespace io
}  // namespace wdmsim
