// Driver images registered by the host, and the driver objects loaded from them: one per
// service, loaded on first use and unloaded once it has no device object left.
#pragma once
#include <string>

#include <wdm.h>

namespace wdmsim {
namespace pnp {

// The service's driver object, loading it if needed; NULL with *status when no image is
// registered (STATUS_OBJECT_NAME_NOT_FOUND) or DriverEntry failed (its status).
PDRIVER_OBJECT LoadServiceDriver(const std::u16string& service, NTSTATUS* status);
// Unloads every loaded driver that owns no device object any more.
void UnloadUnusedDrivers();
// End of run: registrations and loaded drivers are forgotten (the I/O manager reports
// the drivers that were never unloaded).
void ForgetDriverImages();

}  // namespace pnp
}  // namespace wdmsim
