// End-of-run hooks: what each subsystem checks and forgets when a simulated machine
// (wdmsim::Kernel) shuts down. Kernel::~Kernel calls them in this order, after every
// kernel thread has stopped; each reports what was left behind as violations.
#pragma once

namespace wdmsim {
namespace usb { void EndOfRun(); }       // the USB bus model (before the device objects go)
namespace pnp { void EndOfRun(); }       // device nodes and recorded invalidations
namespace power { void EndOfRun(); }     // recorded power services calls
namespace io { void EndOfRun(); }        // IRPs, device and driver objects, work items, error log
namespace pool { void EndOfRun(); }      // pool and contiguous blocks still allocated (by tag)
namespace registry { void EndOfRun(); }  // open key handles; the tree is cleared
namespace handles { void EndOfRun(); }   // handles never closed
}  // namespace wdmsim
