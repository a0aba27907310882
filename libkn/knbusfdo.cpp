#include "knbusfdo.h"

#include "knmemory.h"
#include "knnametables.h"
#include "kntrace.h"
#include "knutils.h"

KnBusFdo::KnBusFdo() : mChildPdoList(&KnBusChildPdo::mChildListEntry) {}

KnBusFdo::~KnBusFdo() {
  KnBusChildPdo* child;
  while ((child = mChildPdoList.RemoveHead()) != NULL) {
    delete child;
  }
}

void KnBusFdo::OnChildNotReported(KnBusChildPdo* Child) {
  Child->SetPresence(KnChildPresence_ReportedMissing);
}

// A DEVICE_RELATIONS with room for Count objects: the header alone holds one.
static ULONG RelationsSize(ULONG Count) {
  return Count == 0 ? sizeof(DEVICE_RELATIONS) : FIELD_OFFSET(DEVICE_RELATIONS, Objects) + Count * sizeof(PDEVICE_OBJECT);
}

NTSTATUS KnBusFdo::OnPnPQueryDeviceRelations(PIRP Irp) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  DEVICE_RELATION_TYPE type = IoGetCurrentIrpStackLocation(Irp)->Parameters.QueryDeviceRelations.Type;
  KN_TRACE(0x4, "%P:KnBusFdo::OnPnPQueryDeviceRelations: Type is %D (%s)\n", type, KnDeviceRelationTypeName(type));
  if (type != BusRelations) {
    return PassDown(Irp);
  }
  // Counting and filling under one hold of the lock: no child joins or leaves between.
  Lock();
  ULONG num_child_objs = 0;
  for (KnBusChildPdo* child = GetFirstChild(); child != NULL; child = GetNextChild(child)) {
    if (child->GetPresence() == KnChildPresence_Present) {
      num_child_objs++;
    }
  }
  KN_TRACE(0x4, "%P:KnBusFdo::OnPnPQueryDeviceRelations: number of child objects to be reported: %u\n",
           num_child_objs);
  // A driver above may have answered first: its objects stay in front of ours.
  PDEVICE_RELATIONS attached = (PDEVICE_RELATIONS)Irp->IoStatus.Information;
  if (attached != NULL) {
    KN_TRACE(0x4, "%P:KnBusFdo::OnPnPQueryDeviceRelations: DEVICE_RELATIONS structure (%p) already attached (%u objects)\n",
             attached, attached->Count);
    num_child_objs += attached->Count;
  }
  PDEVICE_RELATIONS rel = (PDEVICE_RELATIONS)KnAllocateMemory(PagedPool, RelationsSize(num_child_objs),
                                                              KN_BUS_RELATIONS_TAG, TRUE);
  if (rel == NULL) {
    // Nothing changed: the attached answer and every presence stay as they were.
    Unlock();
    return CompleteRequestStatus(Irp, STATUS_INSUFFICIENT_RESOURCES);
  }
  if (attached != NULL) {
    RtlCopyMemory(rel->Objects, attached->Objects, attached->Count * sizeof(PDEVICE_OBJECT));
    rel->Count = attached->Count;
    ExFreePoolWithTag(attached, 0);
  }
  for (KnBusChildPdo* child = GetFirstChild(); child != NULL; child = GetNextChild(child)) {
    KN_ASSERT(rel->Count<=num_child_objs);
    // The lock keeps the count right; the bound keeps the block intact if it was not.
    if (child->GetPresence() == KnChildPresence_Present && rel->Count < num_child_objs) {
      // The PnP manager releases the reference once it has taken the answer.
      rel->Objects[rel->Count] = child->GetReferencedDeviceObject();
      rel->Count++;
    } else {
      OnChildNotReported(child);
    }
  }
  Irp->IoStatus.Information = (ULONG_PTR)rel;
  Irp->IoStatus.Status = STATUS_SUCCESS;
  Unlock();
  return PassDown(Irp);
}
