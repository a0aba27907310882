// KnUsbInterface: one selected interface of the configuration, with its handle, the
// descriptor of its selected alternate setting and its pipes in the bus driver's order.
#pragma once
#include <ntddk.h>
#include <usb.h>

class KnPnPLowerDeviceUsb;
class KnUsbPipe;

// The fixed part of USBD_INTERFACE_INFORMATION: everything before the pipe array.
struct KnUsbInterfaceInformation {
  USHORT Length;
  UCHAR InterfaceNumber;
  UCHAR AlternateSetting;
  UCHAR Class;
  UCHAR SubClass;
  UCHAR Protocol;
  UCHAR Reserved;
  USBD_INTERFACE_HANDLE InterfaceHandle;
  ULONG NumberOfPipes;
};

class KnUsbInterface {
 public:
  static const ULONG kAnyDirection = 0xFFFFFFFF;
  static const ULONG kAnyType = 0xFFFFFFFF;

  KnUsbInterface();
  ~KnUsbInterface();  // deletes the pipes

  // A new pipe at the end of the list, bound to this interface and its lower device; NULL when
  // out of memory.
  KnUsbPipe* AddPipe();
  // The first pipe after After (from the head when NULL) whose direction (0x80 IN, 0 OUT) and
  // USBD_PIPE_TYPE match, each kAny... matching everything.
  KnUsbPipe* FindPipe(KnUsbPipe* After, ULONG Direction, ULONG Type);
  KnUsbPipe* FindPipeByHandle(USBD_PIPE_HANDLE Handle);
  void DeletePipes();

  LIST_ENTRY mLink;  // in the configuration's interface list
  KnUsbInterfaceInformation mInterfaceInformation;
  USB_INTERFACE_DESCRIPTOR mInterfaceDescriptor;
  KnPnPLowerDeviceUsb* mLowerDevice;

 private:
  KnUsbInterface(const KnUsbInterface&);
  KnUsbInterface& operator=(const KnUsbInterface&);

  LIST_ENTRY mPipes;
};
