#include "knpnplowerdeviceusb.h"

#include <usbdlib.h>
#include <usbioctl.h>

#include "kntrace.h"

namespace {
const ULONG kStringDescriptorBufferSize = 256;
const ULONG kMaxStringReadLength = 255;
const ULONG kLanguageTableMinimumLength = 4;
}  // namespace

PIRP KnPnPLowerDeviceUsb::AllocateInternalControlIrp(ULONG ioControlCode, PVOID argument1) {
  PIRP irp = IoAllocateIrp(GetStackSize(), FALSE);
  if (irp == NULL) {
    return NULL;
  }
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
  stack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
  stack->Parameters.DeviceIoControl.IoControlCode = ioControlCode;
  stack->Parameters.Others.Argument1 = argument1;
  return irp;
}

NTSTATUS KnPnPLowerDeviceUsb::SubmitUrbAndWait(PURB urb, ULONG timeoutMs) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(urb != NULL);
  PIRP irp = AllocateInternalControlIrp(IOCTL_INTERNAL_USB_SUBMIT_URB, urb);
  if (irp == NULL) {
    KN_TRACE(0x1, "%P:KnPnPLowerDeviceUsb::SubmitUrbAndWait: FATAL! IoAllocateIrp failed.\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  NTSTATUS stat = CallDriverAndWait(irp, timeoutMs);
  if (!NT_SUCCESS(stat)) {
    KN_TRACE(0x2, "%P:KnPnPLowerDeviceUsb::SubmitUrbAndWait: CallDriverAndWait failed, stat=%N\n", stat);
  }
  IoFreeIrp(irp);
  return stat;
}

NTSTATUS KnPnPLowerDeviceUsb::SubmitUrb(PURB urb, PIO_COMPLETION_ROUTINE completionRoutine, PVOID context,
                                        PBOOLEAN willComplete) {
  KN_ASSERT_IRQL_LTEQ_DISPATCH();
  KN_ASSERT(urb != NULL);
  KN_ASSERT(completionRoutine != NULL);
  PIRP irp = AllocateInternalControlIrp(IOCTL_INTERNAL_USB_SUBMIT_URB, urb);
  if (irp == NULL) {
    KN_TRACE(0x1, "%P:KnPnPLowerDeviceUsb::SubmitUrb: FATAL! IoAllocateIrp failed.\n");
    if (willComplete != NULL) {
      *willComplete = FALSE;
    }
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  IoSetCompletionRoutine(irp, completionRoutine, context, TRUE, TRUE, TRUE);
  // Before the IRP is sent: the routine may run before CallDriver returns.
  if (willComplete != NULL) {
    *willComplete = TRUE;
  }
  NTSTATUS stat = CallDriver(irp);
  if (!NT_SUCCESS(stat)) {
    KN_TRACE(0x1, "%P:KnPnPLowerDeviceUsb::SubmitUrb: CallDriver failed, stat=%N\n", stat);
  }
  return stat;
}

NTSTATUS KnPnPLowerDeviceUsb::CylePort(ULONG timeoutMs) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  PIRP irp = AllocateInternalControlIrp(IOCTL_INTERNAL_USB_CYCLE_PORT, NULL);
  if (irp == NULL) {
    KN_TRACE(0x1, "%P:KnPnPLowerDeviceUsb::CylePort: FATAL! IoAllocateIrp failed.\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  NTSTATUS stat = CallDriverAndWait(irp, timeoutMs);
  if (!NT_SUCCESS(stat)) {
    KN_TRACE(0x2, "%P:KnPnPLowerDeviceUsb::CylePort: CallDriverAndWait failed, stat=%N\n", stat);
  }
  IoFreeIrp(irp);
  return stat;
}

NTSTATUS KnPnPLowerDeviceUsb::GetDescriptorFromDevice(UCHAR descriptorType, UCHAR index, USHORT languageId,
                                                      PVOID buffer, ULONG bufferLength, PULONG bytesReturned,
                                                      ULONG timeoutMs) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  URB urb;
  RtlZeroMemory(&urb, sizeof(urb));
  UsbBuildGetDescriptorRequest(&urb, (USHORT)sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST), descriptorType, index,
                               languageId, buffer, NULL, bufferLength, NULL);
  NTSTATUS stat = SubmitUrbAndWait(&urb, timeoutMs);
  if (NT_SUCCESS(stat) && bytesReturned != NULL) {
    *bytesReturned = urb.UrbControlDescriptorRequest.TransferBufferLength;
  }
  return stat;
}

NTSTATUS KnPnPLowerDeviceUsb::GetDeviceDescriptor(PUSB_DEVICE_DESCRIPTOR descriptor, ULONG timeoutMs) {
  ULONG bytesReturned = 0;
  NTSTATUS stat = GetDescriptorFromDevice(USB_DEVICE_DESCRIPTOR_TYPE, 0, 0, descriptor,
                                          sizeof(USB_DEVICE_DESCRIPTOR), &bytesReturned, timeoutMs);
  if (NT_SUCCESS(stat) && bytesReturned != sizeof(USB_DEVICE_DESCRIPTOR)) {
    stat = STATUS_UNSUCCESSFUL;
  }
  return stat;
}

NTSTATUS KnPnPLowerDeviceUsb::GetConfigurationDescriptor(UCHAR configurationIndex, PVOID buffer, ULONG bufferLength,
                                                         PULONG bytesReturned, ULONG timeoutMs) {
  return GetDescriptorFromDevice(USB_CONFIGURATION_DESCRIPTOR_TYPE, configurationIndex, 0, buffer, bufferLength,
                                 bytesReturned, timeoutMs);
}

NTSTATUS KnPnPLowerDeviceUsb::GetStringDescriptor(UCHAR stringIndex, USHORT languageId, PVOID buffer,
                                                  ULONG bufferLength, PULONG bytesReturned, ULONG timeoutMs) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  UCHAR languageTable[kStringDescriptorBufferSize];
  RtlZeroMemory(languageTable, sizeof(languageTable));
  ULONG tableLength = 0;
  NTSTATUS tableStat = GetDescriptorFromDevice(USB_STRING_DESCRIPTOR_TYPE, 0, languageId, languageTable,
                                               sizeof(languageTable), &tableLength, timeoutMs);
  bool haveTable = NT_SUCCESS(tableStat) && tableLength >= kLanguageTableMinimumLength;
  if (tableLength > sizeof(languageTable)) {
    tableLength = sizeof(languageTable);
  }

  USHORT chosenLanguage = 0;
  bool listed = false;
  if (haveTable) {
    // Entries are little-endian 16-bit IDs after the 2-byte header; a trailing odd byte is no entry.
    for (ULONG offset = 2; offset + 1 < tableLength; offset += 2) {
      USHORT entry = (USHORT)(languageTable[offset] | (languageTable[offset + 1] << 8));
      if (entry == languageId) {
        chosenLanguage = entry;
        listed = true;
        break;
      }
    }
    if (languageId == 0 || !listed) {
      chosenLanguage = (USHORT)(languageTable[2] | (languageTable[3] << 8));
    }
  }
  return GetDescriptorFromDevice(USB_STRING_DESCRIPTOR_TYPE, stringIndex, chosenLanguage, buffer, bufferLength,
                                 bytesReturned, timeoutMs);
}

NTSTATUS KnPnPLowerDeviceUsb::GetString(UCHAR stringIndex, USHORT languageId, PWCHAR destination,
                                        ULONG destinationSize, ULONG timeoutMs) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  ULONG readLength = destinationSize < kMaxStringReadLength ? destinationSize : kMaxStringReadLength;
  RtlZeroMemory(destination, destinationSize);

  UCHAR descriptor[kStringDescriptorBufferSize];
  RtlZeroMemory(descriptor, sizeof(descriptor));
  ULONG bytesReturned = 0;
  NTSTATUS stat =
      GetStringDescriptor(stringIndex, languageId, descriptor, readLength, &bytesReturned, timeoutMs);
  if (NT_SUCCESS(stat)) {
    // A stack that claims more than was asked for is not trusted beyond the read length.
    if (bytesReturned > readLength) {
      bytesReturned = readLength;
    }
    ULONG characters = bytesReturned >= 2 ? (bytesReturned - 2) / 2 : 0;
    // readLength <= destinationSize, so the last character of the destination stays zero.
    RtlCopyMemory(destination, descriptor + 2, characters * sizeof(WCHAR));
  }
  return stat;
}
