// Configuration and interface selection. The request is checked when it arrives; the
// standard request (SET_CONFIGURATION, SET_INTERFACE) then goes to the device on the control
// pipe like any transfer, and only when the device accepted it does the stack close the old
// pipes (their transfers complete as cancelled) and open new ones with fresh handles.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include <usbdlib.h>

#include "usb/descriptor_walk.h"
#include "usb/device_pdo.h"

namespace wdmsim {
namespace usb {
namespace {

constexpr size_t kInterfaceInformationFixedSize = offsetof(USBD_INTERFACE_INFORMATION, Pipes);

// One interface setting of a descriptor set with its endpoint descriptors.
struct Setting {
  const uint8_t* interface = nullptr;
  std::vector<const uint8_t*> endpoints;
};

// The setting's endpoints are the endpoint descriptors that follow it up to the next
// interface descriptor, at most bNumEndpoints of them.
bool FindSetting(const uint8_t* set, size_t size, uint8_t number, uint8_t alternate, Setting* found) {
  bool inside = false;
  bool done = false;
  WalkConfigurationSet(set, size, [&](const DescriptorView& d) {
    if (done) return;
    if (d.type() == USB_INTERFACE_DESCRIPTOR_TYPE && d.length() >= 9) {
      if (inside) {
        done = true;
        return;
      }
      inside = d.bytes[2] == number && d.bytes[3] == alternate;
      if (inside) found->interface = d.bytes;
    } else if (inside && d.type() == USB_ENDPOINT_DESCRIPTOR_TYPE && d.length() >= 7 &&
               found->endpoints.size() < found->interface[4]) {
      found->endpoints.push_back(d.bytes);
    }
  });
  return found->interface != nullptr;
}

// Checks one interface information entry of the client's URB (`room` bytes available).
USBD_STATUS CheckInformation(PUSBD_INTERFACE_INFORMATION information, size_t room, const uint8_t* set, size_t size,
                             Setting* setting) {
  if (room < kInterfaceInformationFixedSize || information->Length < kInterfaceInformationFixedSize ||
      information->Length > room) {
    return USBD_STATUS_INVALID_PARAMETER;
  }
  if (!FindSetting(set, size, information->InterfaceNumber, information->AlternateSetting, setting)) {
    return USBD_STATUS_INTERFACE_NOT_FOUND;
  }
  if (information->Length < GET_USBD_INTERFACE_SIZE(setting->endpoints.size())) return USBD_STATUS_BUFFER_TOO_SMALL;
  return USBD_STATUS_SUCCESS;
}

struct Planned {
  PUSBD_INTERFACE_INFORMATION information;
  Setting setting;
};

// Every interface information entry of a select-configuration URB, checked against the set.
USBD_STATUS PlanConfiguration(PURB urb, std::vector<Planned>* plan) {
  auto* set = reinterpret_cast<const uint8_t*>(urb->UrbSelectConfiguration.ConfigurationDescriptor);
  const size_t size = ReadLe16(set + 2);
  auto* at = reinterpret_cast<uint8_t*>(&urb->UrbSelectConfiguration.Interface);
  auto* end = reinterpret_cast<uint8_t*>(urb) + urb->UrbHeader.Length;
  while (at < end) {
    Planned entry;
    entry.information = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(at);
    USBD_STATUS status = CheckInformation(entry.information, static_cast<size_t>(end - at), set, size, &entry.setting);
    if (!USBD_SUCCESS(status)) return status;
    at += entry.information->Length;
    plan->push_back(entry);
  }
  return plan->empty() ? USBD_STATUS_INVALID_PARAMETER : USBD_STATUS_SUCCESS;
}

// Under the bus lock: fills the client's interface information as the stack returns it and
// records the new handles.
void OpenSettingLocked(const Planned& entry, Selection& selection) {
  PUSBD_INTERFACE_INFORMATION information = entry.information;
  const uint8_t* interface = entry.setting.interface;
  information->Class = interface[5];
  information->SubClass = interface[6];
  information->Protocol = interface[7];
  information->Reserved = 0;
  information->InterfaceHandle = NewHandleLocked();
  information->NumberOfPipes = static_cast<ULONG>(entry.setting.endpoints.size());
  for (size_t i = 0; i < entry.setting.endpoints.size(); ++i) {
    const uint8_t* endpoint = entry.setting.endpoints[i];
    USBD_PIPE_INFORMATION& pipe = information->Pipes[i];  // MaximumTransferSize and PipeFlags are the client's
    pipe.MaximumPacketSize = ReadLe16(endpoint + 4);
    pipe.EndpointAddress = endpoint[2];
    pipe.Interval = endpoint[6];
    pipe.PipeType = static_cast<USBD_PIPE_TYPE>(endpoint[3] & 0x03);
    pipe.PipeHandle = NewHandleLocked();
    selection.pipes.push_back({pipe.PipeHandle, information->InterfaceNumber, pipe});
  }
  selection.interfaces.push_back({information->InterfaceHandle, information->InterfaceNumber,
                                  information->AlternateSetting});
}

std::vector<uint8_t> PipeEndpoints(const Selection& selection, int interfaceNumber) {
  std::vector<uint8_t> endpoints;
  for (const SelectedPipe& pipe : selection.pipes) {
    if (interfaceNumber < 0 || pipe.interfaceNumber == interfaceNumber) endpoints.push_back(pipe.information.EndpointAddress);
  }
  return endpoints;
}

std::unique_ptr<Transfer> StandardRequest(PIRP irp, PURB urb, TransferPurpose purpose, uint8_t request,
                                          uint16_t value, uint16_t index, uint8_t recipient) {
  auto transfer = std::make_unique<Transfer>();
  transfer->irp = irp;
  transfer->urb = urb;
  transfer->purpose = purpose;
  transfer->control = true;
  transfer->setup.bmRequestType = recipient;
  transfer->setup.bRequest = request;
  transfer->setup.wValue = value;
  transfer->setup.wIndex = index;
  return transfer;
}

}  // namespace

NTSTATUS DevicePdo::SelectConfiguration(PIRP irp, PURB urb) {
  if (urb->UrbHeader.Length < offsetof(_URB_SELECT_CONFIGURATION, Interface)) {
    return CompleteUrb(irp, urb, USBD_STATUS_INVALID_PARAMETER);
  }
  auto* descriptor = urb->UrbSelectConfiguration.ConfigurationDescriptor;
  uint8_t value = 0;  // no descriptor: back to the unconfigured state
  if (descriptor != nullptr) {
    if (descriptor->bLength < 9 || descriptor->bDescriptorType != USB_CONFIGURATION_DESCRIPTOR_TYPE ||
        descriptor->wTotalLength < 9) {
      return CompleteUrb(irp, urb, USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR);
    }
    std::vector<Planned> plan;
    USBD_STATUS status = PlanConfiguration(urb, &plan);
    if (!USBD_SUCCESS(status)) return CompleteUrb(irp, urb, status);
    value = descriptor->bConfigurationValue;
  }
  return mEngine.Submit(StandardRequest(irp, urb, TransferPurpose::SelectConfiguration, USB_REQUEST_SET_CONFIGURATION,
                                        value, 0, 0x00));
}

NTSTATUS DevicePdo::SelectInterface(PIRP irp, PURB urb) {
  auto& request = urb->UrbSelectInterface;
  const size_t fixed = offsetof(_URB_SELECT_INTERFACE, Interface);
  if (urb->UrbHeader.Length < fixed) return CompleteUrb(irp, urb, USBD_STATUS_INVALID_PARAMETER);
  std::vector<uint8_t> set;
  {
    auto guard = LockBus();
    if (selection.configuration == nullptr || request.ConfigurationHandle != selection.configuration) {
      return CompleteUrb(irp, urb, USBD_STATUS_INVALID_PARAMETER);  // stale or foreign handle
    }
    set = selection.descriptorSet;
  }
  Setting setting;
  USBD_STATUS status = CheckInformation(&request.Interface, urb->UrbHeader.Length - fixed, set.data(), set.size(), &setting);
  if (!USBD_SUCCESS(status)) return CompleteUrb(irp, urb, status);
  return mEngine.Submit(StandardRequest(irp, urb, TransferPurpose::SelectInterface, USB_REQUEST_SET_INTERFACE,
                                        request.Interface.AlternateSetting, request.Interface.InterfaceNumber, 0x01));
}

USBD_STATUS DevicePdo::FinishStackRequest(Transfer& transfer, USBD_STATUS transferStatus) {
  if (!USBD_SUCCESS(transferStatus)) return transferStatus;
  switch (transfer.purpose) {
    case TransferPurpose::SelectConfiguration:
      return CommitConfiguration(transfer.urb);
    case TransferPurpose::SelectInterface:
      return CommitInterface(transfer.urb);
    case TransferPurpose::ResetPipe:
      if (transfer.target != 0xFF) mEngine.SetHalted(transfer.target, false);
      return transferStatus;
    case TransferPurpose::Data:
      break;
  }
  return transferStatus;
}

void DevicePdo::ClosePipes(const std::vector<uint8_t>& endpoints) {
  for (uint8_t endpoint : endpoints) {
    mEngine.Abort(endpoint, nullptr);
    mEngine.SetHalted(endpoint, false);
  }
}

USBD_STATUS DevicePdo::CommitConfiguration(PURB urb) {
  std::vector<uint8_t> closing;
  {
    auto guard = LockBus();
    closing = PipeEndpoints(selection, -1);
    selection = Selection();
  }
  ClosePipes(closing);
  auto* descriptor = urb->UrbSelectConfiguration.ConfigurationDescriptor;
  if (descriptor == nullptr) return USBD_STATUS_SUCCESS;

  std::vector<Planned> plan;
  PlanConfiguration(urb, &plan);  // checked on arrival; the client's URB has not changed since
  for (const Planned& entry : plan) {
    if (entry.information->AlternateSetting == 0) continue;
    UsbSetupPacket setup;  // the device starts every interface in setting 0
    setup.bmRequestType = 0x01;
    setup.bRequest = USB_REQUEST_SET_INTERFACE;
    setup.wValue = entry.information->AlternateSetting;
    setup.wIndex = entry.information->InterfaceNumber;
    if (mFirmware->Control(setup, nullptr).outcome != UsbOutcome::Completed) return USBD_STATUS_SET_CONFIG_FAILED;
  }
  auto guard = LockBus();
  Selection opened;
  opened.configuration = NewHandleLocked();
  opened.configurationValue = descriptor->bConfigurationValue;
  auto* bytes = reinterpret_cast<const uint8_t*>(descriptor);
  opened.descriptorSet.assign(bytes, bytes + descriptor->wTotalLength);
  for (const Planned& entry : plan) OpenSettingLocked(entry, opened);
  urb->UrbSelectConfiguration.ConfigurationHandle = opened.configuration;
  selection = std::move(opened);
  return USBD_STATUS_SUCCESS;
}

USBD_STATUS DevicePdo::CommitInterface(PURB urb) {
  PUSBD_INTERFACE_INFORMATION information = &urb->UrbSelectInterface.Interface;
  const uint8_t number = information->InterfaceNumber;
  std::vector<uint8_t> closing;
  std::vector<uint8_t> set;
  {
    auto guard = LockBus();
    closing = PipeEndpoints(selection, number);
    auto& pipes = selection.pipes;
    pipes.erase(std::remove_if(pipes.begin(), pipes.end(), [number](const SelectedPipe& p) { return p.interfaceNumber == number; }),
                pipes.end());
    auto& interfaces = selection.interfaces;
    interfaces.erase(std::remove_if(interfaces.begin(), interfaces.end(),
                                    [number](const SelectedInterface& i) { return i.number == number; }),
                     interfaces.end());
    set = selection.descriptorSet;
  }
  ClosePipes(closing);
  Planned entry{information, Setting()};
  FindSetting(set.data(), set.size(), number, information->AlternateSetting, &entry.setting);
  auto guard = LockBus();
  OpenSettingLocked(entry, selection);
  return USBD_STATUS_SUCCESS;
}

}  // namespace usb
}  // namespace wdmsim
