#include "knsystemthread.h"

#include "knsystemtime.h"
#include "kntrace.h"

KnSystemThread::KnSystemThread() : mThreadObject(NULL), mThreadStartRoutine(NULL), mThreadContext(NULL) {}

KnSystemThread::~KnSystemThread() { KN_ASSERT(NULL==mThreadObject); }

NTSTATUS KnSystemThread::CreateSystemThread(PKSTART_ROUTINE StartRoutine, PVOID Context, ACCESS_MASK desiredAccess,
                                            HANDLE processHandle) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  if (mThreadObject != NULL) {
    KN_TRACE(0x1, "%P:KnSystemThread::CreateSystemThread: FATAL: thread already created\n");
    return STATUS_UNSUCCESSFUL;
  }
  KN_ASSERT(StartRoutine!=NULL);
  mThreadStartRoutine = StartRoutine;
  mThreadContext = Context;

  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, NULL, OBJ_KERNEL_HANDLE, NULL, NULL);
  HANDLE threadHandle = NULL;
  NTSTATUS status = PsCreateSystemThread(&threadHandle, desiredAccess, &attributes, processHandle, NULL,
                                         ThreadStartRoutine, this);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:KnSystemThread::CreateSystemThread: PsCreateSystemThread failed, st=%N\n", status);
    return status;
  }

  status = ObReferenceObjectByHandle(threadHandle, desiredAccess, NULL, KernelMode, &mThreadObject, NULL);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:KnSystemThread::CreateSystemThread: FATAL: ObReferenceObjectByHandle failed, st=%N\n",
             status);
    mThreadObject = NULL;
    ZwClose(threadHandle);
    return status;
  }
  // The reference keeps the thread object alive for the wait; the handle is not needed.
  ZwClose(threadHandle);
  return STATUS_SUCCESS;
}

void KnSystemThread::ThreadStartRoutine(PVOID context) {
  KnSystemThread* This = (KnSystemThread*)context;
  KN_ASSERT(This->mThreadStartRoutine!=NULL);
  This->mThreadStartRoutine(This->mThreadContext);
  PsTerminateSystemThread(STATUS_SUCCESS);
}

NTSTATUS KnSystemThread::WaitForThreadToTerminate(LONG timeoutMs) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  if (mThreadObject == NULL) {
    return STATUS_SUCCESS;
  }

  LARGE_INTEGER dueTime;
  PLARGE_INTEGER timeout = NULL;
  if (timeoutMs >= 0) {
    dueTime.QuadPart = KnRelativeDueTime((ULONG)timeoutMs);
    timeout = &dueTime;
  }
  NTSTATUS status = KeWaitForSingleObject(mThreadObject, Executive, KernelMode, FALSE, timeout);
  if (status != STATUS_SUCCESS) {
    KN_TRACE(0x1, "%P:KnSystemThread::WaitForThreadToTerminate: KeWaitForSingleObject failed, st=%N\n", status);
    return status;
  }

  ObfDereferenceObject(mThreadObject);
  mThreadObject = NULL;
  mThreadStartRoutine = NULL;
  mThreadContext = NULL;
  return STATUS_SUCCESS;
}

void KnSystemThread::SetPriority(KPRIORITY priority) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KeSetPriorityThread(KeGetCurrentThread(), priority);
}
