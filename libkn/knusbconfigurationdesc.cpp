#include "knusbconfigurationdesc.h"

#include "knmemory.h"
#include "knpnplowerdeviceusb.h"
#include "kntrace.h"

KnUsbConfigurationDesc::KnUsbConfigurationDesc() : mLowerDevice(NULL), mDescriptor(NULL), mLength(0), mEnd(NULL) {}

KnUsbConfigurationDesc::~KnUsbConfigurationDesc() { Release(); }

NTSTATUS KnUsbConfigurationDesc::GetAndAllocate(UCHAR configurationIndex, ULONG timeoutMs) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(mLowerDevice != NULL);
  Release();

  USB_CONFIGURATION_DESCRIPTOR header;
  RtlZeroMemory(&header, sizeof(header));
  ULONG received = 0;
  NTSTATUS stat =
      mLowerDevice->GetConfigurationDescriptor(configurationIndex, &header, sizeof(header), &received, timeoutMs);
  if (!NT_SUCCESS(stat)) {
    KN_TRACE(0x1, "%P:KnUsbConfigurationDesc::SetConfiguration: Get Config Descriptor failed: %N\n", stat);
    return stat;
  }
  if (received != sizeof(header)) {
    KN_TRACE(0x1, "%P:KnUsbConfigurationDesc::GetAndAllocate: Invalid length %u\n", received);
    return STATUS_UNSUCCESSFUL;
  }
  ULONG totalLength = header.wTotalLength;
  if (totalLength > kMaxLength) {
    KN_TRACE(0x1, "%P:KnUsbConfiguration::GetAndAllocate: Invalid configuration descriptor length %u\n",
             totalLength);
    return STATUS_UNSUCCESSFUL;
  }
  // Everybody reads the configuration descriptor's own fields: a set must at least hold them.
  if (totalLength < sizeof(USB_CONFIGURATION_DESCRIPTOR)) {
    KN_TRACE(0x1, "%P:KnUsbConfigurationDesc::GetAndAllocate: wTotalLength %u shorter than the header\n",
             totalLength);
    return STATUS_UNSUCCESSFUL;
  }

  PVOID buffer = KnAllocateMemory(NonPagedPool, totalLength, kPoolTag, TRUE);
  if (buffer == NULL) {
    KN_TRACE(0x1, "%P:KnUsbConfiguration::GetAndAllocate: Allocate Conf Descriptor failed: %d\n", (int)totalLength);
    return STATUS_NO_MEMORY;
  }
  mDescriptor = static_cast<PUSB_CONFIGURATION_DESCRIPTOR>(buffer);
  received = 0;
  stat = mLowerDevice->GetConfigurationDescriptor(configurationIndex, buffer, totalLength, &received, timeoutMs);
  if (!NT_SUCCESS(stat)) {
    KN_TRACE(0x1, "%P:KnUsbConfigurationDesc::GetAndAllocate: Get Config Descriptor failed: %N\n", stat);
    Release();
    return stat;
  }
  // Never trust a count beyond the buffer that was offered.
  mLength = received < totalLength ? received : totalLength;
  if (mLength < sizeof(USB_CONFIGURATION_DESCRIPTOR)) {
    KN_TRACE(0x1, "%P:KnUsbConfigurationDesc::GetAndAllocate: only %u bytes received, shorter than the header\n",
             received);
    Release();
    return STATUS_UNSUCCESSFUL;
  }
  if (received != totalLength) {
    KN_TRACE(0x1, "%P:KnUsbConfigurationDesc::GetAndAllocate: Device returned invalid descriptor\n");
    KN_TRACE_DUMP(0x1, mDescriptor, mLength);
  }
  mEnd = reinterpret_cast<PUCHAR>(mDescriptor) + mLength;
  return STATUS_SUCCESS;
}

void KnUsbConfigurationDesc::Attach(PUSB_CONFIGURATION_DESCRIPTOR descriptor) {
  KN_ASSERT(mDescriptor == NULL);
  mDescriptor = descriptor;
  mLength = descriptor->wTotalLength;
  mEnd = reinterpret_cast<PUCHAR>(mDescriptor) + mLength;
}

void KnUsbConfigurationDesc::Detach() {
  mDescriptor = NULL;
  mLength = 0;
  mEnd = NULL;
}

void KnUsbConfigurationDesc::Release() {
  if (mDescriptor != NULL) {
    KnFreeMemory(mDescriptor);
    mDescriptor = NULL;
    mLength = 0;
    mEnd = NULL;
  }
}

PUSB_COMMON_DESCRIPTOR KnUsbConfigurationDesc::DescriptorAt(const UCHAR* position) const {
  if (mDescriptor == NULL || position == NULL || mLength <= 2 || position >= mEnd - 2) {
    return NULL;
  }
  ULONG left = (ULONG)(mEnd - position);
  UCHAR length = position[0];
  // A zero length would never advance; a descriptor that runs past the end cannot be read.
  if (length == 0 || length > left) {
    return NULL;
  }
  return reinterpret_cast<PUSB_COMMON_DESCRIPTOR>(const_cast<UCHAR*>(position));
}

PUSB_COMMON_DESCRIPTOR KnUsbConfigurationDesc::FindNextDescriptor(PVOID start, UCHAR descriptorType) const {
  const UCHAR* position = start != NULL ? static_cast<const UCHAR*>(start) : reinterpret_cast<PUCHAR>(mDescriptor);
  PUSB_COMMON_DESCRIPTOR current = DescriptorAt(position);
  if (current == NULL) {
    return NULL;
  }
  position += current->bLength;  // the start descriptor itself is never returned
  while ((current = DescriptorAt(position)) != NULL) {
    if (current->bDescriptorType == descriptorType) {
      return current;
    }
    position += current->bLength;
  }
  return NULL;
}

PUSB_INTERFACE_DESCRIPTOR KnUsbConfigurationDesc::FindInterfaceDescriptor(PVOID start, LONG interfaceNumber,
                                                                          LONG alternateSetting, LONG interfaceClass,
                                                                          LONG interfaceSubClass,
                                                                          LONG interfaceProtocol) const {
  const UCHAR* position = start != NULL ? static_cast<const UCHAR*>(start) : reinterpret_cast<PUCHAR>(mDescriptor);
  PUSB_COMMON_DESCRIPTOR current;
  while ((current = DescriptorAt(position)) != NULL) {
    // Only a whole interface descriptor has the fields compared below.
    if (current->bDescriptorType == USB_INTERFACE_DESCRIPTOR_TYPE &&
        current->bLength >= sizeof(USB_INTERFACE_DESCRIPTOR)) {
      PUSB_INTERFACE_DESCRIPTOR candidate = reinterpret_cast<PUSB_INTERFACE_DESCRIPTOR>(current);
      if (Matches(interfaceNumber, candidate->bInterfaceNumber) &&
          Matches(alternateSetting, candidate->bAlternateSetting) &&
          Matches(interfaceClass, candidate->bInterfaceClass) &&
          Matches(interfaceSubClass, candidate->bInterfaceSubClass) &&
          Matches(interfaceProtocol, candidate->bInterfaceProtocol)) {
        return candidate;
      }
    }
    position += current->bLength;
  }
  return NULL;
}
