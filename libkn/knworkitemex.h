// KnWorkItemEx: I/O work items that carry a callback with two arguments, counted so
// that the owner can wait until every item it scheduled has run.
#pragma once
#include <ntddk.h>

#include "knevent.h"
#include "knspinlock.h"

class KnWorkItemEx;

// What a work item runs, at PASSIVE_LEVEL in a system worker thread.
typedef void (*KnWorkItemCallback)(PDEVICE_OBJECT deviceObject, PVOID argument1, PVOID argument2);

// One scheduled item; lives from ScheduleWorkItem until its callback has returned.
struct KnWorkItemContext {
  KnWorkItemEx* mOwner;
  PIO_WORKITEM mIoWorkItem;
  KnWorkItemCallback mCallback;  // may be NULL: the item is then only counted
  PVOID mArgument1;
  PVOID mArgument2;
  LONGLONG mScheduleTimeMs;  // KnGetSystemTimeMs when scheduled
};

class KnWorkItemEx {
 public:
  KnWorkItemEx();
  // Blocks until every scheduled item has finished: PASSIVE_LEVEL only.
  virtual ~KnWorkItemEx();

  // Runs callback(deviceObject, argument1, argument2) in a system worker thread.
  // deviceObject is the one IoAllocateWorkItem needs (it stays referenced until the
  // item has run). False when nothing could be allocated: nothing is scheduled then.
  // Up to DISPATCH_LEVEL.
  bool ScheduleWorkItem(PDEVICE_OBJECT deviceObject, KnWorkItemCallback callback, PVOID argument1,
                        PVOID argument2, WORK_QUEUE_TYPE queueType = CriticalWorkQueue);

  // Waits until no item is scheduled or running; 0xFFFFFFFF waits without limit,
  // anything less may end with STATUS_TIMEOUT. PASSIVE_LEVEL only.
  NTSTATUS WaitForAllWorkItems(ULONG timeoutMs);

 private:
  KnWorkItemEx(const KnWorkItemEx&);
  KnWorkItemEx& operator=(const KnWorkItemEx&);

  static IO_WORKITEM_ROUTINE InternalCallbackRoutine;

  KnSpinLock mLock;        // guards mItemCount and mAllDoneEvent together
  KnEvent mAllDoneEvent;   // notification: set exactly while mItemCount is 0
  LONG mItemCount;         // scheduled and not yet finished
};
