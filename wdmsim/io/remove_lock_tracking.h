// Remove locks live in device extensions, so deleting a device object ends the locks in it.
#pragma once
#include <cstddef>
#include <string>

namespace wdmsim {
namespace io {

// Describes a tag still held on a remove lock that lies in [begin, begin + size); empty if none.
std::string HeldRemoveLockIn(const void* begin, size_t size);
void ForgetRemoveLocksIn(const void* begin, size_t size);
void ForgetAllRemoveLocks();

}  // namespace io
}  // namespace wdmsim
