// UsbTestBus: the PnP manager's part for a USB bus in tests that do without it. It starts
// hub stacks, asks hubs for their bus relations after a change and removes the PDOs they
// left out, and tears everything down in the PnP order: devices before their hubs.
#include <algorithm>

#include <string>

#include <wdmsim/io.h>
#include <wdmsim/pnp.h>
#include <wdmsim/usbbus.h>

namespace wdmsim {
namespace {

std::vector<PDEVICE_OBJECT> QueryBusRelations(PDEVICE_OBJECT fdo) {
  IO_STATUS_BLOCK result = SendPnpIrp(fdo, IRP_MN_QUERY_DEVICE_RELATIONS, [](IO_STACK_LOCATION& stack) {
    stack.Parameters.QueryDeviceRelations.Type = BusRelations;
  });
  std::vector<PDEVICE_OBJECT> pdos;
  auto relations = reinterpret_cast<PDEVICE_RELATIONS>(result.Information);
  if (!NT_SUCCESS(result.Status) || relations == nullptr) return pdos;
  for (ULONG i = 0; i < relations->Count; ++i) {
    pdos.push_back(relations->Objects[i]);
    ObDereferenceObject(relations->Objects[i]);  // the PnP manager's reference, not needed here
  }
  ExFreePool(relations);
  return pdos;
}

std::u16string QueryString(PDEVICE_OBJECT pdo, UCHAR minor, int type) {
  IO_STATUS_BLOCK result = SendPnpIrp(pdo, minor, [minor, type](IO_STACK_LOCATION& stack) {
    if (minor == IRP_MN_QUERY_ID) {
      stack.Parameters.QueryId.IdType = static_cast<BUS_QUERY_ID_TYPE>(type);
    } else {
      stack.Parameters.QueryDeviceText.DeviceTextType = static_cast<DEVICE_TEXT_TYPE>(type);
    }
  });
  if (!NT_SUCCESS(result.Status) || result.Information == 0) return std::u16string();
  auto text = reinterpret_cast<const char16_t*>(result.Information);
  std::u16string value(text);
  ExFreePool(reinterpret_cast<PVOID>(result.Information));
  return value;
}

bool HasUniqueInstance(PDEVICE_OBJECT pdo) {
  DEVICE_CAPABILITIES caps = {};
  caps.Size = sizeof(caps);
  caps.Version = 1;
  IO_STATUS_BLOCK result = SendPnpIrp(pdo, IRP_MN_QUERY_CAPABILITIES, [&caps](IO_STACK_LOCATION& stack) {
    stack.Parameters.DeviceCapabilities.Capabilities = &caps;
  });
  return NT_SUCCESS(result.Status) && caps.UniqueID;
}

// What the PnP manager records of a new device from its queries: the device node (whose
// hardware key holds the function driver's settings) and the texts a driver reads as
// device properties. An instance that is only unique below its hub gets the hub's number
// in front, as the PnP manager puts the parent's prefix there.
void RegisterNode(PDEVICE_OBJECT pdo, int hub) {
  std::u16string instance = QueryString(pdo, IRP_MN_QUERY_ID, BusQueryInstanceID);
  if (!HasUniqueInstance(pdo)) {
    const std::string prefix = std::to_string(hub) + "&";
    instance = std::u16string(prefix.begin(), prefix.end()) + instance;
  }
  RegisterDeviceNode(pdo, QueryString(pdo, IRP_MN_QUERY_ID, BusQueryDeviceID) + u"\\" + instance);
  const std::u16string description = QueryString(pdo, IRP_MN_QUERY_DEVICE_TEXT, DeviceTextDescription);
  const std::u16string location = QueryString(pdo, IRP_MN_QUERY_DEVICE_TEXT, DeviceTextLocationInformation);
  if (!description.empty()) SetDeviceStringProperty(pdo, DevicePropertyDeviceDescription, description);
  if (!location.empty()) SetDeviceStringProperty(pdo, DevicePropertyLocationInformation, location);
}

}  // namespace

UsbTestBus::UsbTestBus(int ports) {
  mHubDriver = LoadDriver(kUsbHubService, UsbHubDriverEntry);
  mRootHub = CreateUsbRootHub(ports);
  mHubs.push_back(mRootHub);
  StartHub(mRootHub);
}

UsbTestBus::~UsbTestBus() {
  // Devices leave before the hub they hang off, as the PnP manager removes them.
  for (auto hub = mHubs.rbegin(); hub != mHubs.rend(); ++hub) {
    for (int port = 1; port <= 255; ++port) {
      if (GetUsbPortState(*hub, port).occupied) UnplugUsbDevice(*hub, port);
    }
    Enumerate();
  }
  if (PDEVICE_OBJECT fdo = UsbHubFdo(mRootHub)) SendPnpIrp(fdo, IRP_MN_REMOVE_DEVICE);
  DestroyUsbRootHub(mRootHub);
  if (mHubDriver != nullptr) UnloadDriver(mHubDriver);
}

void UsbTestBus::StartHub(int hub) {
  PDEVICE_OBJECT pdo = UsbHubPdo(hub);
  if (pdo == nullptr || !NT_SUCCESS(mHubDriver->DriverExtension->AddDevice(mHubDriver, pdo))) return;
  SendPnpIrp(UsbHubFdo(hub), IRP_MN_START_DEVICE);
  Enumerate();
}

PDEVICE_OBJECT UsbTestBus::Attach(std::shared_ptr<UsbFirmware> firmware, int port, int hub) {
  if (hub == 0) hub = mRootHub;
  const int plugged = AttachUsbDevice(hub, std::move(firmware), port);
  if (plugged == 0) return nullptr;
  Enumerate();
  return GetUsbPortState(hub, plugged).pdo;
}

int UsbTestBus::AttachHub(int parentHub, int port, int ports, bool busPowered) {
  const int hub = AttachUsbHub(parentHub, port, ports, busPowered);
  if (hub == 0) return 0;
  Enumerate();
  mHubs.push_back(hub);
  StartHub(hub);
  return hub;
}

std::vector<PDEVICE_OBJECT> UsbTestBus::Enumerate() {
  std::vector<PDEVICE_OBJECT> appeared;
  for (int hub : mHubs) {
    PDEVICE_OBJECT fdo = UsbHubFdo(hub);
    std::vector<PDEVICE_OBJECT>& known = mKnownPdos[hub];
    if (fdo == nullptr) {
      known.clear();  // its stack is gone, and its children with it
      continue;
    }
    std::vector<PDEVICE_OBJECT> reported = QueryBusRelations(fdo);
    for (PDEVICE_OBJECT pdo : known) {
      if (std::find(reported.begin(), reported.end(), pdo) == reported.end()) SendPnpIrp(pdo, IRP_MN_REMOVE_DEVICE);
    }
    for (PDEVICE_OBJECT pdo : reported) {
      if (std::find(known.begin(), known.end(), pdo) != known.end()) continue;
      RegisterNode(pdo, hub);
      appeared.push_back(pdo);
    }
    known = reported;
  }
  return appeared;
}

}  // namespace wdmsim
