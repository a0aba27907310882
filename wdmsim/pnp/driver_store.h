// The installed driver packages: binding a device's IDs to a model, and writing a model's
// registry entries when a device is installed.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include <wdmsim/pnpmanager.h>

#include "pnp/inf_package.h"

namespace wdmsim {
namespace pnp {

struct BoundModel {
  DriverMatch match;
  std::vector<RegistryEntry> hardwareKeyAddReg;
  std::vector<RegistryEntry> driverKeyAddReg;
};

std::optional<BoundModel> BindModel(const std::vector<std::u16string>& hardwareIds,
                                    const std::vector<std::u16string>& compatibleIds);

// Writes entries with HKR = hkrPath (an absolute registry path).
void ApplyRegistryEntries(const std::vector<RegistryEntry>& entries, const std::u16string& hkrPath);

void ForgetDriverStore();

}  // namespace pnp
}  // namespace wdmsim
