// MDLs allocated with IoAllocateMdl and not yet freed.
#pragma once
#include <wdm.h>

#include <vector>

namespace wdmsim {
namespace io {

// End of run: every live MDL, forgotten (the caller frees them).
std::vector<PMDL> ForgetAllMdls();

}  // namespace io
}  // namespace wdmsim
