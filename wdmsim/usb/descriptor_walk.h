// Walking a configuration descriptor set without trusting it: shared by the file parsers,
// the description's own checks and the firmware's endpoint bookkeeping.
#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace wdmsim {
namespace usb {

constexpr size_t kDeviceDescriptorSize = 18;
constexpr size_t kConfigurationDescriptorSize = 9;

struct DescriptorView {
  size_t offset;  // from the start of the set
  const uint8_t* bytes;
  uint8_t length() const { return bytes[0]; }
  uint8_t type() const { return bytes[1]; }
};

// Where and why a set stops being readable; offset from the start of the set.
struct FramingFault {
  size_t offset;
  std::string what;
};

// Visits the configuration descriptor and every descriptor after it, in order, up to the
// first one that does not fit (bLength below 2, or running past the end of the set), and
// returns that one's fault. A set whose 9-byte header is missing or not a configuration
// descriptor is not walked at all. wTotalLength is not compared with `size`.
std::optional<FramingFault> WalkConfigurationSet(const uint8_t* set, size_t size,
                                                 const std::function<void(const DescriptorView&)>& visit);

inline uint16_t ReadLe16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
inline void WriteLe16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

// "0x1f" style, for messages.
std::string HexByte(uint8_t value);

}  // namespace usb
}  // namespace wdmsim
