// KnPnPLowerDeviceUsb: the lower device of an FDO whose stack ends in a USB device. Every URB the
// driver originates, every descriptor request and the port cycle go through it, each on an IRP of
// its own, so calls may run concurrently.
#pragma once
#include <ntddk.h>
#include <usb.h>

#include "knpnplowerdevice.h"

class KnPnPLowerDeviceUsb : public KnPnPLowerDevice {
 public:
  KnPnPLowerDeviceUsb() {}
  ~KnPnPLowerDeviceUsb() override {}

  // PASSIVE_LEVEL. The IRP's status, or STATUS_IO_TIMEOUT once the cancelled IRP is back.
  // The URB's own status is left for the caller to read.
  NTSTATUS SubmitUrbAndWait(PURB urb, ULONG timeoutMs);
  // Up to DISPATCH_LEVEL. completionRoutine runs exactly once for a sent IRP (*willComplete TRUE),
  // owns the IRP (frees it with IoFreeIrp) and returns STATUS_MORE_PROCESSING_REQUIRED.
  NTSTATUS SubmitUrb(PURB urb, PIO_COMPLETION_ROUTINE completionRoutine, PVOID context, PBOOLEAN willComplete);
  // PASSIVE_LEVEL. Makes the hub simulate an unplug and re-plug of the device.
  NTSTATUS CylePort(ULONG timeoutMs);

  // Descriptor requests, all at PASSIVE_LEVEL and synchronous.
  NTSTATUS GetDescriptorFromDevice(UCHAR descriptorType, UCHAR index, USHORT languageId, PVOID buffer,
                                   ULONG bufferLength, PULONG bytesReturned, ULONG timeoutMs);
  // Anything but exactly 18 bytes is STATUS_UNSUCCESSFUL.
  NTSTATUS GetDeviceDescriptor(PUSB_DEVICE_DESCRIPTOR descriptor, ULONG timeoutMs);
  NTSTATUS GetConfigurationDescriptor(UCHAR configurationIndex, PVOID buffer, ULONG bufferLength,
                                      PULONG bytesReturned, ULONG timeoutMs);
  // Uses languageId when the device lists it, else the device's first language.
  NTSTATUS GetStringDescriptor(UCHAR stringIndex, USHORT languageId, PVOID buffer, ULONG bufferLength,
                               PULONG bytesReturned, ULONG timeoutMs);
  // The string's characters, always zero-terminated within destinationSize bytes.
  NTSTATUS GetString(UCHAR stringIndex, USHORT languageId, PWCHAR destination, ULONG destinationSize,
                     ULONG timeoutMs);

 private:
  // An internal device control IRP for the stack below, or NULL.
  PIRP AllocateInternalControlIrp(ULONG ioControlCode, PVOID argument1);
};
