// PnP and power requests at a device PDO, answered as the bus driver at the bottom of the
// stack: a request the PDO does not handle keeps the status the layers above left.
#include <algorithm>

#include <wdmsim/usbdevice.h>

#include "usb/device_pdo.h"
#include "usb/pnp_answers.h"
#include "usb/usb_extension.h"

namespace wdmsim {
namespace usb {
namespace {

NTSTATUS QueryId(PIRP irp, const UsbDeviceIdentifiers& ids, BUS_QUERY_ID_TYPE type) {
  switch (type) {
    case BusQueryDeviceID:
      return AnswerString(irp, ids.deviceId);
    case BusQueryHardwareIDs:
      return AnswerMultiString(irp, ids.hardwareIds);
    case BusQueryCompatibleIDs:
      return AnswerMultiString(irp, ids.compatibleIds);
    case BusQueryInstanceID:
      return AnswerString(irp, ids.instanceId);
    default:
      return irp->IoStatus.Status;
  }
}

}  // namespace

NTSTATUS DevicePdo::DispatchPnp(PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  NTSTATUS status = irp->IoStatus.Status;
  switch (stack->MinorFunction) {
    case IRP_MN_START_DEVICE: {
      auto guard = LockBus();
      started = true;
      status = STATUS_SUCCESS;
      break;
    }
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL:
      status = STATUS_SUCCESS;
      break;
    case IRP_MN_REMOVE_DEVICE:
      return OnRemoveDevice(irp);
    case IRP_MN_QUERY_CAPABILITIES: {
      PDEVICE_CAPABILITIES caps = stack->Parameters.DeviceCapabilities.Capabilities;
      status = FillUsbCapabilities(caps);
      if (NT_SUCCESS(status)) {
        // Remote wakeup is armed in D2 (the suspended port); the first configuration tells
        // whether the device can signal it.
        const bool wake = Description().SupportsRemoteWakeup(0);
        caps->WakeFromD2 = wake ? 1 : 0;
        caps->DeviceWake = wake ? PowerDeviceD2 : PowerDeviceUnspecified;
        caps->SystemWake = wake ? PowerSystemSleeping3 : PowerSystemUnspecified;
        caps->Removable = 1;
        caps->SurpriseRemovalOK = 0;
        caps->UniqueID = mIdentifiers.uniqueInstance ? 1 : 0;
        caps->Address = static_cast<ULONG>(mPort);
        caps->UINumber = static_cast<ULONG>(mPort);
      }
      break;
    }
    case IRP_MN_QUERY_ID:
      status = QueryId(irp, mIdentifiers, stack->Parameters.QueryId.IdType);
      break;
    case IRP_MN_QUERY_DEVICE_TEXT:
      if (stack->Parameters.QueryDeviceText.DeviceTextType == DeviceTextDescription) {
        status = AnswerString(irp, mIdentifiers.description);
      } else if (stack->Parameters.QueryDeviceText.DeviceTextType == DeviceTextLocationInformation) {
        status = AnswerString(irp, mIdentifiers.location);
      }
      break;
    case IRP_MN_QUERY_DEVICE_RELATIONS:
      status = AnswerPdoRelations(irp, mSelf);
      break;
    default:
      break;
  }
  return CompleteIrp(irp, status);
}

// A PDO the hub still reports stays alive (the device may be started again); one reported
// missing is gone for good and deleted once the request is completed.
NTSTATUS DevicePdo::OnRemoveDevice(PIRP irp) {
  bool deleteNow;
  {
    auto guard = LockBus();
    started = false;
    selection = Selection();
    deleteNow = !present;
    if (deleteNow) {
      auto& children = mHub->children;
      children.erase(std::remove(children.begin(), children.end(), this), children.end());
    }
  }
  mEngine.Abort(0xFF, nullptr);
  if (!deleteNow) mFirmware->BusReset();  // the hub resets a device it keeps for a new start
  CompleteIrp(irp, STATUS_SUCCESS);
  if (deleteNow) Delete();
  return STATUS_SUCCESS;
}

// The PDO serialises nothing, so it starts no next power IRP (not needed since Windows
// Vista); it announces the device state it enters.
NTSTATUS DevicePdo::DispatchPower(PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  NTSTATUS status = STATUS_NOT_SUPPORTED;
  switch (stack->MinorFunction) {
    case IRP_MN_SET_POWER:
      if (stack->Parameters.Power.Type == DevicePowerState) {
        PoSetPowerState(mSelf, DevicePowerState, stack->Parameters.Power.State);
      }
      status = STATUS_SUCCESS;
      break;
    case IRP_MN_QUERY_POWER:
      status = STATUS_SUCCESS;
      break;
    default:
      status = irp->IoStatus.Status;  // wait-wake and power sequences: not offered yet
      break;
  }
  return CompleteIrp(irp, status);
}

}  // namespace usb
}  // namespace wdmsim
