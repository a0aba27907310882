// What the report reads out of configuration descriptor sets: a careful walk that stops
// at the first descriptor that does not fit, as the sets come from devices under test.
#pragma once
#include <cstdint>
#include <optional>
#include <vector>

namespace usbmisim {

struct InterfaceCodes {
  uint8_t number = 0;
  uint8_t alternate = 0;
  uint8_t cls = 0, subClass = 0, protocol = 0;
};

// The first interface descriptor of the set.
std::optional<InterfaceCodes> FirstInterface(const std::vector<uint8_t>& set);
// The number of the first interface FF/01/00 (alternate setting 0): the one the parent keeps
// for the device's notifications.
std::optional<uint8_t> FindNotificationInterface(const std::vector<uint8_t>& set);

}  // namespace usbmisim
