// USBD library services a client driver links against: descriptor parsing, the USBDI version
// and the select-configuration URB builder.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <wdm.h>
#include <usbdlib.h>

namespace {

constexpr ULONG kUsbdLibraryTag = 0x44425355;  // "USBD"
constexpr USHORT kSupportedUsbVersion = 0x0200;
constexpr LONG kAny = -1;

bool Matches(LONG wanted, UCHAR actual) { return wanted == kAny || wanted == static_cast<LONG>(actual); }

}  // namespace

extern "C" void NTAPI USBD_GetUSBDIVersion(PUSBD_VERSION_INFORMATION VersionInformation) {
  if (VersionInformation == nullptr) {
    return;
  }
  VersionInformation->USBDI_Version = USBDI_VERSION;
  VersionInformation->Supported_USB_Version = kSupportedUsbVersion;
}

// Walks whole descriptors from StartPosition; a descriptor with bLength 0 or one that would run
// past TotalLength ends the walk, so a malformed set cannot make the search loop or overrun.
extern "C" PUSB_COMMON_DESCRIPTOR NTAPI USBD_ParseDescriptors(PVOID DescriptorBuffer, ULONG TotalLength,
                                                             PVOID StartPosition, LONG DescriptorType) {
  auto* const begin = static_cast<UCHAR*>(DescriptorBuffer);
  auto* const end = begin + TotalLength;
  auto* position = static_cast<UCHAR*>(StartPosition);
  if (begin == nullptr || position == nullptr || position < begin) {
    return nullptr;
  }
  while (end - position >= static_cast<ptrdiff_t>(sizeof(USB_COMMON_DESCRIPTOR))) {
    auto* const descriptor = reinterpret_cast<PUSB_COMMON_DESCRIPTOR>(position);
    if (descriptor->bLength == 0 || descriptor->bLength > end - position) {
      return nullptr;
    }
    if (descriptor->bDescriptorType == DescriptorType) {
      return descriptor;
    }
    position += descriptor->bLength;
  }
  return nullptr;
}

extern "C" PUSB_INTERFACE_DESCRIPTOR NTAPI USBD_ParseConfigurationDescriptorEx(
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor, PVOID StartPosition, LONG InterfaceNumber,
    LONG AlternateSetting, LONG InterfaceClass, LONG InterfaceSubClass, LONG InterfaceProtocol) {
  if (ConfigurationDescriptor == nullptr) {
    return nullptr;
  }
  const ULONG totalLength = ConfigurationDescriptor->wTotalLength;
  PVOID position = StartPosition;
  for (;;) {
    auto* const found = reinterpret_cast<PUSB_INTERFACE_DESCRIPTOR>(
        USBD_ParseDescriptors(ConfigurationDescriptor, totalLength, position, USB_INTERFACE_DESCRIPTOR_TYPE));
    if (found == nullptr) {
      return nullptr;
    }
    // A truncated interface descriptor has no fields to compare; skip it.
    if (found->bLength >= sizeof(USB_INTERFACE_DESCRIPTOR) && Matches(InterfaceNumber, found->bInterfaceNumber) &&
        Matches(AlternateSetting, found->bAlternateSetting) && Matches(InterfaceClass, found->bInterfaceClass) &&
        Matches(InterfaceSubClass, found->bInterfaceSubClass) &&
        Matches(InterfaceProtocol, found->bInterfaceProtocol)) {
      return found;
    }
    position = reinterpret_cast<UCHAR*>(found) + found->bLength;
  }
}

// The interface entries are packed: each takes GET_USBD_INTERFACE_SIZE(bNumEndpoints) bytes, which is
// what GET_SELECT_CONFIGURATION_REQUEST_SIZE adds up to.
extern "C" PURB NTAPI USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                                       PUSBD_INTERFACE_LIST_ENTRY InterfaceList) {
  if (ConfigurationDescriptor == nullptr || InterfaceList == nullptr) {
    return nullptr;
  }
  size_t interfaces = 0;
  size_t pipes = 0;
  for (PUSBD_INTERFACE_LIST_ENTRY entry = InterfaceList; entry->InterfaceDescriptor != nullptr; ++entry) {
    ++interfaces;
    pipes += entry->InterfaceDescriptor->bNumEndpoints;
  }
  const size_t size = GET_SELECT_CONFIGURATION_REQUEST_SIZE(interfaces, pipes);
  auto* const urb = static_cast<PURB>(ExAllocatePoolWithTag(NonPagedPool, size, kUsbdLibraryTag));
  if (urb == nullptr) {
    return nullptr;
  }
  std::memset(urb, 0, size);
  UsbBuildSelectConfigurationRequest(urb, static_cast<USHORT>(size), ConfigurationDescriptor);

  auto* position = reinterpret_cast<UCHAR*>(&urb->UrbSelectConfiguration.Interface);
  for (PUSBD_INTERFACE_LIST_ENTRY entry = InterfaceList; entry->InterfaceDescriptor != nullptr; ++entry) {
    const PUSB_INTERFACE_DESCRIPTOR descriptor = entry->InterfaceDescriptor;
    const UCHAR endpoints = descriptor->bNumEndpoints;
    auto* const information = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(position);
    information->Length = static_cast<USHORT>(GET_USBD_INTERFACE_SIZE(endpoints));
    information->InterfaceNumber = descriptor->bInterfaceNumber;
    information->AlternateSetting = descriptor->bAlternateSetting;
    information->NumberOfPipes = endpoints;
    for (UCHAR pipe = 0; pipe < endpoints; ++pipe) {
      information->Pipes[pipe].MaximumTransferSize = USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;
    }
    entry->Interface = information;
    position += information->Length;
  }
  return urb;
}
