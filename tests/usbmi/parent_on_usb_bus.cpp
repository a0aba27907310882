#include "parent_on_usb_bus.h"

#include <functional>

#include <wdmsim/debugout.h>
#include <wdmsim/io.h>
#include <wdmsim/pnp.h>
#include <wdmsim/registry.h>

#include "kndriverobject.h"
#include "kntrace.h"

namespace usbmitest {

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

namespace {

// The strings of a REG_MULTI_SZ-form block.
std::vector<std::u16string> MultiString(const WCHAR* block) {
  std::vector<std::u16string> strings;
  const char16_t* p = reinterpret_cast<const char16_t*>(block);
  while (*p != u'\0') {
    std::u16string one(p);
    p += one.size() + 1;
    strings.push_back(one);
  }
  return strings;
}

// Sends the query; on success takes the answer's string block (and frees it): a list, or
// one string when !list.
std::optional<std::vector<std::u16string>> QueryStrings(PDEVICE_OBJECT device, UCHAR minor, bool list,
                                                        const std::function<void(IO_STACK_LOCATION&)>& setup) {
  IO_STATUS_BLOCK answer = wdmsim::SendPnpIrp(device, minor, setup);
  if (!NT_SUCCESS(answer.Status) || answer.Information == 0) {
    return std::nullopt;
  }
  WCHAR* block = reinterpret_cast<WCHAR*>(answer.Information);
  std::vector<std::u16string> strings =
      list ? MultiString(block) : std::vector<std::u16string>{reinterpret_cast<const char16_t*>(block)};
  ExFreePool(block);
  return strings;
}

std::optional<std::u16string> First(const std::optional<std::vector<std::u16string>>& strings) {
  if (!strings) {
    return std::nullopt;
  }
  return strings->front();
}

}  // namespace

void ParentOnUsbBus::SetUp() {
  mKernel = std::make_unique<wdmsim::Kernel>();
  wdmsim::SetDebugSink(wdmsim::DebugSink::Memory);
  gKnTraceMask = 3;
  KnTraceSetPrefix("");
  mDriver = wdmsim::LoadDriver(u"usbmi", DriverEntry);
  ASSERT_NE(nullptr, mDriver);
  mBus = std::make_unique<wdmsim::UsbTestBus>();
  gKnTraceMask = 0x27;
  wdmsim::TakeDebugOutput();
}

void ParentOnUsbBus::TearDown() {
  gKnTraceMask = 3;
  RemoveParent();
  mBus.reset();
  EXPECT_TRUE(wdmsim::UnloadDriver(mDriver));
  mKernel.reset();
}

PDEVICE_OBJECT ParentOnUsbBus::Plug(std::shared_ptr<wdmsim::UsbFirmware> firmware, int hub) {
  mFirmware = firmware;
  mHub = hub != 0 ? hub : mBus->RootHub();
  mPdo = mBus->Attach(firmware, 0, mHub);
  EXPECT_NE(nullptr, mPdo);
  for (int port = 1; port <= 8 && mPdo != nullptr; port++) {
    if (wdmsim::GetUsbPortState(mHub, port).pdo == mPdo) {
      mPort = port;
    }
  }
  if (mPdo != nullptr) {
    if (!wdmsim::IsDeviceNode(mPdo)) {
      std::string n = std::to_string(++mPlugs);
      wdmsim::RegisterDeviceNode(mPdo, u"USB\\VID_4A9B&PID_0042\\5&1a2b3c&0&" + std::u16string(n.begin(), n.end()));
    }
    wdmsim::SetDeviceStringProperty(mPdo, DevicePropertyDeviceDescription, kParentDescription);
    wdmsim::SetDeviceStringProperty(mPdo, DevicePropertyLocationInformation, kParentLocation);
  }
  return mPdo;
}

void ParentOnUsbBus::Unplug() {
  wdmsim::ForgetDeviceNode(mPdo);
  wdmsim::UnplugUsbDevice(mHub, mPort);
  mBus->Enumerate();
  mPdo = nullptr;
}

void ParentOnUsbBus::SetSetting(const std::u16string& name, ULONG value) {
  wdmsim::RegistrySetDword(wdmsim::DeviceHardwareKeyPath(mPdo), name, value);
}

void ParentOnUsbBus::SetStringSetting(const std::u16string& name, const std::u16string& value) {
  wdmsim::RegistrySetString(wdmsim::DeviceHardwareKeyPath(mPdo), name, value);
}

NTSTATUS ParentOnUsbBus::Add() {
  NTSTATUS status = mDriver->DriverExtension->AddDevice(mDriver, mPdo);
  if (NT_SUCCESS(status)) {
    mFdo = mPdo->AttachedDevice;
  }
  return status;
}

NTSTATUS ParentOnUsbBus::Start() { return SendToParent(IRP_MN_START_DEVICE); }

NTSTATUS ParentOnUsbBus::AddAndStart() {
  NTSTATUS status = Add();
  return NT_SUCCESS(status) ? Start() : status;
}

NTSTATUS ParentOnUsbBus::SendToParent(UCHAR minorFunction) { return wdmsim::SendPnpIrp(mPdo, minorFunction).Status; }

std::vector<PDEVICE_OBJECT> ParentOnUsbBus::QueryBusRelations() {
  IO_STATUS_BLOCK answer = wdmsim::SendPnpIrp(mPdo, IRP_MN_QUERY_DEVICE_RELATIONS, [](IO_STACK_LOCATION& s) {
    s.Parameters.QueryDeviceRelations.Type = BusRelations;
  });
  std::vector<PDEVICE_OBJECT> devices;
  EXPECT_EQ(STATUS_SUCCESS, answer.Status);
  auto* relations = reinterpret_cast<PDEVICE_RELATIONS>(answer.Information);
  if (relations != nullptr) {
    for (ULONG i = 0; i < relations->Count; i++) {
      devices.push_back(relations->Objects[i]);
      ObDereferenceObject(relations->Objects[i]);
    }
    ExFreePool(relations);
  }
  return devices;
}

ChildView ParentOnUsbBus::QueryChild(PDEVICE_OBJECT child) {
  auto id = [child](BUS_QUERY_ID_TYPE type) {
    bool list = type == BusQueryHardwareIDs || type == BusQueryCompatibleIDs;
    return QueryStrings(child, IRP_MN_QUERY_ID, list,
                        [type](IO_STACK_LOCATION& s) { s.Parameters.QueryId.IdType = type; });
  };
  auto text = [child](DEVICE_TEXT_TYPE type) {
    return First(QueryStrings(child, IRP_MN_QUERY_DEVICE_TEXT, false, [type](IO_STACK_LOCATION& s) {
      s.Parameters.QueryDeviceText.DeviceTextType = type;
      s.Parameters.QueryDeviceText.LocaleId = 0x409;
    }));
  };
  ChildView view;
  view.device = child;
  view.deviceId = First(id(BusQueryDeviceID));
  view.hardwareIds = id(BusQueryHardwareIDs).value_or(std::vector<std::u16string>());
  view.compatibleIds = id(BusQueryCompatibleIDs).value_or(std::vector<std::u16string>());
  view.instanceId = First(id(BusQueryInstanceID));
  view.description = text(DeviceTextDescription);
  view.location = text(DeviceTextLocationInformation);
  return view;
}

std::vector<ChildView> ParentOnUsbBus::Children() {
  std::vector<ChildView> children;
  for (PDEVICE_OBJECT child : QueryBusRelations()) {
    children.push_back(QueryChild(child));
  }
  return children;
}

void ParentOnUsbBus::RemoveParent() {
  if (mFdo != nullptr) {
    EXPECT_EQ(STATUS_SUCCESS, SendToParent(IRP_MN_REMOVE_DEVICE));
    EXPECT_EQ(nullptr, mPdo->AttachedDevice);
    mFdo = nullptr;
  }
}

std::vector<uint16_t> ParentOnUsbBus::TakeSetConfigurations() {
  const uint8_t kSetConfiguration = 9;
  std::vector<uint16_t> values;
  for (const wdmsim::UsbControlRecord& record : mFirmware->TakeControlLog()) {
    if (record.setup.bmRequestType == 0x00 && record.setup.bRequest == kSetConfiguration) {
      values.push_back(record.setup.wValue);
    }
  }
  return values;
}

std::string ParentOnUsbBus::TakeTrace() { return wdmsim::TakeDebugOutput(); }

}  // namespace usbmitest
