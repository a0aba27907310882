// KnUsbConfigurationDesc: owns one configuration descriptor set (at most 4096 bytes) and walks it.
// Walks never read beyond the held bytes.
#pragma once
#include <ntddk.h>
#include <usb.h>

class KnPnPLowerDeviceUsb;

class KnUsbConfigurationDesc {
 public:
  static const ULONG kMaxLength = 4096;
  // Pool tag of the USB access layer: "USBC" in memory.
  static const ULONG kPoolTag = 0x43425355;

  KnUsbConfigurationDesc();
  ~KnUsbConfigurationDesc();

  void SetLowerDevice(KnPnPLowerDeviceUsb* lowerDevice) { mLowerDevice = lowerDevice; }

  // PASSIVE_LEVEL. Reads the whole set of the configuration with that index; empty on failure.
  NTSTATUS GetAndAllocate(UCHAR configurationIndex, ULONG timeoutMs);
  // Takes over a complete set in pool memory; the holder must be empty.
  void Attach(PUSB_CONFIGURATION_DESCRIPTOR descriptor);
  // Forgets the set without freeing it.
  void Detach();
  void Release();

  PUSB_CONFIGURATION_DESCRIPTOR GetDescriptor() const { return mDescriptor; }
  ULONG GetLength() const { return mLength; }

  // The next descriptor of that type after start (NULL = the configuration descriptor), or NULL.
  PUSB_COMMON_DESCRIPTOR FindNextDescriptor(PVOID start, UCHAR descriptorType) const;
  // The first interface descriptor at or after start matching every criterion that is not -1.
  PUSB_INTERFACE_DESCRIPTOR FindInterfaceDescriptor(PVOID start, LONG interfaceNumber, LONG alternateSetting,
                                                    LONG interfaceClass, LONG interfaceSubClass,
                                                    LONG interfaceProtocol) const;

 private:
  // The descriptor at position if the walk may look at it: its header lies before the end and
  // it fits in what is left. NULL ends the walk.
  PUSB_COMMON_DESCRIPTOR DescriptorAt(const UCHAR* position) const;
  static bool Matches(LONG criterion, UCHAR value) { return criterion == -1 || criterion == value; }

  KnPnPLowerDeviceUsb* mLowerDevice;
  PUSB_CONFIGURATION_DESCRIPTOR mDescriptor;
  ULONG mLength;
  PUCHAR mEnd;
};
