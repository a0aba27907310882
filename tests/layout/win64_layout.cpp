// Sizes and offsets that the Windows x64 kernel and the USB stack fix in their binary
// interfaces. The same file is compiled against wdmsim's headers by the host compiler
// (with -fshort-wchar) and against the mingw-w64 DDK by the cross compiler, so the
// driver source sees the same layouts on both targets. It contains no code: a wrong
// layout stops the compile and the message names the type and field.
//
// Both sides must be built as the debug kernel headers are (DBG=1), which gives
// IO_REMOVE_LOCK its tracking block.
#include <ntddk.h>
#include <usb.h>
#include <usbdlib.h>
#include <usbioctl.h>

#define WIN64_SIZE(type, bytes) \
  static_assert(sizeof(type) == (bytes), "sizeof(" #type ") must be " #bytes " on Win64")
#define WIN64_OFFSET(type, field, bytes) \
  static_assert(FIELD_OFFSET(type, field) == (bytes), \
                "offset of " #type "." #field " must be " #bytes " on Win64")

// ---------------------------------------------------------------- scalar types
// LLP64: long stays 32 bits, pointers and the pointer-sized integers are 64.
WIN64_SIZE(PVOID, 8);
WIN64_SIZE(ULONG_PTR, 8);
WIN64_SIZE(SIZE_T, 8);
WIN64_SIZE(HANDLE, 8);
WIN64_SIZE(KSPIN_LOCK, 8);
WIN64_SIZE(UCHAR, 1);
WIN64_SIZE(BOOLEAN, 1);
WIN64_SIZE(KIRQL, 1);
WIN64_SIZE(CCHAR, 1);
WIN64_SIZE(USHORT, 2);
WIN64_SIZE(ULONG, 4);
WIN64_SIZE(LONG, 4);
WIN64_SIZE(NTSTATUS, 4);
WIN64_SIZE(LONGLONG, 8);
WIN64_SIZE(LARGE_INTEGER, 8);
// UTF-16 code units, also for literals: L"" text is handed to the kernel as is.
WIN64_SIZE(WCHAR, 2);
static_assert(sizeof(L"ab") == 6, "L\"\" literals must use 16-bit code units");
WIN64_SIZE(GUID, 16);
// Enumerations travel inside IRPs as 32-bit fields.
WIN64_SIZE(POOL_TYPE, 4);
WIN64_SIZE(DEVICE_POWER_STATE, 4);
WIN64_SIZE(SYSTEM_POWER_STATE, 4);
WIN64_SIZE(POWER_STATE, 4);

// ---------------------------------------------------------------- lists and strings
WIN64_SIZE(LIST_ENTRY, 16);
WIN64_OFFSET(LIST_ENTRY, Blink, 8);
WIN64_SIZE(UNICODE_STRING, 16);
WIN64_OFFSET(UNICODE_STRING, Length, 0);
WIN64_OFFSET(UNICODE_STRING, MaximumLength, 2);
WIN64_OFFSET(UNICODE_STRING, Buffer, 8);

// ---------------------------------------------------------------- dispatcher objects
// Opaque to the driver, but embedded in its device extensions: the size is the contract.
WIN64_SIZE(KEVENT, 24);
WIN64_SIZE(KMUTEX, 56);
WIN64_SIZE(KTIMER, 64);
WIN64_SIZE(KDPC, 64);

// ---------------------------------------------------------------- IRP
WIN64_SIZE(IO_STATUS_BLOCK, 16);
WIN64_OFFSET(IO_STATUS_BLOCK, Information, 8);

WIN64_SIZE(IRP, 208);
WIN64_OFFSET(IRP, MdlAddress, 8);
WIN64_OFFSET(IRP, Flags, 16);
WIN64_OFFSET(IRP, AssociatedIrp.SystemBuffer, 24);
WIN64_OFFSET(IRP, IoStatus, 48);
WIN64_OFFSET(IRP, IoStatus.Information, 56);
WIN64_OFFSET(IRP, RequestorMode, 64);
WIN64_OFFSET(IRP, PendingReturned, 65);
WIN64_OFFSET(IRP, StackCount, 66);
WIN64_OFFSET(IRP, CurrentLocation, 67);
WIN64_OFFSET(IRP, Cancel, 68);
WIN64_OFFSET(IRP, CancelIrql, 69);
WIN64_OFFSET(IRP, UserIosb, 72);
WIN64_OFFSET(IRP, UserEvent, 80);
WIN64_OFFSET(IRP, CancelRoutine, 104);
WIN64_OFFSET(IRP, UserBuffer, 112);
WIN64_OFFSET(IRP, Tail, 120);
// Queues keep their links in the IRP itself and drivers borrow DriverContext.
WIN64_OFFSET(IRP, Tail.Overlay.DriverContext, 120);
WIN64_OFFSET(IRP, Tail.Overlay.Thread, 152);
WIN64_OFFSET(IRP, Tail.Overlay.ListEntry, 168);
WIN64_OFFSET(IRP, Tail.Overlay.CurrentStackLocation, 184);
WIN64_OFFSET(IRP, Tail.Overlay.OriginalFileObject, 192);

// ---------------------------------------------------------------- stack location
// Parameter members marked POINTER_ALIGNMENT in the DDK start on 8-byte boundaries:
// an internal control code is at 24, not right after the two lengths.
WIN64_SIZE(IO_STACK_LOCATION, 72);
WIN64_OFFSET(IO_STACK_LOCATION, MinorFunction, 1);
WIN64_OFFSET(IO_STACK_LOCATION, Flags, 2);
WIN64_OFFSET(IO_STACK_LOCATION, Control, 3);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters, 8);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.DeviceIoControl.OutputBufferLength, 8);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.DeviceIoControl.InputBufferLength, 16);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.DeviceIoControl.IoControlCode, 24);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.DeviceIoControl.Type3InputBuffer, 32);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.Others.Argument1, 8);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.Others.Argument2, 16);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.Others.Argument4, 32);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.Read.Length, 8);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.Read.ByteOffset, 24);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.Power.Type, 16);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.Power.State, 24);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.Power.ShutdownType, 32);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.WaitWake.PowerState, 8);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.QueryDeviceRelations.Type, 8);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.QueryId.IdType, 8);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.QueryDeviceText.DeviceTextType, 8);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.QueryDeviceText.LocaleId, 16);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.UsageNotification.Type, 16);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.DeviceCapabilities.Capabilities, 8);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.QueryInterface.Size, 16);
WIN64_OFFSET(IO_STACK_LOCATION, Parameters.QueryInterface.Interface, 24);
WIN64_OFFSET(IO_STACK_LOCATION, DeviceObject, 40);
WIN64_OFFSET(IO_STACK_LOCATION, FileObject, 48);
WIN64_OFFSET(IO_STACK_LOCATION, CompletionRoutine, 56);
WIN64_OFFSET(IO_STACK_LOCATION, Context, 64);

// ---------------------------------------------------------------- device and driver objects
// The kernel declares DEVICE_OBJECT 16-byte aligned, which makes it 336 bytes; mingw's
// DDK leaves that out and gets 328. The I/O manager allocates it, so only the offsets
// of the fields drivers read and write are part of the contract, not the total.
WIN64_OFFSET(DEVICE_OBJECT, ReferenceCount, 4);
WIN64_OFFSET(DEVICE_OBJECT, DriverObject, 8);
WIN64_OFFSET(DEVICE_OBJECT, NextDevice, 16);
WIN64_OFFSET(DEVICE_OBJECT, AttachedDevice, 24);
WIN64_OFFSET(DEVICE_OBJECT, CurrentIrp, 32);
WIN64_OFFSET(DEVICE_OBJECT, Flags, 48);
WIN64_OFFSET(DEVICE_OBJECT, Characteristics, 52);
WIN64_OFFSET(DEVICE_OBJECT, DeviceExtension, 64);
WIN64_OFFSET(DEVICE_OBJECT, DeviceType, 72);
WIN64_OFFSET(DEVICE_OBJECT, StackSize, 76);
WIN64_OFFSET(DEVICE_OBJECT, AlignmentRequirement, 152);
WIN64_OFFSET(DEVICE_OBJECT, Dpc, 200);
WIN64_OFFSET(DEVICE_OBJECT, DeviceObjectExtension, 312);

WIN64_SIZE(DRIVER_OBJECT, 336);
WIN64_OFFSET(DRIVER_OBJECT, DeviceObject, 8);
WIN64_OFFSET(DRIVER_OBJECT, Flags, 16);
WIN64_OFFSET(DRIVER_OBJECT, DriverExtension, 48);
WIN64_OFFSET(DRIVER_OBJECT, DriverName, 56);
WIN64_OFFSET(DRIVER_OBJECT, DriverStartIo, 96);
WIN64_OFFSET(DRIVER_OBJECT, DriverUnload, 104);
WIN64_OFFSET(DRIVER_OBJECT, MajorFunction, 112);
WIN64_OFFSET(DRIVER_OBJECT, MajorFunction[IRP_MJ_PNP], 328);
WIN64_OFFSET(DRIVER_EXTENSION, AddDevice, 8);
WIN64_OFFSET(DRIVER_EXTENSION, ServiceKeyName, 24);

// ---------------------------------------------------------------- PnP and power
WIN64_SIZE(DEVICE_CAPABILITIES, 64);
WIN64_OFFSET(DEVICE_CAPABILITIES, Version, 2);
WIN64_OFFSET(DEVICE_CAPABILITIES, Address, 8);
WIN64_OFFSET(DEVICE_CAPABILITIES, UINumber, 12);
WIN64_OFFSET(DEVICE_CAPABILITIES, DeviceState, 16);
WIN64_OFFSET(DEVICE_CAPABILITIES, SystemWake, 44);
WIN64_OFFSET(DEVICE_CAPABILITIES, DeviceWake, 48);
WIN64_OFFSET(DEVICE_CAPABILITIES, D1Latency, 52);

// A relation list is a count and then the objects, allocated for Count entries.
WIN64_SIZE(DEVICE_RELATIONS, 16);
WIN64_OFFSET(DEVICE_RELATIONS, Objects, 8);

// ---------------------------------------------------------------- remove lock, error log
// The debug kernel's remove lock: the common block and the tracking block.
WIN64_SIZE(IO_REMOVE_LOCK, 120);
WIN64_OFFSET(IO_REMOVE_LOCK, Dbg, 32);
WIN64_OFFSET(IO_REMOVE_LOCK, Common.IoCount, 4);
WIN64_OFFSET(IO_REMOVE_LOCK, Common.RemoveEvent, 8);

WIN64_SIZE(IO_ERROR_LOG_PACKET, 48);
WIN64_OFFSET(IO_ERROR_LOG_PACKET, DumpDataSize, 2);
WIN64_OFFSET(IO_ERROR_LOG_PACKET, ErrorCode, 12);
WIN64_OFFSET(IO_ERROR_LOG_PACKET, UniqueErrorValue, 16);
WIN64_OFFSET(IO_ERROR_LOG_PACKET, FinalStatus, 20);
WIN64_OFFSET(IO_ERROR_LOG_PACKET, DeviceOffset, 32);
WIN64_OFFSET(IO_ERROR_LOG_PACKET, DumpData, 40);

// ---------------------------------------------------------------- USB descriptors
// Byte-packed as on the wire: the driver reads them straight out of device data.
WIN64_SIZE(USB_COMMON_DESCRIPTOR, 2);
WIN64_SIZE(USB_DEVICE_DESCRIPTOR, 18);
WIN64_OFFSET(USB_DEVICE_DESCRIPTOR, idVendor, 8);
WIN64_SIZE(USB_CONFIGURATION_DESCRIPTOR, 9);
WIN64_OFFSET(USB_CONFIGURATION_DESCRIPTOR, wTotalLength, 2);
WIN64_OFFSET(USB_CONFIGURATION_DESCRIPTOR, bNumInterfaces, 4);
WIN64_SIZE(USB_INTERFACE_DESCRIPTOR, 9);
WIN64_SIZE(USB_ENDPOINT_DESCRIPTOR, 7);
WIN64_OFFSET(USB_ENDPOINT_DESCRIPTOR, wMaxPacketSize, 4);
WIN64_SIZE(USB_INTERFACE_ASSOCIATION_DESCRIPTOR, 8);
WIN64_SIZE(USB_STRING_DESCRIPTOR, 4);

// ---------------------------------------------------------------- URBs
// The USB stack below reads these at fixed offsets; every request has the 24-byte header.
WIN64_SIZE(URB, 152);
WIN64_SIZE(struct _URB_HEADER, 24);
WIN64_OFFSET(struct _URB_HEADER, Function, 2);
WIN64_OFFSET(struct _URB_HEADER, Status, 4);
WIN64_OFFSET(struct _URB_HEADER, UsbdDeviceHandle, 8);
WIN64_OFFSET(struct _URB_HEADER, UsbdFlags, 16);

WIN64_SIZE(struct _URB_BULK_OR_INTERRUPT_TRANSFER, 128);
WIN64_OFFSET(struct _URB_BULK_OR_INTERRUPT_TRANSFER, PipeHandle, 24);
WIN64_OFFSET(struct _URB_BULK_OR_INTERRUPT_TRANSFER, TransferFlags, 32);
WIN64_OFFSET(struct _URB_BULK_OR_INTERRUPT_TRANSFER, TransferBufferLength, 36);
WIN64_OFFSET(struct _URB_BULK_OR_INTERRUPT_TRANSFER, TransferBuffer, 40);
WIN64_OFFSET(struct _URB_BULK_OR_INTERRUPT_TRANSFER, TransferBufferMDL, 48);
WIN64_OFFSET(struct _URB_BULK_OR_INTERRUPT_TRANSFER, UrbLink, 56);
WIN64_OFFSET(URB, UrbBulkOrInterruptTransfer.TransferBuffer, 40);

WIN64_SIZE(struct _URB_PIPE_REQUEST, 40);
WIN64_SIZE(struct _URB_CONTROL_TRANSFER, 136);
WIN64_OFFSET(struct _URB_CONTROL_TRANSFER, SetupPacket, 128);

WIN64_SIZE(struct _URB_SELECT_CONFIGURATION, 88);
WIN64_OFFSET(struct _URB_SELECT_CONFIGURATION, ConfigurationDescriptor, 24);
WIN64_OFFSET(struct _URB_SELECT_CONFIGURATION, ConfigurationHandle, 32);
WIN64_OFFSET(struct _URB_SELECT_CONFIGURATION, Interface, 40);
WIN64_SIZE(struct _URB_SELECT_INTERFACE, 80);
WIN64_OFFSET(struct _URB_SELECT_INTERFACE, ConfigurationHandle, 24);
WIN64_OFFSET(struct _URB_SELECT_INTERFACE, Interface, 32);

WIN64_SIZE(struct _URB_CONTROL_DESCRIPTOR_REQUEST, 136);
WIN64_OFFSET(struct _URB_CONTROL_DESCRIPTOR_REQUEST, TransferBufferLength, 36);
WIN64_OFFSET(struct _URB_CONTROL_DESCRIPTOR_REQUEST, TransferBuffer, 40);
WIN64_OFFSET(struct _URB_CONTROL_DESCRIPTOR_REQUEST, Index, 130);
WIN64_OFFSET(struct _URB_CONTROL_DESCRIPTOR_REQUEST, DescriptorType, 131);
WIN64_OFFSET(struct _URB_CONTROL_DESCRIPTOR_REQUEST, LanguageId, 132);

WIN64_SIZE(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, 136);
WIN64_OFFSET(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, TransferFlags, 32);
WIN64_OFFSET(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, RequestTypeReservedBits, 128);
WIN64_OFFSET(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, Request, 129);
WIN64_OFFSET(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, Value, 130);
WIN64_OFFSET(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, Index, 132);
WIN64_SIZE(struct _URB_CONTROL_FEATURE_REQUEST, 136);
WIN64_OFFSET(struct _URB_CONTROL_FEATURE_REQUEST, FeatureSelector, 130);
WIN64_OFFSET(struct _URB_CONTROL_FEATURE_REQUEST, Index, 132);
WIN64_SIZE(struct _URB_CONTROL_GET_STATUS_REQUEST, 136);
WIN64_OFFSET(struct _URB_CONTROL_GET_STATUS_REQUEST, TransferBuffer, 40);
WIN64_OFFSET(struct _URB_CONTROL_GET_STATUS_REQUEST, Index, 132);

// ---------------------------------------------------------------- USBD interface and pipe records
WIN64_SIZE(USBD_PIPE_INFORMATION, 24);
WIN64_OFFSET(USBD_PIPE_INFORMATION, PipeType, 4);
WIN64_OFFSET(USBD_PIPE_INFORMATION, PipeHandle, 8);
WIN64_OFFSET(USBD_PIPE_INFORMATION, MaximumTransferSize, 16);
WIN64_OFFSET(USBD_PIPE_INFORMATION, PipeFlags, 20);
// A fixed part of 24 bytes followed by NumberOfPipes pipe records.
WIN64_OFFSET(USBD_INTERFACE_INFORMATION, InterfaceHandle, 8);
WIN64_OFFSET(USBD_INTERFACE_INFORMATION, NumberOfPipes, 16);
WIN64_OFFSET(USBD_INTERFACE_INFORMATION, Pipes, 24);
WIN64_SIZE(USBD_INTERFACE_INFORMATION, 48);
WIN64_SIZE(USBD_INTERFACE_LIST_ENTRY, 16);

// ---------------------------------------------------------------- hub and idle controls
WIN64_SIZE(USB_HUB_DESCRIPTOR, 71);
WIN64_SIZE(USB_HUB_INFORMATION, 72);
WIN64_OFFSET(USB_HUB_INFORMATION, HubIsBusPowered, 71);
WIN64_SIZE(USB_NODE_INFORMATION, 76);
WIN64_OFFSET(USB_NODE_INFORMATION, u, 4);
WIN64_SIZE(USB_IDLE_CALLBACK_INFO, 16);
