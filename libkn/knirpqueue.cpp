#include "knirpqueue.h"

#include "kntrace.h"

// DriverContext slot that points from a queued IRP back to its queue.
#define KN_IRP_QUEUE(Irp) ((Irp)->Tail.Overlay.DriverContext[3])

KnIrpQueue::KnIrpQueue() {
  InitializeListHead(&mIrpList);
  InitializeListHead(&mCancellingList);
}

void KnIrpQueue::IrpCancelled(PIRP Irp) {}

bool KnIrpQueue::TakeOwnership(PIRP Irp) { return IoSetCancelRoutine(Irp, NULL) != NULL; }

void KnIrpQueue::CompleteCancelled(PIRP Irp) {
  Irp->IoStatus.Status = STATUS_CANCELLED;
  Irp->IoStatus.Information = 0;
  IoCompleteRequest(Irp, IO_NO_INCREMENT);
}

NTSTATUS KnIrpQueue::InsertIrp(PIRP Irp, BOOLEAN atHead) {
  IoMarkIrpPending(Irp);

  KIRQL oldIrql = mQueueLock.Lock();
  // The cancel routine looks the queue up before anything else, so the back pointer
  // must be in place before the routine is published. The exchange below is a full
  // barrier: whoever takes the routine out of the IRP also sees the pointer.
  KN_IRP_QUEUE(Irp) = this;
  PDRIVER_CANCEL OldCancel = IoSetCancelRoutine(Irp, CancelRoutine);
  KN_ASSERT(OldCancel==NULL);

  if (Irp->Cancel && TakeOwnership(Irp)) {
    // Cancelled before the routine was published: the platform found no routine to
    // call and the IRP is still ours.
    KN_IRP_QUEUE(Irp) = NULL;
    mQueueLock.Unlock(oldIrql);
    CompleteCancelled(Irp);
    return STATUS_PENDING;
  }

  // Not cancelled, or the cancel routine already runs: it waits for mQueueLock and
  // then finds the IRP linked here.
  if (atHead) {
    InsertHeadList(&mIrpList, &Irp->Tail.Overlay.ListEntry);
  } else {
    InsertTailList(&mIrpList, &Irp->Tail.Overlay.ListEntry);
  }
  mQueueLock.Unlock(oldIrql);
  return STATUS_PENDING;
}

PIRP KnIrpQueue::RemoveIrp() {
  KIRQL oldIrql = mQueueLock.Lock();
  while (!IsListEmpty(&mIrpList)) {
    PLIST_ENTRY entry = RemoveHeadList(&mIrpList);
    PIRP Irp = CONTAINING_RECORD(entry, IRP, Tail.Overlay.ListEntry);
    if (TakeOwnership(Irp)) {
      KN_IRP_QUEUE(Irp) = NULL;
      mQueueLock.Unlock(oldIrql);
      return Irp;
    }
    // Its cancel routine is running and will unlink it from here.
    InsertTailList(&mCancellingList, entry);
  }
  mQueueLock.Unlock(oldIrql);
  return NULL;
}

bool KnIrpQueue::IsEmpty() {
  KIRQL oldIrql = mQueueLock.Lock();
  bool empty = IsListEmpty(&mIrpList) != FALSE;
  mQueueLock.Unlock(oldIrql);
  return empty;
}

void KnIrpQueue::CancelAllIrps(PFILE_OBJECT fileObject) {
  LIST_ENTRY owned;
  InitializeListHead(&owned);

  KIRQL oldIrql = mQueueLock.Lock();
  PLIST_ENTRY entry = mIrpList.Flink;
  while (entry != &mIrpList) {
    PLIST_ENTRY next = entry->Flink;
    PIRP Irp = CONTAINING_RECORD(entry, IRP, Tail.Overlay.ListEntry);
    if (fileObject == NULL || IoGetCurrentIrpStackLocation(Irp)->FileObject == fileObject) {
      RemoveEntryList(entry);
      if (TakeOwnership(Irp)) {
        KN_IRP_QUEUE(Irp) = NULL;
        InsertTailList(&owned, entry);
      } else {
        InsertTailList(&mCancellingList, entry);
      }
    }
    entry = next;
  }
  mQueueLock.Unlock(oldIrql);

  // Completed outside the lock: completion runs other drivers' routines.
  while (!IsListEmpty(&owned)) {
    PLIST_ENTRY first = RemoveHeadList(&owned);
    CompleteCancelled(CONTAINING_RECORD(first, IRP, Tail.Overlay.ListEntry));
  }
}

void KnIrpQueue::CancelRoutine(PDEVICE_OBJECT deviceObject, PIRP Irp) {
  // Our own lock is never taken under the platform's cancel spin lock.
  IoReleaseCancelSpinLock(Irp->CancelIrql);

  KnIrpQueue* Queue = (KnIrpQueue*)KN_IRP_QUEUE(Irp);
  KN_ASSERT(Queue!=NULL);
  KN_IRP_QUEUE(Irp) = NULL;

  // The IRP is in mIrpList or, when a remover lost the race, in mCancellingList.
  KIRQL oldIrql = Queue->mQueueLock.Lock();
  RemoveEntryList(&Irp->Tail.Overlay.ListEntry);
  Queue->mQueueLock.Unlock(oldIrql);

  Queue->IrpCancelled(Irp);
  CompleteCancelled(Irp);
}
