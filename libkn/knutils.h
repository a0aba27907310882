// Request completion helpers and the system error-log entry.
#pragma once

#include <ntddk.h>

// Up to DISPATCH_LEVEL; no priority boost. Each returns the status the IRP completed with;
// the IRP belongs to the I/O manager afterwards. STATUS_PENDING is not a completion status.
NTSTATUS CompleteRequest(PIRP Irp, NTSTATUS Status, ULONG_PTR Information);
NTSTATUS CompleteRequestStatus(PIRP Irp, NTSTATUS Status);  // IoStatus.Information untouched
// Completes with whatever status the IRP already carries (a request nobody answered keeps
// the status its sender preset) and returns that status.
NTSTATUS CompletePendingStatus(PIRP Irp);

enum KnLogMessageCategory {
  KnLogMessageCategory_Information = 0,
  KnLogMessageCategory_Warning = 1,
  KnLogMessageCategory_Error = 2,
};

// Up to DISPATCH_LEVEL. Writes an entry into the system error log with Message as its one
// insertion string, against DeviceObject, or the driver object when that is NULL. A message
// longer than 99 characters is cut to fit the entry.
void KnLogMessage(KnLogMessageCategory Category, PCWSTR Message, NTSTATUS FinalStatus, ULONG UniqueErrorValue,
                  PDEVICE_OBJECT DeviceObject);
