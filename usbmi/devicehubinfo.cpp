// Device: what the start learns about the hub the device is plugged into.
#include "device.h"

#include "kntrace.h"

namespace {

// Sends a request built by IoBuildDeviceIoControlRequest and waits for it without limit;
// the I/O manager frees the IRP.
NTSTATUS CallAndWait(PDEVICE_OBJECT Target, PIRP Irp, KnEvent* Event, IO_STATUS_BLOCK* IoStatus) {
  NTSTATUS status = IofCallDriver(Target, Irp);
  if (status == STATUS_PENDING) {
    Event->WaitInfinite();
    status = IoStatus->Status;
  }
  return status;
}

}  // namespace

NTSTATUS Device::GetHubInfo(PUSB_NODE_INFORMATION NodeInformation) {
  KnAssert((BOOLEAN)(KeGetCurrentIrql() == PASSIVE_LEVEL), "KeGetCurrentIrql()==PASSIVE_LEVEL", __FILE__, __LINE__);
  KnEvent event(NotificationEvent, FALSE);
  IO_STATUS_BLOCK ioStatus;
  PDEVICE_OBJECT hubDeviceObject = NULL;
  PDEVICE_OBJECT lower = mLowerDeviceUsb.GetLowerDeviceObject();

  PIRP irp = IoBuildDeviceIoControlRequest(IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO, lower, NULL, 0, &hubDeviceObject,
                                           sizeof(hubDeviceObject), TRUE, event.GetEvent(), &ioStatus);
  if (irp == NULL) {
    KN_TRACE(0x1, "QueryInterface: IoBuildSynchronousFsdRequest failed\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
  KN_ASSERT(stack != NULL);
  // The hub driver writes its device object through the first argument.
  stack->Parameters.Others.Argument1 = &hubDeviceObject;
  NTSTATUS status = CallAndWait(lower, irp, &event, &ioStatus);
  // A stack that claims success without naming a hub gave no answer either.
  if (NT_SUCCESS(status) && hubDeviceObject == NULL) {
    status = STATUS_UNSUCCESSFUL;
  }
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P: IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO failed with %D\n", status);
    return status;
  }

  // An external hub's device object belongs to the hub driver, a root hub's to the driver of
  // its host controller. The hub stays while its child device is being started, so no
  // reference is taken.
  PUNICODE_STRING driverName = &hubDeviceObject->DriverObject->DriverName;
  KN_TRACE_DUMP(0x20, driverName->Buffer, driverName->Length);
  UNICODE_STRING hubDriverName;
  RtlInitUnicodeString(&hubDriverName, L"\\Driver\\usbhub");
  if (RtlCompareUnicodeString(driverName, &hubDriverName, TRUE) == 0) {
    mConnectedToRootHub = 0;
    KN_TRACE(0x20, "%P:Device::GetHubInfo is connected to an external Hub\n");
  } else {
    mConnectedToRootHub = 1;
    KN_TRACE(0x20, "%P:Device::GetHubInfo device is connected to a  root Hub\n");
  }

  // The node information is answered at the top of the hub's own stack.
  PDEVICE_OBJECT hubTop = hubDeviceObject;
  while (hubTop->AttachedDevice != NULL) {
    hubTop = hubTop->AttachedDevice;
  }
  RtlZeroMemory(NodeInformation, sizeof(*NodeInformation));
  event.Clear();
  irp = IoBuildDeviceIoControlRequest(IOCTL_USB_GET_NODE_INFORMATION, hubTop, NULL, 0, NodeInformation,
                                      sizeof(*NodeInformation), FALSE, event.GetEvent(), &ioStatus);
  if (irp == NULL) {
    KN_TRACE(0x1, "QueryInterface: IoBuildSynchronousFsdRequest failed\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  status = CallAndWait(hubTop, irp, &event, &ioStatus);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "IOCTL_USB_GET_NODE_INFORMATION failed with %D\n", status);
    return status;
  }
  const USB_HUB_DESCRIPTOR* hub = &NodeInformation->u.HubInformation.HubDescriptor;
  KN_TRACE(0x20, "NodeType %D\n", NodeInformation->NodeType);
  KN_TRACE(0x20, "Length 0x%B\n", hub->bDescriptorLength);
  KN_TRACE(0x20, "Type 0x%B\n", hub->bDescriptorType);
  KN_TRACE(0x20, "bNumberOfPorts 0x%B\n", hub->bNumberOfPorts);
  KN_TRACE(0x20, "wHubCharacteristics 0x%B\n", hub->wHubCharacteristics);
  return STATUS_SUCCESS;
}
