// Device: the division of the parent's interfaces into functions, one child each.
#include "device.h"

#include "interfaceentry.h"
#include "kntrace.h"
#include "libknnewdelete.h"

namespace {

const ULONG kIadLength = sizeof(USB_INTERFACE_ASSOCIATION_DESCRIPTOR);

// CDC communication subclasses whose data interface follows them and belongs to the same
// function (ACM, OBEX, NCM and 0x88).
bool PairsWithFollowingInterface(const USB_INTERFACE_DESCRIPTOR* Descriptor) {
  if (Descriptor->bInterfaceClass != USB_DEVICE_CLASS_COMMUNICATIONS) {
    return false;
  }
  switch (Descriptor->bInterfaceSubClass) {
    case 0x02:
    case 0x0B:
    case 0x0D:
    case 0x88:
      return true;
    default:
      return false;
  }
}

// The entry that holds a list link (offsetof rather than CONTAINING_RECORD's member access
// through a null pointer, which the sanitizers reject).
template <typename Entry>
Entry* EntryOf(LIST_ENTRY* Link) {
  return reinterpret_cast<Entry*>(reinterpret_cast<PCHAR>(Link) - FIELD_OFFSET(Entry, mLink));
}

InterfaceEntry* RemoveHeadInterface(LIST_ENTRY* List) {
  if (IsListEmpty(List)) {
    return NULL;
  }
  return EntryOf<InterfaceEntry>(RemoveHeadList(List));
}

}  // namespace

void Device::FreeLists() {
  while (!IsListEmpty(&mIadList)) {
    delete EntryOf<IadEntry>(RemoveHeadList(&mIadList));
  }
  while (!IsListEmpty(&mInterfaceList)) {
    delete EntryOf<InterfaceEntry>(RemoveHeadList(&mInterfaceList));
  }
}

PUCHAR Device::NextIad(PVOID Start) const {
  return reinterpret_cast<PUCHAR>(mConfigDesc.FindNextDescriptor(Start, USB_INTERFACE_ASSOCIATION_DESCRIPTOR_TYPE));
}

void Device::CreateLists() {
  FreeLists();

  PUCHAR iad = NULL;
  while ((iad = NextIad(iad)) != NULL) {
    if (iad[0] < kIadLength) {
      continue;  // too short to hold the fields the grouping reads
    }
    IadEntry* entry = new (NonPagedPool, gKnDefaultPoolTag) IadEntry;
    if (entry == NULL) {
      KN_TRACE(0x1, "%P:Device::CreateLists: no memory, iad\n");
      continue;
    }
    entry->mDescriptor = reinterpret_cast<PUSB_INTERFACE_ASSOCIATION_DESCRIPTOR>(iad);
    InsertTailList(&mIadList, &entry->mLink);
  }

  PUCHAR position = reinterpret_cast<PUCHAR>(mConfigDesc.GetDescriptor());
  while (position != NULL && position[0] != 0) {
    // The search examines its start itself, so it starts one descriptor further on.
    PUSB_INTERFACE_DESCRIPTOR found =
        mConfigDesc.FindInterfaceDescriptor(position + position[0], -1, 0, -1, -1, -1);
    if (found == NULL) {
      break;
    }
    position = reinterpret_cast<PUCHAR>(found);
    InterfaceEntry* entry = new (NonPagedPool, gKnDefaultPoolTag) InterfaceEntry;
    if (entry == NULL) {
      KN_TRACE(0x1, "%P:Device::CreateLists: no memory, ifd\n");
      continue;
    }
    entry->mDescriptor = found;
    entry->mSize = 0;
    InsertTailList(&mInterfaceList, &entry->mLink);
  }

  PUCHAR end = reinterpret_cast<PUCHAR>(mConfigDesc.GetDescriptor()) + mConfigDesc.GetLength();
  for (LIST_ENTRY* link = mInterfaceList.Flink; link != &mInterfaceList; link = link->Flink) {
    InterfaceEntry* entry = EntryOf<InterfaceEntry>(link);
    PUCHAR start = reinterpret_cast<PUCHAR>(entry->mDescriptor);
    PUCHAR next = link->Flink != &mInterfaceList
                      ? reinterpret_cast<PUCHAR>(EntryOf<InterfaceEntry>(link->Flink)->mDescriptor)
                      : end;
    entry->mSize = next - start;
    KN_TRACE(0x4, "%P:Device::CreateLists: if descriptor size %u\n", static_cast<ULONG>(entry->mSize));
    // An IAD inside the stretch stands right before the next interface: it belongs to the next function.
    PUCHAR following = NextIad(start);
    if (following != NULL && following < start + entry->mSize) {
      entry->mSize -= kIadLength;
    }
  }
}

InterfaceEntry* Device::TakeInterface(UCHAR InterfaceNumber) {
  for (LIST_ENTRY* link = mInterfaceList.Flink; link != &mInterfaceList; link = link->Flink) {
    InterfaceEntry* entry = EntryOf<InterfaceEntry>(link);
    if (entry->mDescriptor->bInterfaceNumber == InterfaceNumber) {
      RemoveEntryList(link);
      return entry;
    }
  }
  return NULL;
}

PUSB_INTERFACE_DESCRIPTOR Device::GetInterfaces(ULONG* InterfaceCount, ULONG* Size) {
  if (!IsListEmpty(&mIadList)) {
    IadEntry* iad = EntryOf<IadEntry>(RemoveHeadList(&mIadList));
    KN_TRACE(0x4, "%P:Device::GetInterfaces: found IAD\n");
    ULONG count = iad->mDescriptor->bInterfaceCount;
    UCHAR firstNumber = iad->mDescriptor->bFirstInterface;
    ULONGLONG total = 0;
    PUSB_INTERFACE_DESCRIPTOR first = NULL;
    for (ULONG i = 0; i < count; i++) {
      InterfaceEntry* entry = TakeInterface(static_cast<UCHAR>(firstNumber + i));
      if (entry == NULL) {
        continue;
      }
      total += entry->mSize;
      if (i == 0) {
        first = entry->mDescriptor;
      }
      delete entry;
    }
    *InterfaceCount = count;
    *Size = static_cast<ULONG>(total);
    delete iad;
    return first;
  }

  KN_TRACE(0x4, "%P:Device::GetInterfaces: no IAD\n");
  InterfaceEntry* head = RemoveHeadInterface(&mInterfaceList);
  if (head == NULL) {
    return NULL;
  }
  PUSB_INTERFACE_DESCRIPTOR first = head->mDescriptor;
  KN_TRACE(0x4, "%P:Device::GetInterfaces: got interface desc. class:%02x\n", first->bInterfaceClass);
  ULONG count = 1;
  if (first->bInterfaceClass == USB_DEVICE_CLASS_AUDIO) {
    for (LIST_ENTRY* link = mInterfaceList.Flink; link != &mInterfaceList; link = link->Flink) {
      if (EntryOf<InterfaceEntry>(link)->mDescriptor->bInterfaceClass != USB_DEVICE_CLASS_AUDIO) {
        break;
      }
      KN_TRACE(0x4, "%P:Device::GetInterfaces: adding audio interface\n");
      count++;
    }
  } else if (PairsWithFollowingInterface(first)) {
    count = 2;
  }

  ULONGLONG size = head->mSize;
  delete head;
  for (ULONG i = 1; i < count; i++) {
    InterfaceEntry* entry = RemoveHeadInterface(&mInterfaceList);
    if (entry != NULL) {
      size += entry->mSize;
      delete entry;
    }
  }
  KN_TRACE(0x4, "%P:Device::GetInterfaces: found NoIf:%d, size:%d\n", count, static_cast<ULONG>(size));
  *InterfaceCount = count;
  *Size = static_cast<ULONG>(size);
  return first;
}

void Device::SSGetSelSuspendInterface() {
  for (LIST_ENTRY* link = mInterfaceList.Flink; link != &mInterfaceList; link = link->Flink) {
    InterfaceEntry* entry = EntryOf<InterfaceEntry>(link);
    const USB_INTERFACE_DESCRIPTOR* descriptor = entry->mDescriptor;
    if (descriptor->bInterfaceClass == 0xFF && descriptor->bInterfaceSubClass == 0x01 &&
        descriptor->bInterfaceProtocol == 0x00) {
      RemoveEntryList(link);
      delete entry;
      // Not yet: looking the notification interface up in the selected configuration.
      return;
    }
  }
}

PUSB_CONFIGURATION_DESCRIPTOR Device::BuildChildConfigurationDescriptor(const USB_CONFIGURATION_DESCRIPTOR* Parent,
                                                                        ULONG ParentLength,
                                                                        const USB_INTERFACE_DESCRIPTOR* FirstInterface,
                                                                        ULONG InterfaceCount, ULONG Size) {
  const ULONG headerLength = sizeof(USB_CONFIGURATION_DESCRIPTOR);
  PUCHAR set = static_cast<PUCHAR>(KnAllocateMemory(NonPagedPool, headerLength + Size, KN_POOLTAG("USBM"), TRUE));
  if (set == NULL) {
    return NULL;
  }
  RtlCopyMemory(set, Parent, headerLength);
  // An IAD function spread over the set can add up to more than lies behind its first
  // interface; the bytes past the parent's set stay zero.
  const UCHAR* first = reinterpret_cast<const UCHAR*>(FirstInterface);
  ULONG available = static_cast<ULONG>(reinterpret_cast<const UCHAR*>(Parent) + ParentLength - first);
  RtlCopyMemory(set + headerLength, first, Size < available ? Size : available);
  PUSB_CONFIGURATION_DESCRIPTOR header = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(set);
  header->wTotalLength = static_cast<USHORT>(headerLength + Size);
  header->bNumInterfaces = static_cast<UCHAR>(InterfaceCount);
  return header;
}
