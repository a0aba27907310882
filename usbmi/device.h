// Device: the parent function device object of one composite USB device.
//
// First step: the device object, its place on the device stack through the USB lower
// device it owns, and its PnP lock. The settings, configuration, children and selective
// suspend come with the parent's start.
#pragma once

#include <ntddk.h>

#include <usb.h>

#include "knbusfdo.h"
#include "knmutex.h"
#include "knpnplowerdeviceusb.h"
#include "knusbconfigurationdesc.h"

struct IadEntry;
struct InterfaceEntry;

class Device : public KnBusFdo {
 public:
  Device();
  ~Device() override;

  // The PnP lock of the parent and of all its children.
  void Lock() override;      // 11
  void Unlock() override;    // 12

  // Creates the device object and attaches it on top of the PDO's stack.
  virtual NTSTATUS OnAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject);  // 30

  // --- Interface enumeration: the division of the parent's set into functions ---
  // Empties both lists, then fills them from mConfigDesc, which must stay held while they exist.
  void CreateLists();
  // Deletes every entry of both lists.
  void FreeLists();
  // The first interface entry with that number, taken off the list (the caller deletes it), or NULL.
  InterfaceEntry* TakeInterface(UCHAR InterfaceNumber);
  // Takes the next function off the lists: its first interface (NULL when there is none),
  // its interface count and the bytes of descriptors from that interface on.
  PUSB_INTERFACE_DESCRIPTOR GetInterfaces(ULONG* InterfaceCount, ULONG* Size);
  // Takes the notification interface (FF/01/00) out, so that no child is made for it.
  void SSGetSelSuspendInterface();
  // A function's own configuration descriptor set: the parent's header with wTotalLength and
  // bNumInterfaces replaced, then Size bytes from FirstInterface on (never read past the
  // parent's ParentLength bytes). Pool tag "USBM"; NULL when no memory.
  static PUSB_CONFIGURATION_DESCRIPTOR BuildChildConfigurationDescriptor(const USB_CONFIGURATION_DESCRIPTOR* Parent,
                                                                         ULONG ParentLength,
                                                                         const USB_INTERFACE_DESCRIPTOR* FirstInterface,
                                                                         ULONG InterfaceCount, ULONG Size);

 protected:
  // The next interface association descriptor after Start in mConfigDesc, or NULL.
  PUCHAR NextIad(PVOID Start) const;

  KnUsbConfigurationDesc mConfigDesc;  // the selected configuration's descriptor set
  LIST_ENTRY mIadList;                 // IadEntry, in descriptor order
  LIST_ENTRY mInterfaceList;           // InterfaceEntry, in descriptor order
  // --- end of interface enumeration ---

 private:
  KnPnPLowerDeviceUsb mLowerDeviceUsb;  // the stack below; the FDO's mLowerDevice points here
  KnMutex mDeviceMutex;
};
