#include "knfdo.h"

#include "knnametables.h"
#include "kntrace.h"
#include "knutils.h"

KnFdo::KnFdo() : mLowerDeviceObject(NULL) {}

KnFdo::~KnFdo() {
  KN_ASSERT(mLowerDeviceObject==NULL);
}

NTSTATUS KnFdo::AttachToDeviceStack(PDEVICE_OBJECT PhysicalDeviceObject) {
  KN_ASSERT(mLowerDeviceObject==NULL);
  mLowerDeviceObject = IoAttachDeviceToDeviceStack(mDeviceObject, PhysicalDeviceObject);
  return mLowerDeviceObject != NULL ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

void KnFdo::DetachFromDeviceStack() {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  if (mLowerDeviceObject != NULL) {
    IoDetachDevice(mLowerDeviceObject);
    mLowerDeviceObject = NULL;
  }
}

NTSTATUS KnFdo::PassDown(PIRP Irp) {
  KN_ASSERT(mLowerDeviceObject!=NULL);
  IoSkipCurrentIrpStackLocation(Irp);
  return IofCallDriver(mLowerDeviceObject, Irp);
}

NTSTATUS KnFdo::OnDispatchPnp(KnPrivateDeviceExtension* Extension, PIRP Irp) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(mLowerDeviceObject!=NULL);
  UCHAR minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
  KN_TRACE(0x4, "%P:[KnFdo::OnDispatchPnp IRP %p 0x%B '%s' at state '%s'\n", Irp, minor,
           KnPnpMinorFunctionName(minor), KnPnPStateName(mPnPState));
  NTSTATUS status;
  switch (minor) {
    case IRP_MN_REMOVE_DEVICE: {
      Lock();
      OnPnpRemoveDevice();
      SetPnPState(KnPnPState_Removed);
      Unlock();
      // Every request still holding the lock finishes before the stack goes away; no
      // new one gets through afterwards.
      Extension->mRemoveLock.ReleaseAndWait(Irp);
      Irp->IoStatus.Status = STATUS_SUCCESS;
      status = PassDown(Irp);
      DetachFromDeviceStack();
      KN_TRACE(0x4, "%P:KnFdo::OnDispatchPnp: deleting KnFdo instance %p DO=%p\n", this, mDeviceObject);
      DeleteDevice();
      delete this;
      KN_TRACE(0x4, "%P:]KnFdo::OnDispatchPnp %N\n", status);
      return status;
    }
    case IRP_MN_QUERY_DEVICE_RELATIONS:
      status = OnPnPQueryDeviceRelations(Irp);
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

// Pass-through until the FDO's power handling exists: the next power IRP may start as
// soon as this one is on its way down.
NTSTATUS KnFdo::OnDispatchPower(KnPrivateDeviceExtension* Extension, PIRP Irp) {
  KN_ASSERT(mLowerDeviceObject!=NULL);
  PoStartNextPowerIrp(Irp);
  IoSkipCurrentIrpStackLocation(Irp);
  NTSTATUS status = PoCallDriver(mLowerDeviceObject, Irp);
  Extension->mRemoveLock.Release(Irp);
  return status;
}

NTSTATUS KnFdo::OnDispatchSystemControl(PIRP Irp) {
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
