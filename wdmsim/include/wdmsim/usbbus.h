// wdmsim host API: the simulated USB bus.
//
// Two WDM drivers play the USB stack. The host-controller driver ("\Driver\usbehci") owns
// one PDO per root hub. The hub driver ("\Driver\usbhub") puts a hub FDO on a root hub PDO,
// owns one PDO per device attached to a hub port, and puts a hub FDO of its own on the PDO
// of an external hub. Both are ordinary drivers (DriverEntry, AddDevice, dispatch routines):
// the PnP manager loads and enumerates them like any other; tests that do without it bring
// the hub stack up with UsbTestBus.
//
// A device PDO answers PnP as the Windows hub's PDOs do (identifiers, texts, capabilities)
// and executes URBs as the USB driver stack does: descriptors, configuration and interface
// selection with real handles, bulk/interrupt/control transfers, abort and reset pipe, port
// status and port cycle. Transfers complete from the host-controller context (a DPC, at
// DISPATCH_LEVEL) after the firmware's latency in virtual time and may be cancelled while
// they wait. The firmware object (usbdevice.h) plays the device.
//
// Hubs are numbered from 1 in creation order (the "Hub_#0001" of location texts), ports
// from 1. Every function here runs at PASSIVE_LEVEL on a kernel thread.
#pragma once
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <wdmsim/usbdevice.h>  // standard headers before the DDK's, whose macros they would trip on

#include <usb.h>
#include <wdm.h>

namespace wdmsim {

// ---------------------------------------------------------------------------------------
// The drivers
// ---------------------------------------------------------------------------------------

inline constexpr char16_t kUsbHostControllerService[] = u"usbehci";  // "\Driver\usbehci"
inline constexpr char16_t kUsbHubService[] = u"usbhub";              // "\Driver\usbhub"

NTSTATUS NTAPI UsbHostControllerDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
NTSTATUS NTAPI UsbHubDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

// ---------------------------------------------------------------------------------------
// Topology
// ---------------------------------------------------------------------------------------

// Loads the host-controller driver on first use (as the service kUsbHostControllerService)
// and creates a root hub PDO with `ports` ports. Returns the new hub's number.
int CreateUsbRootHub(int ports = 4);
// Deletes the root hub PDO; the hub FDO on it must have been removed. The host-controller
// driver is unloaded with its last root hub.
void DestroyUsbRootHub(int hub);

// Plugs an external hub with `ports` ports into a port of `parentHub`. It enumerates as a
// device of class 09 (self- or bus-powered as asked); usbhub's AddDevice on its PDO gives
// it a hub FDO. Returns the new hub's number, 0 when the port is taken.
int AttachUsbHub(int parentHub, int port, int ports, bool busPowered);

// Plugs a device into a port of the hub (port 0: the first free one). When the hub is
// started the device's PDO is created at once and the hub's bus relations are invalidated;
// otherwise the hub creates it when it starts. Returns the port, 0 when none is free. The
// bus keeps the firmware until the device is unplugged.
int AttachUsbDevice(int hub, std::shared_ptr<UsbFirmware> firmware, int port = 0);

// Pulls the device (or external hub) out of the port: its transfers fail with
// STATUS_DEVICE_NOT_CONNECTED, its PDO is left out of the next bus relations answer and is
// deleted on the IRP_MN_REMOVE_DEVICE that follows.
void UnplugUsbDevice(int hub, int port);

PDEVICE_OBJECT UsbHubPdo(int hub);  // the root hub PDO or the external hub's device PDO
PDEVICE_OBJECT UsbHubFdo(int hub);  // NULL until usbhub's AddDevice ran on the hub PDO

struct UsbPortState {
  bool occupied = false;         // something is plugged in
  bool connected = false;        // ... and talks on the bus (not disconnected)
  int hub = 0;                   // an external hub's number, 0 for a device
  PDEVICE_OBJECT pdo = nullptr;  // the device's current PDO; NULL before the hub created it
  uint8_t configuration = 0;     // the firmware's bConfigurationValue
  size_t pendingTransfers = 0;   // transfers the stack holds for the current PDO
};
UsbPortState GetUsbPortState(int hub, int port);

// What the stack holds for a device PDO. The URB functions it received since the last
// take, oldest first (those a fault point failed included); whether a pipe handle belongs to
// the current selection; the current configuration handle (NULL when unconfigured).
std::vector<USHORT> TakeUsbUrbLog(PDEVICE_OBJECT pdo);
bool IsCurrentUsbPipeHandle(PDEVICE_OBJECT pdo, USBD_PIPE_HANDLE handle);
USBD_CONFIGURATION_HANDLE CurrentUsbConfigurationHandle(PDEVICE_OBJECT pdo);

// ---------------------------------------------------------------------------------------
// Fault points. Each one is armed for `count` matching requests, anywhere on the bus; a
// test that arms one should check UsbFaultHits afterwards to prove the path ran.
// ---------------------------------------------------------------------------------------

enum class UsbFault {
  FailUrb,                // the URB completes at once in the dispatch routine with irpStatus/urbStatus
  CompleteLate,           // the transfer completes delayMs later than the firmware's latency
  CompleteAfterCancel,    // a cancel of the waiting transfer is ignored; it completes with its result
  DisconnectMidTransfer,  // the device disconnects just as the transfer reaches it
};

struct UsbFaultPoint {
  UsbFault fault = UsbFault::FailUrb;
  USHORT urbFunction = 0xFFFF;  // URB function to match; 0xFFFF: any
  uint8_t endpoint = 0xFF;      // endpoint address to match (transfers); 0xFF: any, 0x00: control
  NTSTATUS irpStatus = STATUS_UNSUCCESSFUL;
  USBD_STATUS urbStatus = USBD_STATUS_STALL_PID;
  uint32_t delayMs = 0;
  int count = 1;
};

void ArmUsbFault(const UsbFaultPoint& point);
// How often the fault took effect since it was last cleared.
int UsbFaultHits(UsbFault fault);
void ClearUsbFaults();

// ---------------------------------------------------------------------------------------
// A bus under the PnP manager (pnpmanager.h)
// ---------------------------------------------------------------------------------------

// The hub driver's in-box INF: usbhub for "USB\ROOT_HUB20" and for hubs ("USB\Class_09").
std::string UsbHubDriverInf();
// Registers usbhub's image and installs its INF, once per run.
void InstallUsbHubDriver();
// Creates a root hub and reports its PDO to the PnP manager as a root device: it loads
// usbhub, starts the hub and enumerates whatever is attached, now and later. Returns the
// hub number; WaitForPnpIdle() waits for the enumeration.
int CreateUsbBusForPnp(int ports = 4);
// The controller goes: the PnP manager surprise-removes the root hub's tree, then the root
// hub PDO is deleted.
void DestroyUsbBusForPnp(int hub);

// ---------------------------------------------------------------------------------------
// A bus without the PnP manager
// ---------------------------------------------------------------------------------------

// Loads both drivers, creates a root hub, adds and starts its hub FDO, so that a test can
// attach its own FDO to a device PDO. Enumerate() plays the PnP manager's part of a bus
// relations change. The destructor unplugs everything, removes every PDO and hub FDO in
// the PnP order and unloads the drivers: a test detaches its own devices first.
class UsbTestBus {
 public:
  explicit UsbTestBus(int ports = 4);
  ~UsbTestBus();
  UsbTestBus(const UsbTestBus&) = delete;
  UsbTestBus& operator=(const UsbTestBus&) = delete;

  int RootHub() const { return mRootHub; }
  PDRIVER_OBJECT HubDriver() const { return mHubDriver; }

  // Attaches the device (hub 0: this bus's root hub; port 0: the first free one) and
  // enumerates; returns the device PDO (NULL if no port was free).
  PDEVICE_OBJECT Attach(std::shared_ptr<UsbFirmware> firmware, int port = 0, int hub = 0);
  // Attaches an external hub, adds and starts its FDO. Returns its number.
  int AttachHub(int parentHub, int port, int ports, bool busPowered);
  // Queries the bus relations of every started hub, as the PnP manager does after an
  // invalidation, and removes each PDO that was left out (IRP_MN_REMOVE_DEVICE to the top
  // of its stack). Returns the PDOs that appeared since the last query.
  std::vector<PDEVICE_OBJECT> Enumerate();

 private:
  void StartHub(int hub);

  PDRIVER_OBJECT mHubDriver = nullptr;
  int mRootHub = 0;
  std::vector<int> mHubs;                                  // root first, then external hubs
  std::map<int, std::vector<PDEVICE_OBJECT>> mKnownPdos;  // per hub, from its last answer
};

}  // namespace wdmsim
