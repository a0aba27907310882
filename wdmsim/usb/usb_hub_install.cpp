// The hub driver as the PnP manager finds it: an in-box INF that binds usbhub to root hubs
// and to external hubs, and the path that hands a new root hub to the PnP manager.
#include <wdmsim/pnpmanager.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/verifier.h>

namespace wdmsim {

std::string UsbHubDriverInf() {
  return "; wdmsim USB hub driver: root hubs and external hubs.\n"
         "[Version]\n"
         "Signature   = \"$Windows NT$\"\n"
         "Class       = USB\n"
         "ClassGuid   = {36FC9E60-C465-11CF-8056-444553540000}\n"
         "Provider    = %Provider%\n"
         "DriverVer   = 01/01/2024,1.0.0.0\n"
         "\n"
         "[Manufacturer]\n"
         "%Provider% = Hubs, NTamd64\n"
         "\n"
         "[Hubs.NTamd64]\n"
         "%RootHub.DeviceDesc% = Hub_Install, USB\\ROOT_HUB20\n"
         "%Hub.DeviceDesc%     = Hub_Install, USB\\CLASS_09\n"
         "\n"
         "[DestinationDirs]\n"
         "DefaultDestDir = 12\n"
         "[Hub_Install.NTamd64]\n"
         "[Hub_Install.NTamd64.Services]\n"
         "AddService = usbhub, 0x00000002, Hub_Service\n"
         "[Hub_Service]\n"
         "DisplayName   = %Hub.ServiceDesc%\n"
         "ServiceType   = 1 ; SERVICE_KERNEL_DRIVER\n"
         "StartType     = 3 ; SERVICE_DEMAND_START\n"
         "ErrorControl  = 1 ; SERVICE_ERROR_NORMAL\n"
         "ServiceBinary = %12%\\usbhub.sys\n"
         "\n"
         "[Strings]\n"
         "Provider           = \"wdmsim\"\n"
         "RootHub.DeviceDesc = \"USB Root Hub\"\n"
         "Hub.DeviceDesc     = \"Generic USB Hub\"\n"
         "Hub.ServiceDesc    = \"wdmsim USB hub driver\"\n";
}

void InstallUsbHubDriver() {
  if (FindDriver({u"USB\\ROOT_HUB20"}, {})) return;  // this run has it already
  RegisterDriverImage(kUsbHubService, UsbHubDriverEntry);
  InfError error;
  if (!InstallInf("usbhub.inf", UsbHubDriverInf(), &error)) {
    ReportViolation("WDMSIM_INBOX_INF_REJECTED", nullptr, "%s", error.Text().c_str());
  }
}

int CreateUsbBusForPnp(int ports) {
  InstallUsbHubDriver();
  const int hub = CreateUsbRootHub(ports);
  if (hub != 0) ReportRootDevice(UsbHubPdo(hub));
  return hub;
}

void DestroyUsbBusForPnp(int hub) {
  if (DeviceNodeId node = FindDeviceNodeByPdo(UsbHubPdo(hub))) RunPnpOperation(PnpOperation::SurpriseRemoval, node);
  DestroyUsbRootHub(hub);
}

}  // namespace wdmsim
