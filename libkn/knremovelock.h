// The device's remove lock: the platform IO_REMOVE_LOCK, used with the request's IRP as
// tag. It lives inside the device extension, which the I/O manager zero-fills and no
// constructor touches, so the class has no constructor of its own: Initialize sets it up.
#pragma once

#include <ntddk.h>

class KnRemoveLock {
 public:
  // PASSIVE_LEVEL. Device objects use tag "KnRL", 0 minutes, high-water mark 0.
  void Initialize(ULONG AllocateTag, ULONG MaxLockedMinutes, ULONG HighWatermark);
  // Fails with the platform's status (STATUS_DELETE_PENDING) once removal has begun.
  NTSTATUS Acquire(PIRP Irp);
  void Release(PIRP Irp);
  // PASSIVE_LEVEL. Releases this request's reference and returns when every other
  // holder has released; afterwards every Acquire fails.
  void ReleaseAndWait(PIRP Irp);

 private:
  IO_REMOVE_LOCK mLock;
};

// Device objects' remove lock tag: "KnRL".
#define KN_REMOVE_LOCK_TAG 0x4C526E4B
