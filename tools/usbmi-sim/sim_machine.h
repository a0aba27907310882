// A simulated Windows machine with the usbmi driver installed as a user would install it:
// its INF and image, the USB hub driver, the generic function driver for the children,
// and a USB root hub (with an external hub on its first port when asked). Devices plugged
// in arrive through the PnP manager, which binds usbmi to them through the INF.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <wdmsim/kernel.h>
#include <wdmsim/pnpmanager.h>
#include <wdmsim/usbdevice.h>

#include "sim_options.h"

namespace usbmisim {

// The driver's service name, which also prefixes its trace lines.
inline constexpr char16_t kUsbmiService[] = u"usbmi";

class SimMachine {
 public:
  // Boots the kernel on the platform asked for and brings the USB bus up. Every setting is
  // written into the hardware key of each device bound to usbmi before the driver sees it;
  // a trace mask replaces the INF's "TraceMask".
  explicit SimMachine(const SimOptions& options);
  // Pulls the bus out (the PnP manager removes everything on it); the kernel's end-of-run
  // checks then report whatever the drivers left behind.
  ~SimMachine();
  SimMachine(const SimMachine&) = delete;
  SimMachine& operator=(const SimMachine&) = delete;

  // Makes sure that usbmi is the driver for devices with this vendor and product: when the
  // shipped INF does not list them, a copy that also lists them is installed, as a device
  // maker adds their device to the INF. Returns whether the copy was needed.
  bool BindUsbmiTo(uint16_t vendorId, uint16_t productId);
  // Plugs the device into the hub chosen by the options and waits until the PnP manager has
  // nothing left to do. Returns false when no port was free.
  bool Plug(std::shared_ptr<wdmsim::UsbFirmware> firmware);
  // Pulls it out again and waits.
  void Unplug();

  int Hub() const { return mHub; }
  int Port() const { return mPort; }
  // The device's node; 0 before Plug.
  wdmsim::DeviceNodeId DeviceNode() const;

  // Runs on the PnP thread each time a device is bound to usbmi, after the settings were
  // written and before AddDevice: the moment to arm a fault that only the driver's own
  // requests should meet. Set it while the PnP manager is idle; an empty one removes it.
  using InstallAction = std::function<void(const wdmsim::DeviceNodeInfo& node)>;
  void SetUsbmiInstallAction(InstallAction action) { mInstallAction = std::move(action); }

  // What the driver printed since the last call (memory sink).
  std::string TakeTrace();

 private:
  std::unique_ptr<wdmsim::Kernel> mKernel;
  int mRootHub = 0;
  int mHub = 0;
  int mPort = 0;
  InstallAction mInstallAction;
};

// The driver's INF as shipped in win/, built into the tool.
const char* UsbmiInfText();
// The INF with one more model line for the device: the line goes at the top of the models
// section (that of the first [Manufacturer] entry); empty when the INF has no such section.
std::string InfListingDevice(const std::string& inf, const std::u16string& hardwareId);

}  // namespace usbmisim
