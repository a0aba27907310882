// Error log entries that were allocated but neither written nor freed.
#pragma once
#include <vector>

namespace wdmsim {
namespace io {

struct UnwrittenErrorLogEntry {
  const void* packet;
  const void* ioObject;
};

// End of run: every unwritten entry (freed) and the written log (cleared).
std::vector<UnwrittenErrorLogEntry> ForgetErrorLog();

}  // namespace io
}  // namespace wdmsim
