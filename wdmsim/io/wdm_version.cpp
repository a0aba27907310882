// IoIsWdmVersionAvailable: the WDM version of the simulated platform generation.
#include <wdm.h>

#include <wdmsim/kernel.h>

namespace {

struct WdmVersion {
  UCHAR major;
  UCHAR minor;  // hexadecimal-coded, as the DDK writes it: 1.20 is 0x20
};

WdmVersion PlatformVersion() {
  wdmsim::Kernel* kernel = wdmsim::Kernel::Current();
  wdmsim::Platform platform = kernel != nullptr ? kernel->platform() : wdmsim::KernelOptions().platform;
  switch (platform) {
    case wdmsim::Platform::WindowsXp: return {1, 0x20};
    case wdmsim::Platform::WindowsVista: return {6, 0x00};
  }
  return {6, 0x00};
}

}  // namespace

// Every version up to the platform's own is available.
extern "C" BOOLEAN IoIsWdmVersionAvailable(UCHAR MajorVersion, UCHAR MinorVersion) {
  WdmVersion platform = PlatformVersion();
  if (MajorVersion != platform.major) return MajorVersion < platform.major;
  return MinorVersion <= platform.minor;
}
