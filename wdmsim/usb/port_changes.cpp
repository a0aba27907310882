// What happens at a hub port: a device plugged in gets a PDO once its hub is started, a
// device that leaves (unplug, disconnection, port cycle) has its PDO retired, and the hub
// tells the PnP manager by invalidating its bus relations. The firmware's own connection
// changes reach the hub through a worker thread, since they may be heard at DISPATCH_LEVEL.
#include <wdmsim/io.h>
#include <wdmsim/usbbus.h>

#include "usb/bus_model.h"
#include "usb/device_pdo.h"

namespace wdmsim {
namespace usb {
namespace {

struct PortWork {
  PIO_WORKITEM item;
  Hub* hub;
  int port;
  bool connected;
};

void InvalidateBusRelations(Hub* hub) {
  PDEVICE_OBJECT pdo;
  {
    auto guard = LockBus();
    pdo = hub->pdo;
  }
  if (pdo != nullptr) IoInvalidateDeviceRelations(pdo, BusRelations);
}

void NTAPI OnPortWork(PDEVICE_OBJECT, PVOID context) {
  auto* work = static_cast<PortWork*>(context);
  if (work->connected) {
    if (EnumeratePort(work->hub, work->port)) InvalidateBusRelations(work->hub);
  } else {
    RetirePortPdo(work->hub, work->port);
  }
  IoFreeWorkItem(work->item);
  {
    auto guard = LockBus();
    --work->hub->portWorkPending;
  }
  delete work;
}

Hub* HubOrNull(int number) {
  auto guard = LockBus();
  return FindHubLocked(number);
}

// Puts the firmware on the port; 0 when the port does not exist or is taken.
int PlugIn(Hub* hub, int port, const std::shared_ptr<UsbFirmware>& firmware, Hub* childHub) {
  Port* target = nullptr;
  {
    auto guard = LockBus();
    for (auto& candidate : hub->ports) {
      if ((port == 0 || candidate->number == port) && !candidate->firmware) {
        target = candidate.get();
        break;
      }
    }
    if (target == nullptr) return 0;
    target->firmware = firmware;
    target->listener = std::make_unique<PortListener>(hub, target->number);
    target->connected = !firmware->IsDisconnected();
    target->childHub = childHub;
    if (childHub != nullptr) childHub->parentPort = target->number;
  }
  firmware->SetListener(target->listener.get());
  if (EnumeratePort(hub, target->number)) InvalidateBusRelations(hub);
  return target->number;
}

// A hub for the port: class 09, one interface with the status-change interrupt endpoint.
std::shared_ptr<UsbFirmware> HubFirmware(int ports, bool busPowered) {
  UsbDescriptionBuilder builder(kDemoVendorId, 0x0E01);
  builder.Name("wdmsim hub")
      .DeviceClass(0x09, 0x00, 0x01)
      .Product(u"wdmsim USB 2.0 Hub")
      .Configuration(1, busPowered ? 0xA0 : 0xE0, busPowered ? 100 : 2)
      .Interface(0, 0, 0x09, 0x00, 0x00)
      .InterruptIn(0x81, 1 + static_cast<uint16_t>(ports / 8), 12);
  return std::make_shared<UsbFirmware>(builder.Build());
}

}  // namespace

void PortListener::OnEndpointReady(uint8_t endpointAddress) {
  auto guard = LockBus();
  Port* port = mHub->FindPort(mPort);
  if (port != nullptr && port->pdo != nullptr) port->pdo->Engine().MarkReadyLocked(endpointAddress);
}

void PortListener::OnConnectionChanged(bool connected) {
  PDEVICE_OBJECT fdo = nullptr;
  {
    auto guard = LockBus();
    Port* port = mHub->FindPort(mPort);
    if (port == nullptr) return;
    port->connected = connected;
    if (mHub->started) fdo = mHub->fdo;
    if (fdo != nullptr) ++mHub->portWorkPending;
  }
  if (fdo == nullptr) return;  // a hub looks at its ports when it starts
  PIO_WORKITEM item = IoAllocateWorkItem(fdo);
  if (item == nullptr) {
    auto guard = LockBus();
    --mHub->portWorkPending;
    return;
  }
  IoQueueWorkItem(item, OnPortWork, DelayedWorkQueue, new PortWork{item, mHub, mPort, connected});
}

// No port is ever suspended yet, so resume signalling has nothing to wake.
void PortListener::OnRemoteWakeup() {}

bool EnumeratePort(Hub* hub, int portNumber) {
  PDRIVER_OBJECT driver;
  Port* port;
  std::shared_ptr<UsbFirmware> firmware;
  {
    auto guard = LockBus();
    port = hub->FindPort(portNumber);
    if (!hub->started || hub->fdo == nullptr || port == nullptr || !port->firmware || !port->connected ||
        port->pdo != nullptr) {
      return false;
    }
    driver = hub->fdo->DriverObject;
    firmware = port->firmware;
  }
  firmware->BusReset();  // the hub resets the port before it addresses the device
  return DevicePdo::Create(driver, hub, port) != nullptr;
}

void RetirePortPdo(Hub* hub, int portNumber) {
  TransferEngine::Taken taken;
  DevicePdo* pdo;
  std::vector<int> childHubPorts;
  Hub* childHub;
  {
    auto guard = LockBus();
    Port* port = hub->FindPort(portNumber);
    if (port == nullptr || port->pdo == nullptr) return;
    pdo = port->pdo;
    childHub = port->childHub;
    port->pdo = nullptr;
    pdo->present = false;
    pdo->Engine().FailAllLocked(taken);  // the engine stays until FinishTaken is done
  }
  if (!taken.transfers.empty() || !taken.abortWaiters.empty()) pdo->Engine().FinishTaken(taken);
  // Whatever hangs off an external hub leaves the bus with it.
  if (childHub != nullptr) {
    for (auto& port : childHub->ports) RetirePortPdo(childHub, port->number);
  }
  InvalidateBusRelations(hub);
}

}  // namespace usb

int AttachUsbDevice(int hub, std::shared_ptr<UsbFirmware> firmware, int port) {
  usb::Hub* target = usb::HubOrNull(hub);
  if (target == nullptr || !firmware) return 0;
  return usb::PlugIn(target, port, firmware, nullptr);
}

int AttachUsbHub(int parentHub, int port, int ports, bool busPowered) {
  usb::Hub* parent = usb::HubOrNull(parentHub);
  if (parent == nullptr || ports < 1) return 0;
  usb::Hub* hub;
  {
    auto guard = usb::LockBus();
    usb::Port* wanted = parent->FindPort(port);
    if (wanted == nullptr || wanted->firmware) return 0;
    auto created = std::make_unique<usb::Hub>();
    created->number = static_cast<int>(usb::TheBus().hubs.size()) + 1;
    created->busPowered = busPowered;
    created->parent = parent;
    for (int i = 1; i <= ports; ++i) {
      created->ports.push_back(std::make_unique<usb::Port>());
      created->ports.back()->number = i;
    }
    hub = created.get();
    usb::TheBus().hubs.push_back(std::move(created));
  }
  return usb::PlugIn(parent, port, usb::HubFirmware(ports, busPowered), hub) != 0 ? hub->number : 0;
}

void UnplugUsbDevice(int hub, int port) {
  usb::Hub* target = usb::HubOrNull(hub);
  if (target == nullptr) return;
  std::shared_ptr<UsbFirmware> firmware;
  {
    auto guard = usb::LockBus();
    usb::Port* plugged = target->FindPort(port);
    if (plugged == nullptr || !plugged->firmware) return;
    firmware = plugged->firmware;
  }
  firmware->SetListener(nullptr);  // from here on the device talks to nobody
  usb::RetirePortPdo(target, port);
  auto guard = usb::LockBus();
  usb::Port* plugged = target->FindPort(port);
  if (plugged->childHub != nullptr) plugged->childHub->parent = nullptr;
  plugged->childHub = nullptr;
  plugged->firmware.reset();
  plugged->listener.reset();
  plugged->connected = false;
}

PDEVICE_OBJECT UsbHubPdo(int hub) {
  auto guard = usb::LockBus();
  usb::Hub* found = usb::FindHubLocked(hub);
  return found != nullptr ? found->pdo : nullptr;
}

PDEVICE_OBJECT UsbHubFdo(int hub) {
  auto guard = usb::LockBus();
  usb::Hub* found = usb::FindHubLocked(hub);
  return found != nullptr ? found->fdo : nullptr;
}

UsbPortState GetUsbPortState(int hub, int port) {
  UsbPortState state;
  std::shared_ptr<UsbFirmware> firmware;
  {
    auto guard = usb::LockBus();
    usb::Hub* found = usb::FindHubLocked(hub);
    usb::Port* plugged = found != nullptr ? found->FindPort(port) : nullptr;
    if (plugged == nullptr || !plugged->firmware) return state;
    firmware = plugged->firmware;
    state.occupied = true;
    state.connected = plugged->connected;
    state.hub = plugged->childHub != nullptr ? plugged->childHub->number : 0;
    if (plugged->pdo != nullptr) {
      state.pdo = plugged->pdo->Self();
      state.pendingTransfers = plugged->pdo->Engine().PendingLocked();
    }
  }
  state.configuration = firmware->Configuration();
  return state;
}

}  // namespace wdmsim
