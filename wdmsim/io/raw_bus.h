// The built-in raw bus driver behind CreateRawPdo (<wdmsim/io.h>).
#pragma once

namespace wdmsim {
namespace io {

// End of run: forgets every raw PDO and the bus driver object (the end of run frees them).
void ForgetRawBus();

}  // namespace io
}  // namespace wdmsim
