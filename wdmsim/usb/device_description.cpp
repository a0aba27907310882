// UsbDeviceDescription: field access that never reads past the bytes it was given, the
// framing check and the sysfs layout.
#include <wdmsim/usbdevice.h>

#include "usb/descriptor_walk.h"

#include <usb200.h>

namespace wdmsim {

namespace {

// Offsets in the device and configuration descriptors.
constexpr size_t kIdVendor = 8;
constexpr size_t kIdProduct = 10;
constexpr size_t kISerialNumber = 16;
constexpr size_t kBNumConfigurations = 17;
constexpr size_t kWTotalLength = 2;
constexpr size_t kBConfigurationValue = 5;
constexpr size_t kBmAttributes = 7;
constexpr size_t kBMaxPower = 8;

uint8_t ByteAt(const std::vector<uint8_t>& bytes, size_t offset) {
  return offset < bytes.size() ? bytes[offset] : 0;
}

uint16_t WordAt(const std::vector<uint8_t>& bytes, size_t offset) {
  return offset + 1 < bytes.size() ? usb::ReadLe16(&bytes[offset]) : 0;
}

const std::vector<uint8_t>* SetAt(const std::vector<std::vector<uint8_t>>& sets, size_t index) {
  if (index >= sets.size() || sets[index].size() < usb::kConfigurationDescriptorSize) {
    return nullptr;
  }
  return &sets[index];
}

}  // namespace

uint16_t UsbDeviceDescription::VendorId() const { return WordAt(device, kIdVendor); }
uint16_t UsbDeviceDescription::ProductId() const { return WordAt(device, kIdProduct); }
uint8_t UsbDeviceDescription::NumConfigurations() const { return ByteAt(device, kBNumConfigurations); }
uint8_t UsbDeviceDescription::SerialNumberIndex() const { return ByteAt(device, kISerialNumber); }

std::optional<std::u16string> UsbDeviceDescription::SerialNumber() const {
  const uint8_t index = SerialNumberIndex();
  if (index == 0 || languages.empty()) {
    return std::nullopt;
  }
  const std::u16string* text = FindString(index, languages.front());
  if (text == nullptr) {
    return std::nullopt;
  }
  return *text;
}

const std::u16string* UsbDeviceDescription::FindString(uint8_t index, uint16_t language) const {
  auto it = strings.find(UsbStringKey{index, language});
  return it == strings.end() ? nullptr : &it->second;
}

void UsbDeviceDescription::SetString(uint8_t index, const std::u16string& text) {
  for (uint16_t language : languages) {
    strings[UsbStringKey{index, language}] = text;
  }
}

uint8_t UsbDeviceDescription::ConfigurationValue(size_t index) const {
  const auto* set = SetAt(configurations, index);
  return set ? (*set)[kBConfigurationValue] : 0;
}

uint32_t UsbDeviceDescription::MaxPowerMilliamps(size_t index) const {
  const auto* set = SetAt(configurations, index);
  return set ? 2u * (*set)[kBMaxPower] : 0;
}

bool UsbDeviceDescription::SelfPowered(size_t index) const {
  const auto* set = SetAt(configurations, index);
  return set && ((*set)[kBmAttributes] & USB_CONFIG_SELF_POWERED) != 0;
}

bool UsbDeviceDescription::SupportsRemoteWakeup(size_t index) const {
  const auto* set = SetAt(configurations, index);
  return set && ((*set)[kBmAttributes] & USB_CONFIG_REMOTE_WAKEUP) != 0;
}

std::optional<size_t> UsbDeviceDescription::ConfigurationIndex(uint8_t value) const {
  for (size_t i = 0; i < configurations.size(); ++i) {
    if (SetAt(configurations, i) && configurations[i][kBConfigurationValue] == value) {
      return i;
    }
  }
  return std::nullopt;
}

std::optional<std::string> UsbDeviceDescription::FramingError() const {
  if (device.size() != usb::kDeviceDescriptorSize || device[0] != usb::kDeviceDescriptorSize ||
      device[1] != USB_DEVICE_DESCRIPTOR_TYPE) {
    return "device descriptor is not 18 bytes of type 0x01";
  }
  if (configurations.size() != NumConfigurations()) {
    return "bNumConfigurations " + std::to_string(NumConfigurations()) + " but " +
           std::to_string(configurations.size()) + " configuration sets";
  }
  for (size_t i = 0; i < configurations.size(); ++i) {
    const auto& set = configurations[i];
    const std::string where = "configuration index " + std::to_string(i) + ": ";
    auto fault = usb::WalkConfigurationSet(set.data(), set.size(), [](const usb::DescriptorView&) {});
    if (fault) {
      return where + "byte " + std::to_string(fault->offset) + ": " + fault->what;
    }
    if (WordAt(set, kWTotalLength) != set.size()) {
      return where + "wTotalLength " + std::to_string(WordAt(set, kWTotalLength)) + " but the set has " +
             std::to_string(set.size()) + " bytes";
    }
  }
  return std::nullopt;
}

std::vector<uint8_t> UsbDeviceDescription::ToSysfsBytes() const {
  std::vector<uint8_t> bytes = device;
  for (const auto& set : configurations) {
    bytes.insert(bytes.end(), set.begin(), set.end());
  }
  return bytes;
}

bool UsbDeviceDescription::operator==(const UsbDeviceDescription& o) const {
  return device == o.device && configurations == o.configurations && languages == o.languages &&
         strings == o.strings;
}

UsbDeviceDescription UsbDescriptionFromRaw(std::vector<uint8_t> device,
                                           std::vector<std::vector<uint8_t>> configurations,
                                           const std::string& name) {
  UsbDeviceDescription description;
  description.name = name;
  description.device = std::move(device);
  description.configurations = std::move(configurations);
  return description;
}

std::string UsbDescriptionError::Message() const {
  switch (where) {
    case Where::ByteOffset:
      return file + ": byte " + std::to_string(position) + ": " + what;
    case Where::Line:
      return file + ":" + std::to_string(position) + ": " + what;
    case Where::File:
      break;
  }
  return file + ": " + what;
}

}  // namespace wdmsim
