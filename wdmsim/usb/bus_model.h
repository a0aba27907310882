// The simulated bus as the USB drivers see it: hubs with ports, what is plugged into each
// port and the PDO the hub created for it. One lock guards the whole model; it is held only
// briefly and never across a firmware call, IoCallDriver or IoCompleteRequest.
#pragma once
#include <memory>
#include <mutex>
#include <vector>

#include <wdm.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

namespace wdmsim {
namespace usb {

class DevicePdo;
struct Hub;

// Pool tag of the answers the USB drivers hand to the PnP manager ("UsbA").
constexpr ULONG kPnpAnswerTag = 0x41627355;

// Hears the firmware of one port and passes what it hears to the hub.
class PortListener : public UsbFirmwareListener {
 public:
  PortListener(Hub* hub, int port) : mHub(hub), mPort(port) {}
  void OnEndpointReady(uint8_t endpointAddress) override;
  void OnConnectionChanged(bool connected) override;
  void OnRemoteWakeup() override;

 private:
  Hub* mHub;
  int mPort;
};

struct Port {
  int number = 0;
  std::shared_ptr<UsbFirmware> firmware;  // null: nothing plugged in
  std::unique_ptr<PortListener> listener;
  bool connected = false;                 // the firmware's connection as last heard
  DevicePdo* pdo = nullptr;               // the PDO of what is plugged in now
  Hub* childHub = nullptr;                // an external hub plugged in here
};

struct Hub {
  int number = 0;
  bool root = false;
  bool busPowered = false;
  std::vector<std::unique_ptr<Port>> ports;
  PDEVICE_OBJECT pdo = nullptr;  // root hub PDO (host controller) or the hub's device PDO
  PDEVICE_OBJECT fdo = nullptr;  // usbhub's FDO on pdo
  bool started = false;
  Hub* parent = nullptr;
  int parentPort = 0;
  // Every device PDO of this hub not yet deleted: on a port, or reported missing and
  // waiting for its removal.
  std::vector<DevicePdo*> children;
  int portWorkPending = 0;  // connection changes queued to a worker thread

  Port* FindPort(int number) const;
};

struct Bus {
  std::mutex lock;
  std::vector<std::unique_ptr<Hub>> hubs;
  PDRIVER_OBJECT hostController = nullptr;
  ULONG_PTR nextHandle = 0;
};

Bus& TheBus();
std::unique_lock<std::mutex> LockBus();

// Under the bus lock.
Hub* FindHubLocked(int number);
Hub* FindHubByPdoLocked(const DEVICE_OBJECT* pdo);
// A fresh opaque handle (configuration, interface or pipe), never reused in a run.
PVOID NewHandleLocked();

// Called with the bus lock released; both run at PASSIVE_LEVEL.
// Creates the PDO of whatever is on the port if the hub is started and has none yet;
// true when one was created.
bool EnumeratePort(Hub* hub, int port);
// The device on the port is gone from the bus (unplugged, disconnected or cycled): its PDO
// fails everything from now on and is left out of the next bus relations answer.
void RetirePortPdo(Hub* hub, int port);

// End of run (wdmsim::Kernel shutdown): forgets the model.
void EndOfRun();

// Text helpers for identifiers ("%04X" and friends) without a printf on 16-bit strings.
std::u16string Hex(unsigned value, int digits, bool upper = true);
std::u16string Decimal(unsigned value, int minimumDigits = 1);

}  // namespace usb
}  // namespace wdmsim
