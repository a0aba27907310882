#include "kntargetdevice.h"

#include "knsystemtime.h"
#include "kntrace.h"

KnTargetDevice::KnTargetDevice() : mLowerDeviceObject(NULL) {}

KnTargetDevice::~KnTargetDevice() { KN_ASSERT(mLowerDeviceObject == NULL); }

CCHAR KnTargetDevice::GetStackSize() const {
  KN_ASSERT(mLowerDeviceObject != NULL);
  return mLowerDeviceObject != NULL ? mLowerDeviceObject->StackSize : 0;
}

PDEVICE_OBJECT KnTargetDevice::AttachDeviceToDeviceStack(PDEVICE_OBJECT source, PDEVICE_OBJECT target) {
  KN_ASSERT_IRQL_LTEQ_DISPATCH();
  KN_ASSERT(mLowerDeviceObject == NULL);
  mLowerDeviceObject = IoAttachDeviceToDeviceStack(source, target);
  return mLowerDeviceObject;
}

void KnTargetDevice::DetachFromDeviceStack() {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  if (mLowerDeviceObject != NULL) {
    IoDetachDevice(mLowerDeviceObject);
    mLowerDeviceObject = NULL;
  }
}

NTSTATUS KnTargetDevice::CallDriver(PIRP irp) {
  KN_ASSERT_IRQL_LTEQ_DISPATCH();
  KN_ASSERT(mLowerDeviceObject != NULL);
  return IofCallDriver(mLowerDeviceObject, irp);
}

// Hands the IRP back to the waiting caller instead of letting the I/O manager finish it.
NTSTATUS KnTargetDevice::OnCallDriverAndWaitComplete(PDEVICE_OBJECT deviceObject, PIRP irp, PVOID context) {
  UNREFERENCED_PARAMETER(deviceObject);
  UNREFERENCED_PARAMETER(irp);
  KeSetEvent(static_cast<PKEVENT>(context), 0, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS KnTargetDevice::CallDriverAndWait(PIRP irp, ULONG timeoutMs) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(mLowerDeviceObject != NULL);

  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  IoSetCompletionRoutine(irp, OnCallDriverAndWaitComplete, &event, TRUE, TRUE, TRUE);
  IofCallDriver(mLowerDeviceObject, irp);

  NTSTATUS stat;
  if (timeoutMs == 0) {
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL);
    stat = irp->IoStatus.Status;
    KN_ASSERT(stat != STATUS_PENDING);
    return stat;
  }

  LARGE_INTEGER dueTime;
  dueTime.QuadPart = KnRelativeDueTime(timeoutMs);
  if (KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &dueTime) == STATUS_TIMEOUT) {
    // The IRP is still ours to wait for: it must be back before the caller frees or completes it.
    IoCancelIrp(irp);
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL);
    return STATUS_IO_TIMEOUT;
  }
  stat = irp->IoStatus.Status;
  KN_ASSERT(stat != STATUS_PENDING);
  return stat;
}

NTSTATUS KnTargetDevice::CallPowerDriver(PIRP irp) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(mLowerDeviceObject != NULL);
  return PoCallDriver(mLowerDeviceObject, irp);
}

NTSTATUS KnTargetDevice::QueryId(BUS_QUERY_ID_TYPE idType, PWCHAR* stringBuffer) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(mLowerDeviceObject != NULL);
  KN_ASSERT(stringBuffer != NULL);
  *stringBuffer = NULL;

  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  IO_STATUS_BLOCK ioStatus;
  ioStatus.Status = STATUS_UNSUCCESSFUL;
  ioStatus.Information = 0;

  PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_PNP, mLowerDeviceObject, NULL, 0, NULL, &event, &ioStatus);
  if (irp == NULL) {
    KN_TRACE(0x1, "%P:KnTargetDevice::QueryId: IoBuildSynchronousFsdRequest failed\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
  stack->MinorFunction = IRP_MN_QUERY_ID;
  stack->Parameters.QueryId.IdType = idType;
  // A PnP IRP that nobody below handles must come back unsupported.
  irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
  irp->IoStatus.Information = 0;

  IofCallDriver(mLowerDeviceObject, irp);
  KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL);

  if (NT_SUCCESS(ioStatus.Status)) {
    *stringBuffer = reinterpret_cast<PWCHAR>(ioStatus.Information);
  } else {
    KN_TRACE(0x1, "%P:KnTargetDevice::QueryId: IRP failed with status %N\n", ioStatus.Status);
  }
  return ioStatus.Status;
}
