// The binary `descriptors` file that Linux exposes in sysfs for every USB device: the
// 18-byte device descriptor, then bNumConfigurations configuration sets back to back, each
// exactly its wTotalLength bytes. Checked is only what would make the bytes unreadable;
// an error names the byte offset of the descriptor at fault (or of the first byte that
// should not be there).
#include <wdmsim/usbdevice.h>

#include <cstdio>
#include <fstream>
#include <iterator>

#include "usb/descriptor_walk.h"

#include <usb200.h>

namespace wdmsim {

namespace {

UsbDescriptionResult Failure(const std::string& file, uint64_t offset, const std::string& what) {
  UsbDescriptionResult result;
  result.error = UsbDescriptionError{file, UsbDescriptionError::Where::ByteOffset, offset, what};
  return result;
}

// Descriptor bytes always include control characters (every device descriptor starts
// with 0x12 0x01); text may carry UTF-8 in its strings.
bool LooksLikeText(const std::vector<uint8_t>& bytes) {
  for (uint8_t b : bytes) {
    const bool control = b < 0x20 || b == 0x7F;
    const bool space = b == '\t' || b == '\n' || b == '\r';
    if (control && !space) {
      return false;
    }
  }
  return true;
}

std::string Bytes(size_t count) { return std::to_string(count) + (count == 1 ? " byte" : " bytes"); }

}  // namespace

UsbDescriptionResult ParseSysfsDescriptors(const std::vector<uint8_t>& bytes, const std::string& file) {
  const size_t size = bytes.size();
  if (size == 0) {
    return Failure(file, 0, "empty file");
  }
  if (size >= 2 && (bytes[0] != usb::kDeviceDescriptorSize || bytes[1] != USB_DEVICE_DESCRIPTOR_TYPE)) {
    return Failure(file, 0, "expected a device descriptor (bLength 18, type 0x01), found bLength " +
                                std::to_string(bytes[0]) + " type " + usb::HexByte(bytes[1]));
  }
  if (size < usb::kDeviceDescriptorSize) {
    return Failure(file, 0, "device descriptor cut off: " + std::to_string(size) + " of 18 bytes");
  }

  UsbDeviceDescription description;
  description.name = file;
  description.device.assign(bytes.begin(), bytes.begin() + usb::kDeviceDescriptorSize);
  const unsigned announced = description.NumConfigurations();

  size_t offset = usb::kDeviceDescriptorSize;
  while (offset < size) {
    const size_t left = size - offset;
    const std::string which = "configuration index " + std::to_string(description.configurations.size());
    const bool looksLikeConfiguration = left >= 2 && bytes[offset] == usb::kConfigurationDescriptorSize &&
                                        bytes[offset + 1] == USB_CONFIGURATION_DESCRIPTOR_TYPE;
    if (description.configurations.size() == announced) {
      if (looksLikeConfiguration) {
        return Failure(file, offset,
                       "more configurations than bNumConfigurations " + std::to_string(announced));
      }
      return Failure(file, offset,
                     Bytes(left) + " of trailing garbage after the last of " + std::to_string(announced) +
                         " configurations");
    }
    if (!looksLikeConfiguration) {
      return Failure(file, offset,
                     which + ": expected a configuration descriptor (bLength 9, type 0x02), found bLength " +
                         std::to_string(bytes[offset]) +
                         (left >= 2 ? " type " + usb::HexByte(bytes[offset + 1]) : std::string()));
    }
    if (left < usb::kConfigurationDescriptorSize) {
      return Failure(file, offset,
                     which + ": configuration descriptor cut off: " + std::to_string(left) + " of 9 bytes");
    }
    const uint16_t totalLength = usb::ReadLe16(&bytes[offset + 2]);
    if (totalLength < usb::kConfigurationDescriptorSize) {
      return Failure(file, offset,
                     which + ": wTotalLength " + std::to_string(totalLength) + " is smaller than 9");
    }
    if (totalLength > left) {
      return Failure(file, offset,
                     which + ": wTotalLength " + std::to_string(totalLength) + " runs past the end of the file (" +
                         Bytes(left) + " left)");
    }
    auto fault = usb::WalkConfigurationSet(&bytes[offset], totalLength, [](const usb::DescriptorView&) {});
    if (fault) {
      return Failure(file, offset + fault->offset, which + ": " + fault->what);
    }
    description.configurations.emplace_back(bytes.begin() + offset, bytes.begin() + offset + totalLength);
    offset += totalLength;
  }
  if (description.configurations.size() < announced) {
    return Failure(file, size,
                   "file ends after " + std::to_string(description.configurations.size()) + " of " +
                       std::to_string(announced) + " configurations (bNumConfigurations)");
  }
  UsbDescriptionResult result;
  result.description = std::move(description);
  return result;
}

UsbDescriptionResult LoadUsbDescription(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    UsbDescriptionResult result;
    result.error = UsbDescriptionError{path, UsbDescriptionError::Where::File, 0, "cannot open the file"};
    return result;
  }
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (!bytes.empty() && LooksLikeText(bytes)) {
    return ParseHexDescription(std::string(bytes.begin(), bytes.end()), path);
  }
  return ParseSysfsDescriptors(bytes, path);
}

}  // namespace wdmsim
