// Device: one ChildPdo per function of the selected configuration, with its configuration
// set, its texts and its identifiers, in the order the PnP manager is to see them.
#include "device.h"

#include "childidentifiers.h"
#include "childpdo.h"
#include "knlist.h"
#include "knmemory.h"
#include "kntrace.h"
#include "libknnewdelete.h"

namespace {

// Device properties of the parent and interface strings: 256 bytes with the terminator.
const ULONG kTextChars = 128;
// A semantic string: 64 bytes, so at most 31 characters.
const ULONG kSemanticChars = 32;

// Puts the identifiers into the child: hardware identifiers in non-paged pool (the PnP
// manager's matching may read them at raised IRQL), the rest in paged pool.
class ChildIdentifierSetter : public ChildIdentifierSink {
 public:
  explicit ChildIdentifierSetter(ChildPdo* Child) : mChild(Child) {}
  void SetDeviceId(PCWSTR Id) override { mChild->SetStrDeviceId(Id, PagedPool); }
  void AddHardwareId(PCWSTR Id) override { mChild->AddStrHardwareId(Id, NonPagedPool); }
  void AddCompatibleId(PCWSTR Id) override { mChild->AddStrCompatibleId(Id, PagedPool); }

 private:
  ChildPdo* mChild;
};

// The first child whose function has a CDC control interface (02/02) with that protocol.
ChildPdo* FirstWithCdcControl(const KnList<ChildPdo>* Children, UCHAR Protocol) {
  for (ChildPdo* child = Children->First(); child != NULL; child = Children->Next(child)) {
    const KnUsbConfigurationDesc* set = child->GetConfigurationDesc();
    if (set->FindInterfaceDescriptor(set->GetDescriptor(), -1, -1, 0x02, 0x02, Protocol) != NULL) {
      return child;
    }
  }
  return NULL;
}

}  // namespace

BOOLEAN Device::IsSemanticString(PCWSTR String) {
  for (; *String != L'\0'; String++) {
    WCHAR c = *String;
    bool valid = (c >= L'0' && c <= L'9') || (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || c == L'_';
    if (!valid) {
      return FALSE;
    }
  }
  return TRUE;
}

NTSTATUS Device::CreateChildren() {
  USB_DEVICE_DESCRIPTOR device;
  PWCHAR instanceId = NULL;
  WCHAR description[kTextChars];
  WCHAR location[kTextChars];
  CdcFunctionNumbers numbers = {0, 0, 0};
  KnList<ChildPdo> created(ChildPdo::ListLink());

  NTSTATUS status = mLowerDeviceUsb.GetDeviceDescriptor(&device, kRequestTimeoutMs);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:Device::CreateChildren: GetDeviceDescriptor failed %n\n");
    return status;
  }
  // Every child carries the parent's instance identifier: they differ by hardware identifier.
  status = mLowerDeviceUsb.QueryId(BusQueryInstanceID, &instanceId);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:Device::CreateChildren: QueryId failed %N\n", status);
    return status;
  }

  // The parent's texts stand in for functions without a string of their own.
  ULONG length;
  status = mLowerDeviceUsb.GetDeviceProperty(DevicePropertyDeviceDescription, sizeof(description), description, &length);
  BOOLEAN haveDescription = NT_SUCCESS(status);
  if (!haveDescription) {
    KN_TRACE(0x1, "%P:Device::CreateChildren: GetDeviceProperty failed %N\n", status);
  }
  status = mLowerDeviceUsb.GetDeviceProperty(DevicePropertyLocationInformation, sizeof(location), location, &length);
  BOOLEAN haveLocation = NT_SUCCESS(status);
  if (!haveLocation) {
    KN_TRACE(0x1, "%P:Device::CreateChildren: GetDeviceProperty failed %N\n", status);
  }
  // The result is the status of whatever happened last of: this read, a child's creation,
  // running out of memory for a child's set.
  NTSTATUS result = status;

  CreateLists();
  SSGetSelSuspendInterface();

  const UCHAR* setEnd = reinterpret_cast<const UCHAR*>(mConfigDesc.GetDescriptor()) + mConfigDesc.GetLength();
  for (;;) {
    ULONG interfaceCount;
    ULONG size;
    PUSB_INTERFACE_DESCRIPTOR first = GetInterfaces(&interfaceCount, &size);
    if (first == NULL) {
      break;
    }
    ULONG held = static_cast<ULONG>(setEnd - reinterpret_cast<const UCHAR*>(first));
    KN_TRACE(0x4, "%P:Device::CreateChildren: found Interface\n");
    KN_TRACE_DUMP(0x4, first, size < held ? size : held);

    PUSB_CONFIGURATION_DESCRIPTOR set = BuildChildConfigurationDescriptor(mConfigDesc.GetDescriptor(),
                                                                          mConfigDesc.GetLength(), first,
                                                                          interfaceCount, size);
    if (set == NULL) {
      KN_TRACE(0x1, "%P:Device::CreateChildren: KnAllocateMemory failed\n");
      result = STATUS_NO_MEMORY;
      break;
    }
    ChildIdentifierSource source;
    source.mVendorId = device.idVendor;
    source.mProductId = device.idProduct;
    source.mConfigurationValue = mUsbConfigurationValue;
    source.mConfigInPnpId = mConfigInPnpId != 0;
    source.mFamilyName = mFamilyName;
    source.mInterfaceNumber = first->bInterfaceNumber;
    source.mClass = first->bInterfaceClass;
    source.mSubClass = first->bInterfaceSubClass;
    source.mProtocol = first->bInterfaceProtocol;
    source.mSemanticString = NULL;
    UCHAR stringIndex = first->iInterface;
    KN_TRACE(0x4, "%P:Device::CreateChildren: new config desc created\n");
    KN_TRACE_DUMP(0x4, set, set->wTotalLength);

    ChildPdo* child = new (NonPagedPool, gKnDefaultPoolTag) ChildPdo(this);
    if (child == NULL) {
      KN_TRACE(0x1, "%P:Device::CreateChildren: new ChildPdo failed\n");
      KnFreeMemory(set);
      continue;
    }
    child->SetLowerDevice(&mLowerDeviceUsb);
    status = child->OnCreate();
    result = status;
    if (status != STATUS_SUCCESS) {
      KN_TRACE(0x1, "%P:Device::CreateChildren: child->OnCreate failed, stat=%N\n", status);
      delete child;
      KnFreeMemory(set);
      continue;
    }
    KN_TRACE(0x4, "%P:Device::CreateChildren child allocated\n");
    child->AttachConfigurationDescriptor(set);

    SetChildTexts(child, stringIndex, haveDescription ? description : NULL, haveLocation ? location : NULL);
    child->SetStrInstanceId(instanceId, PagedPool);

    WCHAR semantic[kSemanticChars];
    if (mFamilyName[0] != L'\0' && ReadSemanticString(child, semantic)) {
      source.mSemanticString = semantic;
    }
    ChildIdentifierSetter setter(child);
    BuildChildIdentifiers(&source, &numbers, &setter);
    KN_TRACE(0x4, "%P:Device::CreateChildren: PNP ID's set\n");
    created.InsertTail(child);
  }

  // RNDIS (02/02/FF) and AT-command ACM (02/02/01) functions take turns at the head of the
  // list as long as both kinds remain; the rest keep their order. Lock keeps a removal of an
  // earlier start's child from unlinking it meanwhile.
  Lock();
  mChildCount = 0;
  for (ULONG pick = 0;; pick++) {
    ChildPdo* child = FirstWithCdcControl(&created, (pick % 2) == 0 ? 0xFF : 0x01);
    if (child == NULL) {
      child = created.First();
    }
    if (child == NULL) {
      break;
    }
    created.Remove(child);
    AppendChild(child);
    mChildCount++;
    child->SetPresence(KnChildPresence_Present);
  }
  Unlock();

  KN_TRACE(0x20, "%P:Device::CreateChildren: Indicating arrival of new child devices\n");
  mLowerDeviceUsb.InvalidateDeviceRelations(BusRelations);
  ExFreePool(instanceId);
  return result;
}

void Device::SetChildTexts(ChildPdo* Child, UCHAR StringIndex, PCWSTR ParentDescription, PCWSTR ParentLocation) {
  // The descriptor after its two header bytes; the buffer's last character stays 0.
  WCHAR descriptor[kTextChars];
  RtlZeroMemory(descriptor, sizeof(descriptor));
  ULONG returned = 0;
  if (StringIndex != 0 &&
      NT_SUCCESS(mLowerDeviceUsb.GetStringDescriptor(StringIndex, 0, descriptor, sizeof(descriptor) - sizeof(WCHAR),
                                                     &returned, kRequestTimeoutMs))) {
    Child->SetStrDeviceDescription(&descriptor[1], PagedPool);
    Child->SetStrLocationInformation(&descriptor[1], PagedPool);
  } else {
    if (ParentDescription != NULL) {
      Child->SetStrDeviceDescription(ParentDescription, PagedPool);
    }
    if (ParentLocation != NULL) {
      Child->SetStrLocationInformation(ParentLocation, PagedPool);
    }
  }
  KN_TRACE(0x4, "%P:Device::CreateChildren: SetStrDeviceDescription set\n");
}

BOOLEAN Device::ReadSemanticString(ChildPdo* Child, WCHAR* Semantic) {
  const KnUsbConfigurationDesc* set = Child->GetConfigurationDesc();
  PUSB_INTERFACE_DESCRIPTOR data = set->FindInterfaceDescriptor(set->GetDescriptor(), -1, -1, 0x0A, -1, -1);
  if (data == NULL) {
    return FALSE;
  }
  KN_TRACE(0x4, "%P:Device::CreateChildren: found data interface: %d, strIndex:%d\n", data->bInterfaceNumber,
           data->iInterface);
  if (data->iInterface == 0 ||
      !NT_SUCCESS(mLowerDeviceUsb.GetString(data->iInterface, 0, Semantic, kSemanticChars * sizeof(WCHAR),
                                            kRequestTimeoutMs))) {
    return FALSE;
  }
  KN_TRACE(0x4, "%P:Device::CreateChildren: got string descriptor %S\n", Semantic);
  if (!IsSemanticString(Semantic)) {
    KN_TRACE(0x1, "%P:Device::CreateChildren: invalid semantic string: %S\n", Semantic);
    return FALSE;
  }
  return TRUE;
}
