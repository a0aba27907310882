// Injected allocation failures of the I/O manager (host API in <wdmsim/io.h>).
#pragma once

namespace wdmsim {
namespace io {

// Each returns true, and uses up one injected failure, when the allocation must fail.
bool ConsumeIrpAllocationFault();
bool ConsumeDeviceCreationFault();

}  // namespace io
}  // namespace wdmsim
