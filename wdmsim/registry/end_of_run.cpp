#include "kernel/lifecycle.h"

#include "registry/environment.h"
#include "registry/key_handles.h"
#include "registry/registry_tree.h"

namespace wdmsim {
namespace registry {

// Key handles still open are reported once, by the handle table (HANDLE_LEAK); here they
// are only forgotten, and the registry goes back to a freshly booted machine's.
void EndOfRun() {
  ForgetOpenKeys();
  ResetTree();
  ResetEnvironment();
}

}  // namespace registry
}  // namespace wdmsim
