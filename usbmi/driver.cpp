#include "driver.h"

#include "device.h"
#include "libknnewdelete.h"
#include "kntrace.h"
#include "kntracelogbuffer.h"

// Size of the in-memory trace log: 1 MB.
static const ULONG kTraceLogBufferSizeKb = 1024;

KnDriverObject* CreateDriverInstance() {
  // First, so that the driver's own start-up is already in the log. Without it, tracing
  // still reaches the debugger.
  if (KnTraceGetLogBufferSizeKb() == 0) {
    KnTraceCreateLogBuffer(kTraceLogBufferSizeKb);
  }
  Driver* driver = new (NonPagedPool, gKnDefaultPoolTag) Driver;
  if (driver == NULL) {
    KN_TRACE(0x1, "%P:CreateDriverInstance: new Driver failed\n");
    return NULL;
  }
  return driver;
}

Driver::~Driver() {
  KnTraceDeleteLogBuffer();
}

NTSTATUS Driver::OnAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject) {
  KN_TRACE(0x4, "%P:[Driver::OnAddDevice\n");
  NTSTATUS status;
  Device* device = new (NonPagedPool, gKnDefaultPoolTag) Device;
  if (device == NULL) {
    KN_TRACE(0x1, "%P:Driver::OnAddDevice: new Device failed\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
  } else {
    status = device->OnAddDevice(DriverObject, PhysicalDeviceObject);
    if (!NT_SUCCESS(status)) {
      KN_TRACE(0x1, "%P:Driver::OnAddDevice: device->OnAddDevice failed, stat=%N\n", status);
      delete device;
    }
    // On success only the device extension links to the new device from now on.
  }
  KN_TRACE(0x4, "%P:]Driver::OnAddDevice (%D)\n", status);
  return status;
}
