#include "knbuschildpdo.h"

#include "knbusfdo.h"
#include "kndevicecapabilities.h"
#include "knmemory.h"
#include "knnametables.h"
#include "kntrace.h"
#include "knutils.h"

KnBusChildPdo::KnBusChildPdo(KnBusFdo* ParentFdo) : mParentFdo(ParentFdo), mPresence(KnChildPresence_Absent) {
  KnList<KnBusChildPdo>::InitializeLink(&mChildListEntry);
}

KnBusChildPdo::~KnBusChildPdo() {
  KN_ASSERT(!IsLinked());
  KN_TRACE(0x4, "%P:KnBusChildPdo::~KnBusChildPdo: instance %p destroyed\n", this);
}

void KnBusChildPdo::SetStrDeviceId(PCWSTR String, POOL_TYPE PoolType) {
  mStrDeviceId.SetString(String, PoolType, KN_CHILD_STRING_TAG);
}

void KnBusChildPdo::SetStrInstanceId(PCWSTR String, POOL_TYPE PoolType) {
  mStrInstanceId.SetString(String, PoolType, KN_CHILD_STRING_TAG);
}

void KnBusChildPdo::AddStrHardwareId(PCWSTR String, POOL_TYPE PoolType) {
  mStrHardwareIds.AppendString(String, PoolType, KN_CHILD_STRING_TAG);
}

void KnBusChildPdo::AddStrCompatibleId(PCWSTR String, POOL_TYPE PoolType) {
  mStrCompatibleIds.AppendString(String, PoolType, KN_CHILD_STRING_TAG);
}

void KnBusChildPdo::SetStrDeviceDescription(PCWSTR String, POOL_TYPE PoolType) {
  mStrDeviceDescription.SetString(String, PoolType, KN_CHILD_STRING_TAG);
}

void KnBusChildPdo::SetStrLocationInformation(PCWSTR String, POOL_TYPE PoolType) {
  mStrLocationInformation.SetString(String, PoolType, KN_CHILD_STRING_TAG);
}

// The child is the bottom of its stack: every request ends here, completed by us.
NTSTATUS KnBusChildPdo::OnDispatchPnp(KnPrivateDeviceExtension* Extension, PIRP Irp) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  UCHAR minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
  KN_TRACE(0x4, "%P:%S [KnBusChildPdo::OnDispatchPnp 0x%B '%s' at state '%s'\n", GetName(), minor,
           KnPnpMinorFunctionName(minor), KnPnPStateName(mPnPState));
  NTSTATUS status;
  switch (minor) {
    case IRP_MN_START_DEVICE:
      KN_ASSERT((mPnPState==KnPnPState_Added) || (mPnPState==KnPnPState_Started) || (mPnPState==KnPnPState_Stopped) || (mPnPState==KnPnPState_Removed));
      Lock();
      status = OnPnpStartDevice(Irp);
      if (NT_SUCCESS(status)) {
        SetPnPState(KnPnPState_Started);
      } else {
        KN_TRACE(0x1, "%P:%S KnBusChildPdo::OnDispatchPnp: OnPnpStartDevice failed, stat=%N\n", GetName(), status);
        SetPnPState(KnPnPState_Stopped);
      }
      Unlock();
      status = CompleteRequestStatus(Irp, status);
      break;
    case IRP_MN_QUERY_STOP_DEVICE:
      KN_ASSERT(mPnPState==KnPnPState_Started);
      Lock();
      status = OnPnpQueryStopDevice(Irp);
      SetPnPState(KnPnPState_StopPending);
      if (!NT_SUCCESS(status)) {
        KN_TRACE(0x1, "%P:%S KnBusChildPdo::OnDispatchPnp: OnPnpQueryStopDevice failed, stat=%N\n", GetName(), status);
      }
      Unlock();
      status = CompleteRequestStatus(Irp, status);
      break;
    case IRP_MN_CANCEL_STOP_DEVICE:
      KN_ASSERT((mPnPState==KnPnPState_StopPending) || (mPnPState==KnPnPState_Started));
      Lock();
      if (mPnPState == KnPnPState_StopPending) {
        OnPnpCancelStopDevice(Irp);
        RestorePnPState();
      }
      Unlock();
      status = CompleteRequestStatus(Irp, STATUS_SUCCESS);
      break;
    case IRP_MN_STOP_DEVICE:
      KN_ASSERT(mPnPState==KnPnPState_StopPending);
      Lock();
      OnPnpStopDevice(Irp);
      SetPnPState(KnPnPState_Stopped);
      Unlock();
      status = CompleteRequestStatus(Irp, STATUS_SUCCESS);
      break;
    case IRP_MN_QUERY_REMOVE_DEVICE:
      Lock();
      status = OnPnpQueryRemoveDevice(Irp);
      SetPnPState(KnPnPState_RemovePending);
      if (!NT_SUCCESS(status)) {
        KN_TRACE(0x1, "%P:%S KnBusChildPdo::OnDispatchPnp: OnPnpQueryRemoveDevice failed, stat=%N\n", GetName(),
                 status);
      }
      Unlock();
      status = CompleteRequestStatus(Irp, status);
      break;
    case IRP_MN_CANCEL_REMOVE_DEVICE:
      KN_ASSERT((mPnPState==KnPnPState_RemovePending) || (mPnPState==KnPnPState_Started));
      Lock();
      if (mPnPState == KnPnPState_RemovePending) {
        OnPnpCancelRemoveDevice(Irp);
        RestorePnPState();
      }
      Unlock();
      status = CompleteRequestStatus(Irp, STATUS_SUCCESS);
      break;
    case IRP_MN_SURPRISE_REMOVAL:
      Lock();
      OnPnpSurpriseRemoval(Irp);
      SetPnPState(KnPnPState_SurpriseRemoved);
      Unlock();
      status = CompleteRequestStatus(Irp, STATUS_SUCCESS);
      break;
    case IRP_MN_REMOVE_DEVICE: {
      bool deleted = false;
      status = OnPnpRemove(Extension, Irp, &deleted);
      if (deleted) {
        // The object and its remove lock are gone.
        KN_TRACE(0x4, "%P]KnBusChildPdo::OnDispatchPnp %N\n", status);
        return status;
      }
      break;
    }
    case IRP_MN_QUERY_CAPABILITIES:
      status = OnPnpCapabilities(Irp);
      break;
    case IRP_MN_QUERY_DEVICE_RELATIONS:
      status = OnPnPQueryDeviceRelations(Irp);
      break;
    case IRP_MN_QUERY_INTERFACE:
      status = OnPnPQueryInterface(Irp);
      break;
    case IRP_MN_QUERY_RESOURCES:
      status = OnPnPQueryResources(Irp);
      break;
    case IRP_MN_QUERY_RESOURCE_REQUIREMENTS:
      status = OnPnPQueryResourceRequirements(Irp);
      break;
    case IRP_MN_QUERY_DEVICE_TEXT:
      status = OnPnPQueryDeviceText(Irp);
      break;
    case IRP_MN_READ_CONFIG:
      status = OnPnPReadConfig(Irp);
      break;
    case IRP_MN_WRITE_CONFIG:
      status = OnPnPWriteConfig(Irp);
      break;
    case IRP_MN_QUERY_ID:
      status = OnPnPQueryId(Irp);
      break;
    case IRP_MN_QUERY_BUS_INFORMATION:
      status = OnPnPQueryBusInformation(Irp);
      break;
    default:
      // Nobody below to ask: the request keeps the status its sender preset.
      KN_TRACE(0x4, "%P:%S KnBusChildPdo::OnDispatchPnp: unsupported MinorFunction: 0x%02X, pass thru\n", GetName(),
               minor);
      status = CompletePendingStatus(Irp);
      break;
  }
  Extension->mRemoveLock.Release(Irp);
  KN_TRACE(0x4, "%P]KnBusChildPdo::OnDispatchPnp %N\n", status);
  return status;
}

// A child the bus still reports stays alive for a later start. One that was reported
// missing leaves the bus and is deleted once no other request holds it.
NTSTATUS KnBusChildPdo::OnPnpRemove(KnPrivateDeviceExtension* Extension, PIRP Irp, bool* Deleted) {
  Lock();
  OnPnpRemoveDevice(Irp);
  SetPnPState(KnPnPState_Removed);
  if (mPresence != KnChildPresence_ReportedMissing) {
    Unlock();
    return CompleteRequestStatus(Irp, STATUS_SUCCESS);
  }
  if (IsLinked()) {
    mParentFdo->RemoveChild(this);
    mParentFdo = NULL;
  }
  Unlock();
  Extension->mRemoveLock.ReleaseAndWait(Irp);
  KN_TRACE(0x4, "%P:%S KnBusChildPdo::OnDispatchPnp: deleting KnBusChildPdo instance %p DO=%p\n", GetName(), this,
           mDeviceObject);
  CompleteRequestStatus(Irp, STATUS_SUCCESS);
  delete this;
  *Deleted = true;
  return STATUS_SUCCESS;
}

NTSTATUS KnBusChildPdo::OnPnpCapabilities(PIRP Irp) {
  PDEVICE_CAPABILITIES capabilities = IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceCapabilities.Capabilities;
  if (capabilities == NULL) {
    KN_TRACE(0x1, "%P:%S KnBusChildPdo::OnDispatchPnp: FATAL, IRP_MN_QUERY_CAPABILITIES cap==NULL\n", GetName());
    return CompleteRequestStatus(Irp, STATUS_UNSUCCESSFUL);
  }
  Lock();
  OnPnpQueryCapabilities(capabilities);
  Unlock();
  KN_TRACE(0x4, "%P:%S KnBusChildPdo::OnDispatchPnp: DEVICE_CAPABILITIES:\n", GetName());
  KnTraceDeviceCapabilities(capabilities);
  return CompleteRequestStatus(Irp, STATUS_SUCCESS);
}

void KnBusChildPdo::AnswerWithCopy(PIRP Irp, const KnMultiStringBuffer* Source, const char* Method,
                                   const char* TypeName) {
  if (Source == NULL || Source->GetBuffer() == NULL) {
    KN_TRACE(0x2, "%P:%S KnBusChildPdo::%s: No string for type %s available\n", GetName(), Method, TypeName);
    Irp->IoStatus.Information = 0;
    Irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    return;
  }
  ULONG size = Source->GetBufferSize();
  KN_ASSERT(size!=0);
  // The PnP manager frees the answer.
  PVOID copy = ExAllocatePoolWithTag(PagedPool, size, KN_CHILD_ANSWER_TAG);
  if (copy == NULL) {
    KN_TRACE(0x1, "%P:%S KnBusChildPdo::%s: ExAllocatePoolWithTag failed\n", GetName(), Method);
    Irp->IoStatus.Information = 0;
    Irp->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
    return;
  }
  RtlCopyMemory(copy, Source->GetBuffer(), size);
  Irp->IoStatus.Information = (ULONG_PTR)copy;
  Irp->IoStatus.Status = STATUS_SUCCESS;
}

NTSTATUS KnBusChildPdo::OnPnPQueryId(PIRP Irp) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  Lock();
  ULONG type = IoGetCurrentIrpStackLocation(Irp)->Parameters.QueryId.IdType;
  KN_TRACE(0x4, "%P:%S KnBusChildPdo::OnPnPQueryId: Type is %D (%s)\n", GetName(), type, KnBusQueryIdTypeName(type));
  const KnMultiStringBuffer* source = NULL;
  switch (type) {
    case BusQueryDeviceID:
      source = &mStrDeviceId;
      break;
    case BusQueryHardwareIDs:
      source = &mStrHardwareIds;
      break;
    case BusQueryCompatibleIDs:
      source = &mStrCompatibleIds;
      break;
    case BusQueryInstanceID:
      source = &mStrInstanceId;
      break;
    default:
      KN_TRACE(0x2, "%P:%S KnBusChildPdo::OnPnPQueryId: Type %D not supported\n", GetName(), type);
      break;
  }
  AnswerWithCopy(Irp, source, "OnPnPQueryId", KnBusQueryIdTypeName(type));
  Unlock();
  return CompletePendingStatus(Irp);
}

// The locale of the request is not looked at: there is one text of each type.
NTSTATUS KnBusChildPdo::OnPnPQueryDeviceText(PIRP Irp) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  Lock();
  ULONG type = IoGetCurrentIrpStackLocation(Irp)->Parameters.QueryDeviceText.DeviceTextType;
  KN_TRACE(0x4, "%P:%S KnBusChildPdo::OnPnPQueryDeviceText: Type is %D (%s)\n", GetName(), type,
           KnDeviceTextTypeName(type));
  const KnMultiStringBuffer* source = NULL;
  switch (type) {
    case DeviceTextDescription:
      source = &mStrDeviceDescription;
      break;
    case DeviceTextLocationInformation:
      source = &mStrLocationInformation;
      break;
    default:
      KN_TRACE(0x2, "%P:%S KnBusChildPdo::OnPnPQueryDeviceText: Type %D not supported\n", GetName(), type);
      break;
  }
  AnswerWithCopy(Irp, source, "OnPnPQueryDeviceText", KnDeviceTextTypeName(type));
  Unlock();
  return CompletePendingStatus(Irp);
}

NTSTATUS KnBusChildPdo::OnPnPQueryDeviceRelations(PIRP Irp) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  Lock();
  ULONG type = IoGetCurrentIrpStackLocation(Irp)->Parameters.QueryDeviceRelations.Type;
  KN_TRACE(0x4, "%P:%S KnBusChildPdo::OnPnPQueryDeviceRelations: Type is %D (%s)\n", GetName(), type,
           KnDeviceRelationTypeName(type));
  if (type == TargetDeviceRelation) {
    PDEVICE_RELATIONS rel = (PDEVICE_RELATIONS)ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS),
                                                                     KN_CHILD_ANSWER_TAG);
    if (rel != NULL) {
      // The PnP manager releases the reference with the answer.
      rel->Count = 1;
      rel->Objects[0] = GetReferencedDeviceObject();
      PVOID attached = (PVOID)Irp->IoStatus.Information;
      if (attached != NULL) {
        KN_TRACE(0x2, "%P:%S KnBusChildPdo::OnPnPQueryDeviceRelations: DEVICE_RELATIONS structure (%D) already attached, freeing ...\n",
                 GetName(), (ULONG)(ULONG_PTR)attached);
        ExFreePool(attached);
      }
      Irp->IoStatus.Information = (ULONG_PTR)rel;
      Irp->IoStatus.Status = STATUS_SUCCESS;
    } else {
      KN_TRACE(0x1, "%P:%S KnBusChildPdo::OnPnPQueryDeviceRelations: ExAllocatePoolWithTag failed\n", GetName());
      Irp->IoStatus.Information = 0;
      Irp->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
    }
  } else {
    KN_TRACE(0x4, "%P:%S KnBusChildPdo::OnPnPQueryDeviceRelations: Ignoring type %D (%s)\n", GetName(), type,
             KnDeviceRelationTypeName(type));
  }
  Unlock();
  return CompletePendingStatus(Irp);
}

// The child keeps no power state: every request is answered at once, and the power
// manager may send the next one right away.
NTSTATUS KnBusChildPdo::OnDispatchPower(KnPrivateDeviceExtension* Extension, PIRP Irp) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  UCHAR minor = stack->MinorFunction;
  POWER_STATE_TYPE type = stack->Parameters.Power.Type;
  const char* stateName = type == DevicePowerState ? KnDevicePowerStateName(stack->Parameters.Power.State.DeviceState)
                                                   : KnSystemPowerStateName(stack->Parameters.Power.State.SystemState);
  KN_TRACE(0x4, "%P:[KnBusChildPdo::OnDispatchPower: IRP=0x%p  Mn=0x%B '%s' %s %s Action:%s IRQL=%d\n", Irp, minor,
           KnPowerMinorFunctionName(minor), KnPowerStateTypeName(type), stateName,
           KnPowerActionName(stack->Parameters.Power.ShutdownType), (int)KeGetCurrentIrql());
  PoStartNextPowerIrp(Irp);
  NTSTATUS status;
  switch (minor) {
    case IRP_MN_WAIT_WAKE:
    case IRP_MN_SET_POWER:
    case IRP_MN_QUERY_POWER:
      status = CompleteRequestStatus(Irp, STATUS_SUCCESS);
      break;
    default:
      status = CompletePendingStatus(Irp);
      break;
  }
  Extension->mRemoveLock.Release(Irp);
  KN_TRACE(0x4, "%P:%S ]KnBusChildPdo::OnDispatchPower %N\n", GetName(), status);
  return status;
}

void KnBusChildPdo::OnPnpQueryCapabilities(PDEVICE_CAPABILITIES Capabilities) {
  RtlCopyMemory(Capabilities, &mDeviceCapabilities, sizeof(DEVICE_CAPABILITIES));
}

NTSTATUS KnBusChildPdo::OnPnpStartDevice(PIRP) {
  return STATUS_SUCCESS;
}

NTSTATUS KnBusChildPdo::OnPnpQueryStopDevice(PIRP) {
  return STATUS_SUCCESS;
}

void KnBusChildPdo::OnPnpCancelStopDevice(PIRP) {}

void KnBusChildPdo::OnPnpStopDevice(PIRP) {}

NTSTATUS KnBusChildPdo::OnPnpQueryRemoveDevice(PIRP) {
  return STATUS_SUCCESS;
}

void KnBusChildPdo::OnPnpCancelRemoveDevice(PIRP) {}

void KnBusChildPdo::OnPnpRemoveDevice(PIRP) {}

void KnBusChildPdo::OnPnpSurpriseRemoval(PIRP) {}

NTSTATUS KnBusChildPdo::OnPnPQueryResources(PIRP Irp) {
  return CompletePendingStatus(Irp);
}

NTSTATUS KnBusChildPdo::OnPnPQueryResourceRequirements(PIRP Irp) {
  return CompletePendingStatus(Irp);
}

NTSTATUS KnBusChildPdo::OnPnPQueryBusInformation(PIRP Irp) {
  return CompletePendingStatus(Irp);
}

NTSTATUS KnBusChildPdo::OnPnPQueryInterface(PIRP Irp) {
  return CompletePendingStatus(Irp);
}

NTSTATUS KnBusChildPdo::OnPnPReadConfig(PIRP Irp) {
  return CompletePendingStatus(Irp);
}

NTSTATUS KnBusChildPdo::OnPnPWriteConfig(PIRP Irp) {
  return CompletePendingStatus(Irp);
}
