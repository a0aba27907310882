// The hub FDO: function driver of its hub and bus driver of the hub's ports. It follows the
// WDM bus-driver rules: it reports its present children in bus relations (referenced),
// deletes a child it reported missing when the PnP manager removes that child, deletes
// children the PnP manager never saw at once, and deletes what is left at its own removal.
#include "usb/hub_fdo.h"

#include <algorithm>
#include <cstring>

#include <usbioctl.h>

#include "usb/device_pdo.h"
#include "usb/pnp_answers.h"
#include "usb/usb_extension.h"

namespace wdmsim {
namespace usb {
namespace {

NTSTATUS NTAPI OnForwarded(PDEVICE_OBJECT, PIRP, PVOID context) {
  KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;  // the IRP is ours again
}

// PASSIVE_LEVEL: sends the IRP down and waits until the lower drivers are done with it.
NTSTATUS ForwardAndWait(PDEVICE_OBJECT lower, PIRP irp) {
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  IoCopyCurrentIrpStackLocationToNext(irp);
  IoSetCompletionRoutine(irp, OnForwarded, &event, TRUE, TRUE, TRUE);
  if (IoCallDriver(lower, irp) == STATUS_PENDING) KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
  return irp->IoStatus.Status;
}

void WaitForPortWork(Hub* hub) {
  for (int waits = 0; waits < 1000; ++waits) {
    {
      auto guard = LockBus();
      if (hub->portWorkPending == 0) return;
    }
    LARGE_INTEGER interval;
    interval.QuadPart = -10000;  // 1 ms
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
  }
}

}  // namespace

NTSTATUS HubFdo::AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
  Hub* hub;
  {
    auto guard = LockBus();
    hub = FindHubByPdoLocked(pdo);
    if (hub == nullptr || hub->fdo != nullptr) return STATUS_NO_SUCH_DEVICE;  // no hub of ours
  }
  PDEVICE_OBJECT self = nullptr;
  NTSTATUS status = IoCreateDevice(driver, sizeof(UsbExtension), nullptr, FILE_DEVICE_USB, FILE_DEVICE_SECURE_OPEN,
                                   FALSE, &self);
  if (!NT_SUCCESS(status)) return status;
  PDEVICE_OBJECT lower = IoAttachDeviceToDeviceStack(self, pdo);
  if (lower == nullptr) {
    IoDeleteDevice(self);
    return STATUS_NO_SUCH_DEVICE;
  }
  *ExtensionOf(self) = {UsbObjectKind::HubFdo, new HubFdo(self, lower, hub)};
  self->Flags |= DO_POWER_PAGABLE;
  self->Flags &= ~DO_DEVICE_INITIALIZING;
  auto guard = LockBus();
  hub->fdo = self;
  return STATUS_SUCCESS;
}

NTSTATUS HubFdo::PassDown(PIRP irp) {
  IoSkipCurrentIrpStackLocation(irp);
  return IoCallDriver(mLower, irp);
}

NTSTATUS HubFdo::DispatchPnp(PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  switch (stack->MinorFunction) {
    case IRP_MN_START_DEVICE:
      return StartDevice(irp);
    case IRP_MN_QUERY_DEVICE_RELATIONS:
      if (stack->Parameters.QueryDeviceRelations.Type == BusRelations) return QueryBusRelations(irp);
      return PassDown(irp);
    case IRP_MN_REMOVE_DEVICE:
      return RemoveDevice(irp);
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL:
      irp->IoStatus.Status = STATUS_SUCCESS;
      return PassDown(irp);
    default:
      return PassDown(irp);
  }
}

// The lower stack must see the start before the hub powers its ports and addresses devices.
NTSTATUS HubFdo::StartDevice(PIRP irp) {
  NTSTATUS status = ForwardAndWait(mLower, irp);
  if (NT_SUCCESS(status)) {
    std::vector<int> ports;
    {
      auto guard = LockBus();
      mHub->started = true;
      for (auto& port : mHub->ports) ports.push_back(port->number);
    }
    bool created = false;
    for (int port : ports) created = EnumeratePort(mHub, port) || created;
    if (created) IoInvalidateDeviceRelations(mHub->pdo, BusRelations);
  }
  return CompleteIrp(irp, status);
}

NTSTATUS HubFdo::QueryBusRelations(PIRP irp) {
  std::vector<PDEVICE_OBJECT> present;
  std::vector<DevicePdo*> unseen;
  {
    auto guard = LockBus();
    auto& children = mHub->children;
    for (DevicePdo* child : children) {
      if (child->present) {
        present.push_back(child->Self());
        child->reported = true;
      } else if (!child->reported) {
        unseen.push_back(child);
      }
    }
    for (DevicePdo* child : unseen) children.erase(std::find(children.begin(), children.end(), child));
  }
  for (DevicePdo* child : unseen) child->Delete();  // the PnP manager never knew it
  NTSTATUS status = AnswerRelations(irp, present);
  if (!NT_SUCCESS(status)) return CompleteIrp(irp, status);
  irp->IoStatus.Status = STATUS_SUCCESS;
  return PassDown(irp);
}

NTSTATUS HubFdo::RemoveDevice(PIRP irp) {
  std::vector<DevicePdo*> children;
  {
    auto guard = LockBus();
    mHub->started = false;  // no port work is queued from here on
  }
  WaitForPortWork(mHub);
  {
    auto guard = LockBus();
    children.swap(mHub->children);
    for (auto& port : mHub->ports) port->pdo = nullptr;
    for (DevicePdo* child : children) child->present = false;
  }
  for (DevicePdo* child : children) child->Delete();

  irp->IoStatus.Status = STATUS_SUCCESS;
  NTSTATUS status = PassDown(irp);
  IoDetachDevice(mLower);
  {
    auto guard = LockBus();
    mHub->fdo = nullptr;
  }
  PDEVICE_OBJECT self = mSelf;
  ExtensionOf(self)->record = nullptr;
  delete this;
  IoDeleteDevice(self);
  return status;
}

NTSTATUS HubFdo::DispatchPower(PIRP irp) {
  PoStartNextPowerIrp(irp);
  IoSkipCurrentIrpStackLocation(irp);
  return PoCallDriver(mLower, irp);
}

NTSTATUS HubFdo::DispatchDeviceControl(PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  if (stack->Parameters.DeviceIoControl.IoControlCode == IOCTL_USB_GET_NODE_INFORMATION) return NodeInformation(irp);
  irp->IoStatus.Information = 0;
  return CompleteIrp(irp, STATUS_INVALID_DEVICE_REQUEST);
}

// The hub descriptor as a USB 2.0 hub reports it (11.23.2.1): individual port power
// switching and over-current protection, 100 ms power-on to power-good, every port
// removable; a bus-powered hub's controller draws 100 mA.
NTSTATUS HubFdo::NodeInformation(PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  irp->IoStatus.Information = 0;
  if (stack->Parameters.DeviceIoControl.OutputBufferLength < sizeof(USB_NODE_INFORMATION)) {
    return CompleteIrp(irp, STATUS_BUFFER_TOO_SMALL);
  }
  auto* info = static_cast<PUSB_NODE_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
  memset(info, 0, sizeof(*info));
  size_t ports;
  bool busPowered;
  {
    auto guard = LockBus();
    ports = mHub->ports.size();
    busPowered = mHub->busPowered;
  }
  const size_t maskBytes = (ports + 8) / 8;  // bit 0 is reserved, then one bit per port
  USB_HUB_DESCRIPTOR& descriptor = info->u.HubInformation.HubDescriptor;
  info->NodeType = UsbHub;
  descriptor.bDescriptorLength = static_cast<UCHAR>(7 + 2 * maskBytes);
  descriptor.bDescriptorType = 0x29;
  descriptor.bNumberOfPorts = static_cast<UCHAR>(ports);
  descriptor.wHubCharacteristics = 0x0009;
  descriptor.bPowerOnToPowerGood = 50;
  descriptor.bHubControlCurrent = busPowered ? 100 : 0;
  memset(descriptor.bRemoveAndPowerMask + maskBytes, 0xFF, maskBytes);  // PortPwrCtrlMask
  info->u.HubInformation.HubIsBusPowered = busPowered ? TRUE : FALSE;
  irp->IoStatus.Information = sizeof(USB_NODE_INFORMATION);
  return CompleteIrp(irp, STATUS_SUCCESS);
}

}  // namespace usb
}  // namespace wdmsim
