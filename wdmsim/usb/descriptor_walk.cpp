#include "usb/descriptor_walk.h"

#include <cstdio>

#include <usb200.h>

namespace wdmsim {
namespace usb {

std::optional<FramingFault> WalkConfigurationSet(const uint8_t* set, size_t size,
                                                 const std::function<void(const DescriptorView&)>& visit) {
  if (size < kConfigurationDescriptorSize) {
    return FramingFault{0, "configuration descriptor needs 9 bytes, the set has " + std::to_string(size)};
  }
  if (set[0] != kConfigurationDescriptorSize || set[1] != USB_CONFIGURATION_DESCRIPTOR_TYPE) {
    return FramingFault{0, "expected a configuration descriptor (bLength 9, type 0x02), found bLength " +
                               std::to_string(set[0]) + " type " + HexByte(set[1])};
  }
  size_t offset = 0;
  while (offset < size) {
    const size_t left = size - offset;
    if (left < 2) {
      return FramingFault{offset, "descriptor cut off: 1 byte left in the set"};
    }
    const uint8_t length = set[offset];
    if (length < 2) {
      return FramingFault{offset, "descriptor with bLength " + std::to_string(length) + " (type " +
                                      HexByte(set[offset + 1]) + ")"};
    }
    if (length > left) {
      return FramingFault{offset, "descriptor type " + HexByte(set[offset + 1]) + " with bLength " +
                                      std::to_string(length) + " runs past the end of the set (" +
                                      std::to_string(left) + " bytes left)"};
    }
    visit(DescriptorView{offset, set + offset});
    offset += length;
  }
  return std::nullopt;
}

std::string HexByte(uint8_t value) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%02x", value);
  return text;
}

}  // namespace usb
}  // namespace wdmsim
