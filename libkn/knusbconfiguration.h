// KnUsbConfiguration: the one configuration really selected on the device, its interface
// objects (alternate setting 0 after selection, switchable one by one) and their pipes.
#pragma once
#include <ntddk.h>
#include <usb.h>

#include "knspinlock.h"

class KnPnPLowerDeviceUsb;
class KnUsbConfigurationDesc;
class KnUsbInterface;

class KnUsbConfiguration {
 public:
  static const UCHAR kAnyInterface = 0xFF;
  static const USHORT kAnyCode = 0xFFFF;

  KnUsbConfiguration();
  ~KnUsbConfiguration();  // the owner must have unconfigured

  // PASSIVE_LEVEL. Selects the held configuration with every interface in alternate setting 0.
  NTSTATUS SetConfiguration(KnUsbConfigurationDesc* Descriptor, ULONG MaximumTransferSize, ULONG TimeoutMs);
  // PASSIVE_LEVEL. Forgets the interfaces; with Send, also puts the device into the unconfigured state.
  NTSTATUS UnconfigureDevice(BOOLEAN Send, ULONG TimeoutMs);
  // PASSIVE_LEVEL. Replaces the interface object of InterfaceNumber by one for AlternateSetting;
  // after a failed switch the interface has no object.
  NTSTATUS SetAlternateSetting(KnUsbConfigurationDesc* Descriptor, UCHAR InterfaceNumber, UCHAR AlternateSetting,
                               ULONG MaximumTransferSize, ULONG TimeoutMs);

  KnUsbInterface* AddUsbInterface(const USBD_INTERFACE_INFORMATION* Information,
                                  const USB_INTERFACE_DESCRIPTOR* InterfaceDescriptor);
  void DeleteInterfaces();
  // Up to DISPATCH_LEVEL. The first interface matching every criterion that is not a wildcard.
  KnUsbInterface* FindInterface(UCHAR InterfaceNumber, USHORT Class, USHORT SubClass, USHORT Protocol);
  // Up to DISPATCH_LEVEL. The stored pipe information of the pipe with that handle, or NULL.
  PUSBD_PIPE_INFORMATION FindPipeByHandle(USBD_PIPE_HANDLE Handle);

  USBD_CONFIGURATION_HANDLE GetConfigurationHandle() const { return mConfigurationHandle; }
  UCHAR GetConfigurationValue() const { return mConfigurationValue; }

  KnPnPLowerDeviceUsb* mLowerDevice;  // set once by the owner, not owned

 private:
  KnUsbConfiguration(const KnUsbConfiguration&);
  KnUsbConfiguration& operator=(const KnUsbConfiguration&);

  void TraceInterfaceInformation(const USBD_INTERFACE_INFORMATION* Information);

  USBD_CONFIGURATION_HANDLE mConfigurationHandle;
  UCHAR mConfigurationValue;
  LIST_ENTRY mInterfaces;
  KnSpinLock mInterfacesLock;
};
