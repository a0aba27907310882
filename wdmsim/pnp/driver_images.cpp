// Driver images and the driver objects the PnP manager loaded from them.
#include "pnp/driver_images.h"

#include <map>
#include <mutex>

#include <wdmsim/io.h>
#include <wdmsim/pnpmanager.h>

#include "pnp/inf_file.h"

namespace wdmsim {
namespace pnp {
namespace {

struct Images {
  std::mutex lock;
  std::map<std::string, PDRIVER_INITIALIZE> entries;  // upper-case service name -> DriverEntry
  std::map<std::string, PDRIVER_OBJECT> loaded;
};

Images& images() {
  static Images* i = new Images;
  return *i;
}

// Service names compare case-insensitively, as the service database does.
std::string Key(const std::u16string& service) { return UpperAscii(Utf8FromUtf16(service)); }

}  // namespace

PDRIVER_OBJECT LoadServiceDriver(const std::u16string& service, NTSTATUS* status) {
  PDRIVER_INITIALIZE entry = nullptr;
  {
    std::lock_guard<std::mutex> guard(images().lock);
    auto loaded = images().loaded.find(Key(service));
    if (loaded != images().loaded.end()) return loaded->second;
    auto registered = images().entries.find(Key(service));
    if (registered != images().entries.end()) entry = registered->second;
  }
  if (entry == nullptr) {
    *status = STATUS_OBJECT_NAME_NOT_FOUND;
    return nullptr;
  }
  PDRIVER_OBJECT driver = LoadDriver(service, entry, status);
  if (driver != nullptr) {
    std::lock_guard<std::mutex> guard(images().lock);
    images().loaded[Key(service)] = driver;
  }
  return driver;
}

void UnloadUnusedDrivers() {
  std::vector<PDRIVER_OBJECT> unused;
  {
    std::lock_guard<std::mutex> guard(images().lock);
    for (auto it = images().loaded.begin(); it != images().loaded.end();) {
      // A device object keeps its driver loaded (it references the driver object).
      if (it->second->DeviceObject == nullptr) {
        unused.push_back(it->second);
        it = images().loaded.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (PDRIVER_OBJECT driver : unused) UnloadDriver(driver);
}

void ForgetDriverImages() {
  std::lock_guard<std::mutex> guard(images().lock);
  images().entries.clear();
  images().loaded.clear();
}

}  // namespace pnp

void RegisterDriverImage(const std::u16string& serviceName, PDRIVER_INITIALIZE entry) {
  std::lock_guard<std::mutex> guard(pnp::images().lock);
  pnp::images().entries[pnp::Key(serviceName)] = entry;
}

}  // namespace wdmsim
