// One attached device as the hub driver presents it: a PDO owned by usbhub that answers
// PnP like the Windows hub's device PDOs and executes URBs on the device's firmware.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include <usb.h>
#include <wdm.h>
#include <wdmsim/usbdevice.h>

#include "usb/bus_model.h"
#include "usb/device_identifiers.h"
#include "usb/transfer_engine.h"

namespace wdmsim {
namespace usb {

// The handles of the current selection. Handles are never reused within a run, so one
// that a reconfiguration replaced is recognisably stale.
struct SelectedPipe {
  USBD_PIPE_HANDLE handle;
  uint8_t interfaceNumber;
  USBD_PIPE_INFORMATION information;
};

struct SelectedInterface {
  USBD_INTERFACE_HANDLE handle;
  uint8_t number;
  uint8_t alternate;
};

struct Selection {
  USBD_CONFIGURATION_HANDLE configuration = nullptr;
  uint8_t configurationValue = 0;
  std::vector<uint8_t> descriptorSet;  // the client's set, as select-interface requests need it
  std::vector<SelectedInterface> interfaces;
  std::vector<SelectedPipe> pipes;

  const SelectedPipe* FindPipe(USBD_PIPE_HANDLE handle) const;
};

class DevicePdo {
 public:
  // PASSIVE_LEVEL, bus lock not held. Creates the PDO for what is plugged into the port
  // (owned by `driver`, the hub's driver) and its device node. NULL when IoCreateDevice fails.
  static DevicePdo* Create(PDRIVER_OBJECT driver, Hub* hub, Port* port);
  // PASSIVE_LEVEL, bus lock not held, already taken out of the hub's records: fails what is
  // left, forgets the device node and deletes the device object and this record.
  void Delete();
  // End of run: drops the record; the device object is the I/O manager's to report.
  static void Forget(DevicePdo* pdo);
  static DevicePdo* From(PDEVICE_OBJECT device);

  PDEVICE_OBJECT Self() const { return mSelf; }
  Hub* OwnerHub() const { return mHub; }
  int PortNumber() const { return mPort; }
  UsbFirmware& Firmware() const { return *mFirmware; }
  const UsbDeviceDescription& Description() const { return mFirmware->Description(); }
  const UsbDeviceIdentifiers& Identifiers() const { return mIdentifiers; }
  TransferEngine& Engine() { return mEngine; }

  NTSTATUS DispatchPnp(PIRP irp);
  NTSTATUS DispatchPower(PIRP irp);
  NTSTATUS DispatchInternalControl(PIRP irp);

  // Called by the transfer engine without the bus lock once the device answered the control
  // transfer behind a select or reset request: applies it and returns the URB's status.
  USBD_STATUS FinishStackRequest(Transfer& transfer, USBD_STATUS transferStatus);

  // Under the bus lock.
  bool present = true;     // still on its port; false once unplugged, disconnected or cycled
  bool reported = false;   // the PnP manager got it in a bus relations answer
  bool started = false;
  Selection selection;
  std::vector<USHORT> urbLog;  // URB functions received, for tests

 private:
  DevicePdo(PDEVICE_OBJECT self, Hub* hub, Port* port);
  ~DevicePdo();

  NTSTATUS SubmitUrb(PIRP irp, PURB urb);
  NTSTATUS SelectConfiguration(PIRP irp, PURB urb);
  NTSTATUS SelectInterface(PIRP irp, PURB urb);
  NTSTATUS PipeRequest(PIRP irp, PURB urb);
  NTSTATUS DataTransfer(PIRP irp, PURB urb);
  NTSTATUS ControlTransfer(PIRP irp, PURB urb);
  NTSTATUS CyclePort(PIRP irp);
  NTSTATUS OnRemoveDevice(PIRP irp);
  USBD_STATUS CommitConfiguration(PURB urb);
  USBD_STATUS CommitInterface(PURB urb);
  // Aborts the transfers of the endpoints (the pipes a selection closes) and forgets halts.
  void ClosePipes(const std::vector<uint8_t>& endpoints);

  PDEVICE_OBJECT mSelf;
  Hub* mHub;
  int mPort;
  std::shared_ptr<UsbFirmware> mFirmware;
  UsbDeviceIdentifiers mIdentifiers;
  TransferEngine mEngine;
};

// Completes an IRP whose URB the stack answered without going to the device.
NTSTATUS CompleteUrb(PIRP irp, PURB urb, USBD_STATUS status);

}  // namespace usb
}  // namespace wdmsim
