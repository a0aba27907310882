// KnIrpQueue: a cancel-safe queue of pending IRPs.
//
// A queued IRP carries the queue's cancel routine in its CancelRoutine field; that
// field is the ownership token. Whoever exchanges it back to NULL first - RemoveIrp,
// CancelAllIrps, the platform's cancel routine, or InsertIrp itself for an IRP that
// was cancelled early - owns the IRP, so each IRP is completed exactly once.
// While queued, Tail.Overlay.ListEntry links the IRP and Tail.Overlay.DriverContext[3]
// points back to the queue.
#pragma once
#include <ntddk.h>

#include "knspinlock.h"

class KnIrpQueue {
 public:
  KnIrpQueue();
  // No virtual destructor, and destruction leaves the lists alone: the owner must
  // have emptied the queue before it goes away.

  // Marks the IRP pending and queues it (at the head when atHead). An IRP that is
  // already cancelled is completed here with STATUS_CANCELLED. Either way the caller
  // returns STATUS_PENDING for it. Up to DISPATCH_LEVEL.
  NTSTATUS InsertIrp(PIRP Irp, BOOLEAN atHead);
  NTSTATUS InsertTail(PIRP Irp) { return InsertIrp(Irp, FALSE); }

  // The oldest IRP that is not being cancelled, now owned by the caller (who must
  // complete it), or NULL. Up to DISPATCH_LEVEL.
  PIRP RemoveIrp();

  // True when no IRP can be removed any more (IRPs whose cancellation is under way
  // do not count). Up to DISPATCH_LEVEL.
  bool IsEmpty();

  // Completes with STATUS_CANCELLED every queued IRP of fileObject (every IRP when
  // NULL), in queue order; the others stay queued in their order. Up to DISPATCH_LEVEL.
  void CancelAllIrps(PFILE_OBJECT fileObject);

  // Told of an IRP that its sender cancelled while it was queued: it has left the
  // queue and is completed with STATUS_CANCELLED right after this returns.
  virtual void IrpCancelled(PIRP Irp);

 private:
  KnIrpQueue(const KnIrpQueue&);
  KnIrpQueue& operator=(const KnIrpQueue&);

  // The platform calls it at DISPATCH_LEVEL holding the cancel spin lock.
  static DRIVER_CANCEL CancelRoutine;

  // The winner of the CancelRoutine exchange owns the IRP.
  static bool TakeOwnership(PIRP Irp);
  static void CompleteCancelled(PIRP Irp);

  KnSpinLock mQueueLock;        // guards both lists; taken only after the cancel spin lock is released
  LIST_ENTRY mIrpList;          // queued IRPs, oldest first
  LIST_ENTRY mCancellingList;   // taken off mIrpList while their cancel routine was already running
};
