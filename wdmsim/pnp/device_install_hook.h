// The host's say in a device's installation: values a user put into the device's hardware
// key before it arrived, written after the INF's and before the driver is added.
#pragma once
#include "pnp/device_tree.h"

namespace wdmsim {
namespace pnp {

// PnP thread, after the bound model's registry entries, before AddDevice.
void RunDeviceInstallHook(const Node* node);
void ForgetDeviceInstallHook();

}  // namespace pnp
}  // namespace wdmsim
