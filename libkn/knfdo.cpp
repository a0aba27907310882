#include "knfdo.h"

#include "kndevicecapabilities.h"
#include "knnametables.h"
#include "kntrace.h"
#include "knutils.h"

KnFdo::KnFdo() : mLowerDevice(NULL), mWakeIrp(NULL), mWakeIrpDoneEvent(NotificationEvent, FALSE) {
  // No wait-wake IRP is in flight yet.
  mWakeIrpDoneEvent.Set();
}

KnFdo::~KnFdo() {
  KN_ASSERT(mLowerDevice==NULL);
}

NTSTATUS KnFdo::PassDown(PIRP Irp) {
  IoSkipCurrentIrpStackLocation(Irp);
  return mLowerDevice->CallDriver(Irp);
}

NTSTATUS KnFdo::ForwardAndWait(PIRP Irp) {
  IoCopyCurrentIrpStackLocationToNext(Irp);
  return mLowerDevice->CallDriverAndWait(Irp, 0);
}

NTSTATUS KnFdo::OnDispatchPnp(KnPrivateDeviceExtension* Extension, PIRP Irp) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(mLowerDevice!=NULL);
  UCHAR minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
  KN_TRACE(0x4, "%P:[KnFdo::OnDispatchPnp IRP %p 0x%B '%s' at state '%s'\n", Irp, minor,
           KnPnpMinorFunctionName(minor), KnPnPStateName(mPnPState));
  NTSTATUS status;
  switch (minor) {
    case IRP_MN_START_DEVICE:
      status = OnPnpStart(Irp);
      break;
    case IRP_MN_QUERY_STOP_DEVICE:
      status = OnPnpQueryStopOrRemove(Irp, false);
      break;
    case IRP_MN_CANCEL_STOP_DEVICE:
      status = OnPnpCancelStopOrRemove(Irp, false);
      break;
    case IRP_MN_STOP_DEVICE:
      KN_ASSERT(mPnPState==KnPnPState_StopPending);
      status = OnPnpLeaveDevice(Irp, &KnFdo::OnPnpStopDevice, KnPnPState_Stopped);
      break;
    case IRP_MN_QUERY_REMOVE_DEVICE:
      status = OnPnpQueryStopOrRemove(Irp, true);
      break;
    case IRP_MN_CANCEL_REMOVE_DEVICE:
      status = OnPnpCancelStopOrRemove(Irp, true);
      break;
    case IRP_MN_SURPRISE_REMOVAL:
      status = OnPnpLeaveDevice(Irp, &KnFdo::OnPnpSurpriseRemoval, KnPnPState_SurpriseRemoved);
      break;
    case IRP_MN_REMOVE_DEVICE:
      // The remove lock is gone with the object: no release on the way out.
      return OnPnpRemove(Extension, Irp);
    case IRP_MN_QUERY_DEVICE_RELATIONS:
      status = OnPnPQueryDeviceRelations(Irp);
      break;
    case IRP_MN_QUERY_CAPABILITIES:
      status = OnPnpCapabilities(Irp);
      break;
    default:
      KN_TRACE(0x4, "%P:KnFdo::OnDispatchPnp: passing thru unsupported MinorFct 0x%02X (%s)\n", minor,
               KnPnpMinorFunctionName(minor));
      status = PassDown(Irp);
      break;
  }
  Extension->mRemoveLock.Release(Irp);
  KN_TRACE(0x4, "%P:]KnFdo::OnDispatchPnp %N\n", status);
  return status;
}

// The lower stack must see the start before we touch the device.
NTSTATUS KnFdo::OnPnpStart(PIRP Irp) {
  KN_ASSERT((mPnPState==KnPnPState_Added) || (mPnPState==KnPnPState_Started) || (mPnPState==KnPnPState_Stopped));
  NTSTATUS status = ForwardAndWait(Irp);
  Lock();
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:KnFdo::OnDispatchPnp: pass down IRP_MN_START_DEVICE failed, stat=%N\n", status);
  } else {
    status = OnPnpStartDevice(Irp);
    // An informational status is not a start either.
    if (status == STATUS_SUCCESS) {
      SetPnPState(KnPnPState_Started);
    } else {
      KN_TRACE(0x1, "%P:KnFdo::OnDispatchPnp: OnPnpStartDevice failed, stat=%N\n", status);
      SetPnPState(KnPnPState_Stopped);
    }
    Irp->IoStatus.Status = status;
  }
  mPowerState = PowerDeviceD0;
  Unlock();
  status = Irp->IoStatus.Status;
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return status;
}

// A stop or surprise removal: we let go of the device before the lower stack does.
NTSTATUS KnFdo::OnPnpLeaveDevice(PIRP Irp, void (KnFdo::*Hook)(), KnPnPState NewState) {
  Lock();
  (this->*Hook)();
  SetPnPState(NewState);
  CancelWakeIrp();
  Unlock();
  Irp->IoStatus.Status = STATUS_SUCCESS;
  return PassDown(Irp);
}

// Our side decides first: only a device that agrees lets the query go down. The pending
// state is entered even on refusal; the PnP manager's cancel request restores it.
NTSTATUS KnFdo::OnPnpQueryStopOrRemove(PIRP Irp, bool Remove) {
  KN_ASSERT(mPnPState==KnPnPState_Started);
  Lock();
  NTSTATUS status = Remove ? OnPnpQueryRemoveDevice() : OnPnpQueryStopDevice();
  SetPnPState(Remove ? KnPnPState_RemovePending : KnPnPState_StopPending);
  Unlock();
  if (status != STATUS_SUCCESS) {
    if (Remove) {
      KN_TRACE(0x1, "%P:KnFdo::OnDispatchPnp: OnPnpQueryRemoveDevice failed, stat=%N\n", status);
    } else {
      KN_TRACE(0x1, "%P:KnFdo::OnDispatchPnp: OnPnpQueryStopDevice failed, stat=%N\n", status);
    }
    return CompleteRequestStatus(Irp, status);
  }
  Irp->IoStatus.Status = STATUS_SUCCESS;
  return PassDown(Irp);
}

// A cancel travels up the stack: the lower drivers must have resumed before we do.
NTSTATUS KnFdo::OnPnpCancelStopOrRemove(PIRP Irp, bool Remove) {
  if (Remove) {
    KN_ASSERT((mPnPState==KnPnPState_RemovePending) || (mPnPState==KnPnPState_Started));
  } else {
    KN_ASSERT((mPnPState==KnPnPState_StopPending) || (mPnPState==KnPnPState_Started));
  }
  if (mPnPState == KnPnPState_Started) {
    // The query never reached us: nothing to undo.
    Irp->IoStatus.Status = STATUS_SUCCESS;
    return PassDown(Irp);
  }
  NTSTATUS status = ForwardAndWait(Irp);
  if (!NT_SUCCESS(status)) {
    if (Remove) {
      KN_TRACE(0x1, "%P:KnFdo::OnDispatchPnp: FATAL: pass down IRP_MN_CANCEL_REMOVE_DEVICE failed, stat=%N\n", status);
    } else {
      KN_TRACE(0x1, "%P:KnFdo::OnDispatchPnp: FATAL: pass down IRP_MN_CANCEL_STOP_DEVICE failed, stat=%N\n", status);
    }
  } else {
    Lock();
    if (Remove) {
      OnPnpCancelRemoveDevice();
    } else {
      OnPnpCancelStopDevice();
    }
    RestorePnPState();
    Unlock();
    status = STATUS_SUCCESS;
    Irp->IoStatus.Status = STATUS_SUCCESS;
  }
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return status;
}

// The derived class may add to the request on the way down and adjust the bus driver's
// answer on the way up; what is recorded is the adjusted answer.
NTSTATUS KnFdo::OnPnpCapabilities(PIRP Irp) {
  PDEVICE_CAPABILITIES capabilities = IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceCapabilities.Capabilities;
  if (capabilities == NULL) {
    KN_TRACE(0x1, "%P:KnFdo::OnDispatchPnp: FATAL, IRP_MN_QUERY_CAPABILITIES Add cap==NULL\n");
    return CompleteRequestStatus(Irp, STATUS_UNSUCCESSFUL);
  }
  Lock();
  OnPnpQueryCapabilities(capabilities);
  Unlock();
  NTSTATUS status = ForwardAndWait(Irp);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:KnFdo::OnDispatchPnp: pass down IRP_MN_QUERY_CAPABILITIES failed, stat=%N\n", status);
    IofCompleteRequest(Irp, IO_NO_INCREMENT);
    return status;
  }
  capabilities = IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceCapabilities.Capabilities;
  if (capabilities == NULL) {
    KN_TRACE(0x1, "%P:KnFdo::OnDispatchPnp: FATAL, IRP_MN_QUERY_CAPABILITIES Remove cap==NULL\n");
    return CompleteRequestStatus(Irp, STATUS_UNSUCCESSFUL);
  }
  Lock();
  OnPnpQueryCapabilitiesComplete(capabilities);
  KN_TRACE(0x4, "%P:KnFdo::OnDispatchPnp: DEVICE_CAPABILITIES:\n");
  KnTraceDeviceCapabilities(capabilities);
  RtlCopyMemory(&mDeviceCapabilities, capabilities, sizeof(mDeviceCapabilities));
  Unlock();
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return status;
}

// Removal: no request may still be inside this object, and no power work item may still
// run on it, when the object is deleted; the lower stack sees the removal only after ours
// has let go of the device.
NTSTATUS KnFdo::OnPnpRemove(KnPrivateDeviceExtension* Extension, PIRP Irp) {
  Lock();
  OnPnpRemoveDevice();
  SetPnPState(KnPnPState_Removed);
  CancelWakeIrp();
  Unlock();
  Extension->mRemoveLock.ReleaseAndWait(Irp);
  mPowerWorkItem.WaitForAllWorkItems(0xFFFFFFFF);
  Irp->IoStatus.Status = STATUS_SUCCESS;
  NTSTATUS status = PassDown(Irp);
  mLowerDevice->DetachFromPnpDeviceStack();
  KN_TRACE(0x4, "%P:KnFdo::OnDispatchPnp: deleting KnFdo instance %p DO=%p\n", this, mDeviceObject);
  DeleteDevice();
  delete this;
  KN_TRACE(0x4, "%P:]KnFdo::OnDispatchPnp %N\n", status);
  return status;
}

// Nothing arms a wait-wake IRP yet: that, the completion routine that finishes an armed
// IRP and the cancelling of one here come together with the FDO's power handling. Until
// then mWakeIrp is always NULL and a stop, surprise removal or removal has nothing to
// cancel.
void KnFdo::CancelWakeIrp() {
  KN_ASSERT_IRQL_EQ_PASSIVE();
}

// Pass-through until the FDO's power handling exists: the next power IRP may start as
// soon as this one is on its way down.
NTSTATUS KnFdo::OnDispatchPower(KnPrivateDeviceExtension* Extension, PIRP Irp) {
  KN_ASSERT(mLowerDevice!=NULL);
  PoStartNextPowerIrp(Irp);
  IoSkipCurrentIrpStackLocation(Irp);
  NTSTATUS status = PoCallDriver(mLowerDevice->GetLowerDeviceObject(), Irp);
  Extension->mRemoveLock.Release(Irp);
  return status;
}

NTSTATUS KnFdo::OnDispatchSystemControl(PIRP Irp) {
  KN_ASSERT(mLowerDevice!=NULL);
  return PassDown(Irp);
}

void KnFdo::OnPnpQueryCapabilities(PDEVICE_CAPABILITIES) {}

void KnFdo::OnPnpQueryCapabilitiesComplete(PDEVICE_CAPABILITIES) {}

NTSTATUS KnFdo::OnPnPQueryDeviceRelations(PIRP Irp) {
  return PassDown(Irp);
}

NTSTATUS KnFdo::OnPnpStartDevice(PIRP) {
  return STATUS_SUCCESS;
}

NTSTATUS KnFdo::OnPnpQueryStopDevice() {
  return STATUS_SUCCESS;
}

void KnFdo::OnPnpCancelStopDevice() {}

void KnFdo::OnPnpStopDevice() {}

NTSTATUS KnFdo::OnPnpQueryRemoveDevice() {
  return STATUS_SUCCESS;
}

void KnFdo::OnPnpCancelRemoveDevice() {}

void KnFdo::OnPnpRemoveDevice() {}

void KnFdo::OnPnpSurpriseRemoval() {}

void KnFdo::OnChildNotReported(KnBusChildPdo*) {}
