// The in-box INF of the generic function driver and its installation: it offers itself
// for the compatible IDs every child of a composite device reports.
#include <cstdio>

#include <wdmsim/clients.h>
#include <wdmsim/pnpmanager.h>
#include <wdmsim/verifier.h>

namespace wdmsim {

std::string GenericFunctionDriverInf() {
  std::string text =
      "; wdmsim generic USB function driver: one FDO per child function, no I/O of its own.\n"
      "[Version]\n"
      "Signature   = \"$Windows NT$\"\n"
      "Class       = USBDevice\n"
      "ClassGuid   = {88BAE032-5A81-49F0-BC3D-A4FF138216D6}\n"
      "Provider    = %Provider%\n"
      "DriverVer   = 01/01/2024,1.0.0.0\n"
      "CatalogFile = wdmgeneric.cat\n"
      "\n"
      "[Manufacturer]\n"
      "%Provider% = Generic, NTamd64\n"
      "\n"
      "[Generic.NTamd64]\n";
  for (int cls = 0; cls <= 0xFF; ++cls) {
    if (cls == 0x09) continue;  // hubs belong to the hub driver
    char line[80];
    snprintf(line, sizeof line, "%%Generic.DeviceDesc%% = Generic_Install, USB\\CLASS_%02X\n", cls);
    text += line;
  }
  text +=
      "%Generic.DeviceDesc% = Generic_Install, USB\\MS_COMP_MTP\n"
      "%Generic.DeviceDesc% = Generic_Install, USB\\MS_COMP_RNDIS\n"
      "\n"
      "[SourceDisksNames]\n"
      "1 = %DiskName%\n"
      "[SourceDisksFiles]\n"
      "wdmgeneric.sys = 1\n"
      "[DestinationDirs]\n"
      "DefaultDestDir = 12\n"
      "\n"
      "[Generic_Install.NTamd64]\n"
      "CopyFiles = Generic_CopyFiles\n"
      "[Generic_CopyFiles]\n"
      "wdmgeneric.sys\n"
      "[Generic_Install.NTamd64.Services]\n"
      "AddService = wdmgeneric, 0x00000002, Generic_Service\n"
      "[Generic_Service]\n"
      "DisplayName   = %Generic.ServiceDesc%\n"
      "ServiceType   = 1 ; SERVICE_KERNEL_DRIVER\n"
      "StartType     = 3 ; SERVICE_DEMAND_START\n"
      "ErrorControl  = 1 ; SERVICE_ERROR_NORMAL\n"
      "ServiceBinary = %12%\\wdmgeneric.sys\n"
      "\n"
      "[Strings]\n"
      "Provider            = \"wdmsim\"\n"
      "DiskName            = \"wdmsim in-box drivers\"\n"
      "Generic.DeviceDesc  = \"Generic USB function\"\n"
      "Generic.ServiceDesc = \"wdmsim generic USB function driver\"\n";
  return text;
}

void InstallGenericFunctionDriver() {
  RegisterDriverImage(kGenericFunctionService, GenericFunctionDriverEntry);
  InfError error;
  if (!InstallInf("wdmgeneric.inf", GenericFunctionDriverInf(), &error)) {
    ReportViolation("WDMSIM_INBOX_INF_REJECTED", nullptr, "%s", error.Text().c_str());
  }
}

}  // namespace wdmsim
