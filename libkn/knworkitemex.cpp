#include "knworkitemex.h"

#include "knmemory.h"
#include "knsystemtime.h"
#include "kntrace.h"
#include "libknnewdelete.h"

// A worker thread that picks an item up later than this is worth a trace: the
// critical work queue is meant to run at once.
static const LONGLONG kMaxWorkItemDelayMs = 100;

static const ULONG kInfiniteTimeout = 0xFFFFFFFF;

KnWorkItemEx::KnWorkItemEx() : mAllDoneEvent(NotificationEvent, FALSE), mItemCount(0) {
  // A fresh object has nothing to wait for.
  mAllDoneEvent.Set(0, FALSE);
}

KnWorkItemEx::~KnWorkItemEx() {
  WaitForAllWorkItems(kInfiniteTimeout);
  // The last item sets the event while it still holds mLock; taking the lock once
  // more makes sure it has let go of this object before the memory goes away.
  KIRQL oldIrql = mLock.Lock();
  KN_ASSERT(mItemCount == 0);
  mLock.Unlock(oldIrql);
}

bool KnWorkItemEx::ScheduleWorkItem(PDEVICE_OBJECT deviceObject, KnWorkItemCallback callback, PVOID argument1,
                                    PVOID argument2, WORK_QUEUE_TYPE queueType) {
  KN_ASSERT_IRQL_LTEQ_DISPATCH();

  KnWorkItemContext* context = new (NonPagedPool, gKnDefaultPoolTag) KnWorkItemContext;
  if (context == NULL) {
    KN_TRACE(0x1, "%P:KnWorkItemEx::ScheduleWorkItem: new  KnWorkItemContext failed\n");
    return false;
  }
  context->mCallback = callback;
  context->mArgument1 = argument1;
  context->mArgument2 = argument2;
  context->mOwner = this;
  context->mScheduleTimeMs = KnGetSystemTimeMs();

  context->mIoWorkItem = IoAllocateWorkItem(deviceObject);
  if (context->mIoWorkItem == NULL) {
    KN_TRACE(0x1, "%P:KnWorkItemEx::ScheduleWorkItem: IoAllocateWorkItem failed\n");
    delete context;
    return false;
  }

  // Counted before it is queued, so that a waiter cannot miss an item that runs at once.
  KIRQL oldIrql = mLock.Lock();
  if (mItemCount == 0) {
    mAllDoneEvent.Reset();
  }
  mItemCount++;
  mLock.Unlock(oldIrql);

  IoQueueWorkItem(context->mIoWorkItem, InternalCallbackRoutine, queueType, context);
  return true;
}

void KnWorkItemEx::InternalCallbackRoutine(PDEVICE_OBJECT deviceObject, PVOID Context) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(Context!=NULL);
  KnWorkItemContext* context = (KnWorkItemContext*)Context;
  KnWorkItemEx* This = context->mOwner;
  KN_ASSERT(This!=NULL);

  LONGLONG delayMs = KnGetSystemTimeMs() - context->mScheduleTimeMs;
  if (delayMs > kMaxWorkItemDelayMs) {
    KN_TRACE(0x1, "%P:KnWorkItemEx::InternalCallbackRoutine: error: work item is delayed for %d\n",
             (LONG)delayMs);
  }

  if (context->mCallback != NULL) {
    context->mCallback(deviceObject, context->mArgument1, context->mArgument2);
  }
  // The callback must come back at the level it was called at.
  KN_ASSERT_IRQL_EQ_PASSIVE();

  // Free everything of the item before it is uncounted: once the count reaches 0 the
  // owner may return from its wait and go away.
  KN_ASSERT(context->mIoWorkItem != NULL);
  IoFreeWorkItem(context->mIoWorkItem);
  context->mIoWorkItem = NULL;
  delete context;

  KIRQL oldIrql = This->mLock.Lock();
  This->mItemCount--;
  KN_ASSERT(This->mItemCount >= 0);
  if (This->mItemCount == 0) {
    This->mAllDoneEvent.Set(0, FALSE);
  }
  This->mLock.Unlock(oldIrql);
}

NTSTATUS KnWorkItemEx::WaitForAllWorkItems(ULONG timeoutMs) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  if (timeoutMs < kInfiniteTimeout) {
    return mAllDoneEvent.Wait(timeoutMs);
  }
  return mAllDoneEvent.WaitInfinite();
}
