#include "pnp/device_install_hook.h"

#include <mutex>

#include <wdmsim/pnp.h>

namespace wdmsim {
namespace pnp {
namespace {

std::mutex gHookLock;
DeviceInstallHook gHook;

}  // namespace

void RunDeviceInstallHook(const Node* node) {
  DeviceInstallHook hook;
  {
    std::lock_guard<std::mutex> guard(gHookLock);
    hook = gHook;
  }
  // Called without the lock: the hook may read the tree or the registry.
  if (hook) hook(node->info, DeviceHardwareKeyPath(node->info.pdo));
}

void ForgetDeviceInstallHook() {
  std::lock_guard<std::mutex> guard(gHookLock);
  gHook = nullptr;
}

}  // namespace pnp

void SetDeviceInstallHook(DeviceInstallHook hook) {
  std::lock_guard<std::mutex> guard(pnp::gHookLock);
  pnp::gHook = std::move(hook);
}

}  // namespace wdmsim
