#include "knutils.h"

#include "kndriverobject.h"
#include "kntrace.h"

NTSTATUS CompleteRequest(PIRP Irp, NTSTATUS Status, ULONG_PTR Information) {
  KN_ASSERT(Status!=STATUS_PENDING);
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = Information;
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return Status;
}

NTSTATUS CompleteRequestStatus(PIRP Irp, NTSTATUS Status) {
  KN_ASSERT(Status!=STATUS_PENDING);
  Irp->IoStatus.Status = Status;
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return Status;
}

NTSTATUS CompletePendingStatus(PIRP Irp) {
  // Read before completion: afterwards the IRP may already be freed.
  NTSTATUS status = Irp->IoStatus.Status;
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return status;
}

// Entry layout: the fixed IO_ERROR_LOG_PACKET without dump data, then the one insertion
// string. The whole entry must stay within ERROR_LOG_MAXIMUM_SIZE.
static const ULONG kLogStringOffset = 40;
static const ULONG kLogMaxMessageBytes = 200;

static NTSTATUS ErrorCodeOfCategory(KnLogMessageCategory Category) {
  switch (Category) {
    case KnLogMessageCategory_Information:
      return (NTSTATUS)0x60070001;
    case KnLogMessageCategory_Warning:
      return (NTSTATUS)0xA0070002;
    case KnLogMessageCategory_Error:
      return (NTSTATUS)0xE0070003;
  }
  KN_TRACE(0x1, "%P:KnLogMessage: Unknown message category %D, defaulting to KnLogMessageCategory_Error\n",
           (ULONG)Category);
  return (NTSTATUS)0xE0070003;
}

void KnLogMessage(KnLogMessageCategory Category, PCWSTR Message, NTSTATUS FinalStatus, ULONG UniqueErrorValue,
                  PDEVICE_OBJECT DeviceObject) {
  KN_ASSERT_IRQL_LTEQ_DISPATCH();
  // The terminator counts; a longer text is cut and then carries none.
  SIZE_T messageBytes = (wcslen(Message) + 1) * sizeof(WCHAR);
  if (messageBytes > kLogMaxMessageBytes) {
    messageBytes = kLogMaxMessageBytes;
  }
  PVOID ioObject = DeviceObject;
  if (ioObject == NULL) {
    if (gKnDriverObject == NULL) {
      KN_TRACE(0x1, "%P:KnLogMessage: FATAL: gKnDriverObject == NULL\n");
      return;
    }
    ioObject = gKnDriverObject->GetDriverObject();
  }
  UCHAR entrySize = (UCHAR)(kLogStringOffset + messageBytes);
  PIO_ERROR_LOG_PACKET entry = (PIO_ERROR_LOG_PACKET)IoAllocateErrorLogEntry(ioObject, entrySize);
  if (entry == NULL) {
    KN_TRACE(0x1, "%P:KnLogMessage: IoAllocateErrorLogEntry failed\n");
    return;
  }
  RtlZeroMemory(entry, entrySize);
  entry->NumberOfStrings = 1;
  entry->StringOffset = (USHORT)kLogStringOffset;
  entry->ErrorCode = ErrorCodeOfCategory(Category);
  entry->UniqueErrorValue = UniqueErrorValue;
  entry->FinalStatus = FinalStatus;
  RtlCopyMemory((PUCHAR)entry + kLogStringOffset, Message, messageBytes);
  KN_TRACE(0x2, "%P:KnLogMessage: ErrorCode %D Status=%N Message '%S'\n", entry->ErrorCode, FinalStatus, Message);
  IoWriteErrorLogEntry(entry);
}
