// The bus model's storage, look-ups and end of run.
#include "usb/bus_model.h"

#include "usb/device_pdo.h"

namespace wdmsim {
namespace usb {

Bus& TheBus() {
  static Bus* bus = new Bus;
  return *bus;
}

std::unique_lock<std::mutex> LockBus() { return std::unique_lock<std::mutex>(TheBus().lock); }

Port* Hub::FindPort(int portNumber) const {
  if (portNumber < 1 || portNumber > static_cast<int>(ports.size())) return nullptr;
  return ports[portNumber - 1].get();
}

Hub* FindHubLocked(int number) {
  Bus& bus = TheBus();
  if (number < 1 || number > static_cast<int>(bus.hubs.size())) return nullptr;
  return bus.hubs[number - 1].get();
}

Hub* FindHubByPdoLocked(const DEVICE_OBJECT* pdo) {
  for (auto& hub : TheBus().hubs) {
    if (hub->pdo == pdo && pdo != nullptr) return hub.get();
  }
  return nullptr;
}

PVOID NewHandleLocked() {
  // Shaped like the kernel addresses the real stack hands out; never dereferenced.
  ULONG_PTR serial = ++TheBus().nextHandle;
  return reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(0xFFFFA50000000000ull) + (serial << 4));
}

std::u16string Hex(unsigned value, int digits, bool upper) {
  const char* alphabet = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  std::u16string text(static_cast<size_t>(digits), u'0');
  for (int i = digits - 1; i >= 0; --i, value >>= 4) text[static_cast<size_t>(i)] = alphabet[value & 0xF];
  return text;
}

std::u16string Decimal(unsigned value, int minimumDigits) {
  std::u16string text;
  do {
    text.insert(text.begin(), static_cast<char16_t>(u'0' + value % 10));
    value /= 10;
  } while (value != 0);
  while (static_cast<int>(text.size()) < minimumDigits) text.insert(text.begin(), u'0');
  return text;
}

// After every kernel thread stopped: the device objects are the I/O manager's to report and
// free; here only the records go, and the firmware objects, which a test may keep, stop
// talking to a bus that no longer exists.
void EndOfRun() {
  Bus& bus = TheBus();
  std::lock_guard<std::mutex> guard(bus.lock);
  for (auto& hub : bus.hubs) {
    for (auto& port : hub->ports) {
      if (port->firmware) port->firmware->SetListener(nullptr);
    }
    for (DevicePdo* pdo : hub->children) DevicePdo::Forget(pdo);
  }
  bus.hubs.clear();
  bus.hostController = nullptr;
  bus.nextHandle = 0;
  ClearUsbFaults();
}

}  // namespace usb
}  // namespace wdmsim
