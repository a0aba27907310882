#include "configuration_scan.h"

#include <functional>

namespace usbmisim {
namespace {

constexpr uint8_t kInterfaceType = 0x04;
constexpr uint8_t kInterfaceLength = 9;

// Visits every interface descriptor until visit returns true or a descriptor does not fit.
std::optional<InterfaceCodes> FindInterface(const std::vector<uint8_t>& set,
                                            const std::function<bool(const InterfaceCodes&)>& wanted) {
  size_t at = 0;
  while (at + 2 <= set.size()) {
    const uint8_t length = set[at];
    if (length < 2 || at + length > set.size()) break;
    if (set[at + 1] == kInterfaceType && length >= kInterfaceLength) {
      InterfaceCodes codes{set[at + 2], set[at + 3], set[at + 5], set[at + 6], set[at + 7]};
      if (wanted(codes)) return codes;
    }
    at += length;
  }
  return std::nullopt;
}

}  // namespace

std::optional<InterfaceCodes> FirstInterface(const std::vector<uint8_t>& set) {
  return FindInterface(set, [](const InterfaceCodes&) { return true; });
}

std::optional<uint8_t> FindNotificationInterface(const std::vector<uint8_t>& set) {
  auto found = FindInterface(set, [](const InterfaceCodes& c) {
    return c.alternate == 0 && c.cls == 0xFF && c.subClass == 0x01 && c.protocol == 0x00;
  });
  if (!found) return std::nullopt;
  return found->number;
}

}  // namespace usbmisim
