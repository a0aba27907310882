// One run of usbmi-sim: the device is read, plugged into the simulated machine, the driver
// starts on it, the facts are gathered, the device is pulled out and the machine shut down
// (so that the verifier sees what the driver left behind).
#pragma once
#include <memory>
#include <string>

#include <wdmsim/usbdevice.h>

#include "sim_options.h"
#include "sim_report.h"

namespace usbmisim {

struct SimDevice {
  std::shared_ptr<wdmsim::UsbFirmware> firmware;
  std::string source;  // for the report: "built-in demo device" or the file name
};

struct LoadResult {
  SimDevice device;
  std::string error;  // one line: file, place, what is wrong; empty on success
};

// The built-in demo device when options.deviceFile is empty, else the file.
LoadResult LoadSimDevice(const SimOptions& options);

SimReport RunSimulation(const SimOptions& options, const SimDevice& device);

}  // namespace usbmisim
