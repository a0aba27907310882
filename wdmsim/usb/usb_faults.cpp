// Armed fault points and their hit counts; any thread, any IRQL (a short host lock only).
#include "usb/usb_faults.h"

#include <map>
#include <mutex>
#include <vector>

namespace wdmsim {
namespace usb {
namespace {

struct Faults {
  std::mutex lock;
  std::vector<UsbFaultPoint> armed;
  std::map<UsbFault, int> hits;
};

Faults& faults() {
  static Faults* f = new Faults;
  return *f;
}

bool Matches(const UsbFaultPoint& point, UsbFault fault, USHORT urbFunction, uint8_t endpoint) {
  return point.fault == fault && point.count > 0 &&
         (point.urbFunction == 0xFFFF || point.urbFunction == urbFunction) &&
         (point.endpoint == 0xFF || point.endpoint == endpoint);
}

}  // namespace

bool TakeFault(UsbFault fault, USHORT urbFunction, uint8_t endpoint, UsbFaultPoint* taken) {
  Faults& f = faults();
  std::lock_guard<std::mutex> guard(f.lock);
  for (UsbFaultPoint& point : f.armed) {
    if (!Matches(point, fault, urbFunction, endpoint)) continue;
    --point.count;
    ++f.hits[fault];
    if (taken != nullptr) *taken = point;
    return true;
  }
  return false;
}

}  // namespace usb

void ArmUsbFault(const UsbFaultPoint& point) {
  usb::Faults& f = usb::faults();
  std::lock_guard<std::mutex> guard(f.lock);
  f.armed.push_back(point);
}

int UsbFaultHits(UsbFault fault) {
  usb::Faults& f = usb::faults();
  std::lock_guard<std::mutex> guard(f.lock);
  auto it = f.hits.find(fault);
  return it == f.hits.end() ? 0 : it->second;
}

void ClearUsbFaults() {
  usb::Faults& f = usb::faults();
  std::lock_guard<std::mutex> guard(f.lock);
  f.armed.clear();
  f.hits.clear();
}

}  // namespace wdmsim
