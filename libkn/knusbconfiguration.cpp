#include "knusbconfiguration.h"

// Some DDK editions declare the USBD library without C linkage.
extern "C" {
#include <usbdlib.h>
}

#include "knpnplowerdeviceusb.h"
#include "kntrace.h"
#include "knusbconfigurationdesc.h"
#include "knusbinterface.h"
#include "knusbpipe.h"
#include "libknnewdelete.h"

namespace {

const ULONG kUsbConfigurationTag = 0x43425355;  // "USBC"

bool CodeMatches(USHORT Wanted, UCHAR Actual) {
  return Wanted == KnUsbConfiguration::kAnyCode || Wanted == Actual;
}

}  // namespace

KnUsbConfiguration::KnUsbConfiguration()
    : mLowerDevice(NULL), mConfigurationHandle(NULL), mConfigurationValue(0) {
  InitializeListHead(&mInterfaces);
}

KnUsbConfiguration::~KnUsbConfiguration() {
  KN_ASSERT(mConfigurationValue == 0);
  DeleteInterfaces();
}

void KnUsbConfiguration::TraceInterfaceInformation(const USBD_INTERFACE_INFORMATION* Information) {
  KN_TRACE(0x8, "\n%P:Length %d\n", Information->Length);
  KN_TRACE(0x8, "%P:InterfaceNumber %d\n", Information->InterfaceNumber);
  KN_TRACE(0x8, "%P:AlternateSetting %d\n", Information->AlternateSetting);
  KN_TRACE(0x8, "%P:Class %02x\n", Information->Class);
  KN_TRACE(0x8, "%P:SubClass %02x\n", Information->SubClass);
  KN_TRACE(0x8, "%P:Protocol %02x\n", Information->Protocol);
  KN_TRACE(0x8, "%P:Reserved %02x\n", Information->Reserved);
  KN_TRACE(0x8, "%P:InterfaceHandle %08x\n", Information->InterfaceHandle);
  KN_TRACE(0x8, "%P:NumberOfPipes %d\n", Information->NumberOfPipes);
  for (ULONG i = 0; i < Information->NumberOfPipes; ++i) {
    const USBD_PIPE_INFORMATION& pipe = Information->Pipes[i];
    KN_TRACE(0x8, "\n%P:MaximumPacketSize %d\n", pipe.MaximumPacketSize);
    KN_TRACE(0x8, "%P:EndpointAddress %02x\n", pipe.EndpointAddress);
    KN_TRACE(0x8, "%P:Interval %d\n", pipe.Interval);
    KN_TRACE(0x8, "%P:PipeType %02x\n", pipe.PipeType);
    KN_TRACE(0x8, "%P:PipeHandle %08x\n", pipe.PipeHandle);
    KN_TRACE(0x8, "%P:MaximumTransferSize %d\n", pipe.MaximumTransferSize);
    KN_TRACE(0x8, "%P:PipeFlags %04x\n", pipe.PipeFlags);
  }
}

NTSTATUS KnUsbConfiguration::SetConfiguration(KnUsbConfigurationDesc* Descriptor, ULONG MaximumTransferSize,
                                              ULONG TimeoutMs) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(mLowerDevice != NULL);
  KN_TRACE(0x8, "%P:[KnUsbConfiguration::SetConfiguration\n");
  PUSB_CONFIGURATION_DESCRIPTOR configuration = Descriptor->GetDescriptor();
  const ULONG count = configuration->bNumInterfaces;

  const ULONG listSize = (count + 1) * sizeof(USBD_INTERFACE_LIST_ENTRY);
  PUSBD_INTERFACE_LIST_ENTRY list =
      static_cast<PUSBD_INTERFACE_LIST_ENTRY>(ExAllocatePoolWithTag(NonPagedPool, listSize, kUsbConfigurationTag));
  if (list == NULL) {
    KN_TRACE(0x2, "%P:allocation of InterfaceList failed, %u bytes\n", listSize);
    return STATUS_NO_MEMORY;
  }
  RtlZeroMemory(list, listSize);

  NTSTATUS status = STATUS_SUCCESS;
  PURB urb = NULL;
  ULONG found = 0;
  // Interface numbers need not be contiguous; each number counts once, by its alternate setting 0.
  for (ULONG number = 0; number <= 0xFF && status == STATUS_SUCCESS; ++number) {
    PUSB_INTERFACE_DESCRIPTOR descriptor = Descriptor->FindInterfaceDescriptor(NULL, (LONG)number, 0, -1, -1, -1);
    if (descriptor == NULL) {
      continue;
    }
    if (found == count) {
      KN_TRACE(0x1, "%P:KnUsbConfiguration::SetConfiguration invalid configuration descriptor\n");
      KN_TRACE_DUMP(0x1, configuration, Descriptor->GetLength());
      status = STATUS_UNSUCCESSFUL;
    } else {
      list[found++].InterfaceDescriptor = descriptor;
    }
  }
  if (status == STATUS_SUCCESS && found < count) {
    KN_TRACE(0x1, "%P:KnUsbConfiguration::SetConfiguration invalid configuration descriptor 2\n");
    KN_TRACE_DUMP(0x1, configuration, Descriptor->GetLength());
    status = STATUS_UNSUCCESSFUL;
  }
  if (status == STATUS_SUCCESS) {
    urb = USBD_CreateConfigurationRequestEx(configuration, list);
    if (urb == NULL) {
      KN_TRACE(0x8, "%P:allocation of ConfigUrb failed\n");
      status = STATUS_NO_MEMORY;
    }
  }
  if (status == STATUS_SUCCESS) {
    for (ULONG i = 0; i < count; ++i) {
      PUSBD_INTERFACE_INFORMATION information = list[i].Interface;
      if (information == NULL) {
        KN_TRACE(0x8, "%P:SetConfiguration: got NULL InterfaceInfo pointer\n");
        continue;
      }
      for (ULONG p = 0; p < information->NumberOfPipes; ++p) {
        information->Pipes[p].MaximumTransferSize = MaximumTransferSize;
      }
      TraceInterfaceInformation(information);
    }
    urb->UrbHeader.Status = (USBD_STATUS)0xFFFFFFFF;
    KN_TRACE(0x8, "%P:URB: Len:%04x Func:%04x St:%08x\n", urb->UrbHeader.Length, urb->UrbHeader.Function,
             urb->UrbHeader.Status);
    status = mLowerDevice->SubmitUrbAndWait(urb, TimeoutMs);
    if (status != STATUS_SUCCESS) {
      KN_TRACE(0x1, "%P:SetConfiguration: SubmitUrbAndWait failed (%N).\n", status);
    }
  }
  if (status == STATUS_SUCCESS) {
    KN_TRACE(0x8, "%P:URB: Len:%04x Func:%04x St:%08x\n", urb->UrbHeader.Length, urb->UrbHeader.Function,
             urb->UrbHeader.Status);
    for (ULONG i = 0; i < count; ++i) {
      KN_ASSERT(list[i].Interface != NULL);
      if (AddUsbInterface(list[i].Interface, list[i].InterfaceDescriptor) == NULL) {
        KN_TRACE(0x1, "%P:SetConfiguration AddUsbInterface failed\n");
        status = STATUS_NO_MEMORY;
        break;
      }
    }
  }
  if (status == STATUS_SUCCESS) {
    mConfigurationHandle = urb->UrbSelectConfiguration.ConfigurationHandle;
    mConfigurationValue = configuration->bConfigurationValue;
  }

  ExFreePool(list);
  if (urb != NULL) {
    ExFreePool(urb);
  }
  if (!NT_SUCCESS(status)) {
    DeleteInterfaces();
  }
  KN_TRACE(0x8, "%P:]SetConfiguration (%N)\n", status);
  return status;
}

NTSTATUS KnUsbConfiguration::UnconfigureDevice(BOOLEAN Send, ULONG TimeoutMs) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(mLowerDevice != NULL);
  KN_TRACE(0x8, "%P:[KnUsbConfiguration::UnconfigureDevice\n");
  NTSTATUS status = STATUS_SUCCESS;
  if (Send) {
    // A select-configuration request without a descriptor unconfigures the device.
    struct _URB_SELECT_CONFIGURATION request;
    RtlZeroMemory(&request, sizeof(request));
    request.Hdr.Length = sizeof(request);
    request.Hdr.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    status = mLowerDevice->SubmitUrbAndWait(reinterpret_cast<PURB>(&request), TimeoutMs);
    if (status != STATUS_SUCCESS) {
      KN_TRACE(0x2, "%P:KnUsbConfiguration::UnconfigureDevice: SubmitUrbAndWait failed (%N).\n", status);
    }
  }
  DeleteInterfaces();
  mConfigurationValue = 0;
  KN_TRACE(0x8, "%P:]KnUsbConfiguration::UnconfigureDevice (%N)\n", status);
  return status;
}

NTSTATUS KnUsbConfiguration::SetAlternateSetting(KnUsbConfigurationDesc* Descriptor, UCHAR InterfaceNumber,
                                                 UCHAR AlternateSetting, ULONG MaximumTransferSize,
                                                 ULONG TimeoutMs) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(mLowerDevice != NULL);
  KN_ASSERT(Descriptor != NULL);
  KN_ASSERT(Descriptor->GetDescriptor() != NULL);
  KN_TRACE(0x8, "%P:KnUsbConfiguration::SetAlternateSetting[\n");
  NTSTATUS status = STATUS_SUCCESS;
  PUSB_INTERFACE_DESCRIPTOR interfaceDescriptor = NULL;
  KnUsbInterface* current = NULL;
  if (mConfigurationValue == 0) {
    KN_TRACE(0x1, "%P:KnUsbConfiguration::SetAlternateSetting: Not configured\n");
    status = STATUS_UNSUCCESSFUL;
  }
  if (status == STATUS_SUCCESS) {
    interfaceDescriptor = Descriptor->FindInterfaceDescriptor(NULL, InterfaceNumber, AlternateSetting, -1, -1, -1);
    if (interfaceDescriptor == NULL) {
      KN_TRACE(0x1, "%P:KnUsbConfiguration::SetAlternateSetting: Invalid InterfaceIndex(%d) or Alternate Setting(%d)\n",
               InterfaceNumber, AlternateSetting);
      status = STATUS_INVALID_PARAMETER;
    }
  }
  if (status == STATUS_SUCCESS) {
    current = FindInterface(InterfaceNumber, kAnyCode, kAnyCode, kAnyCode);
    if (current == NULL) {
      KN_TRACE(0x1, "%P:KnUsbConfiguration::SetAlternateSetting: Invalid InterfaceIndex\n");
      status = STATUS_INVALID_PARAMETER;
    }
  }
  if (status != STATUS_SUCCESS) {
    KN_TRACE(0x8, "%P:]KnUsbConfiguration::SetAlternateSetting (%N)\n", status);
    return status;
  }

  // The old selection is gone for the stack as soon as the request is sent, so its object goes first.
  KIRQL oldIrql = mInterfacesLock.Lock();
  RemoveEntryList(&current->mLink);
  delete current;
  mInterfacesLock.Unlock(oldIrql);

  const ULONG endpoints = interfaceDescriptor->bNumEndpoints;
  const ULONG size = GET_SELECT_INTERFACE_REQUEST_SIZE(endpoints);
  PURB urb = static_cast<PURB>(ExAllocatePoolWithTag(NonPagedPool, size, kUsbConfigurationTag));
  if (urb == NULL) {
    KN_TRACE(0x2, "%P:allocation of Select Interface URB failed, %d bytes\n", size);
    status = STATUS_NO_MEMORY;
  } else {
    RtlZeroMemory(urb, size);
    urb->UrbHeader.Function = URB_FUNCTION_SELECT_INTERFACE;
    urb->UrbHeader.Length = (USHORT)size;
    urb->UrbSelectInterface.ConfigurationHandle = mConfigurationHandle;
    PUSBD_INTERFACE_INFORMATION information = &urb->UrbSelectInterface.Interface;
    information->Length = (USHORT)GET_USBD_INTERFACE_SIZE(endpoints);
    information->InterfaceNumber = InterfaceNumber;
    information->AlternateSetting = AlternateSetting;
    for (ULONG p = 0; p < endpoints; ++p) {
      information->Pipes[p].MaximumTransferSize = MaximumTransferSize;
    }
    KN_TRACE(0x8, "%P:KnUsbConfiguration::SetAlternateSetting:submit request[\n");
    status = mLowerDevice->SubmitUrbAndWait(urb, TimeoutMs);
    if (status != STATUS_SUCCESS) {
      KN_TRACE(0x1, "%P:KnUsbConfiguration::SetAlternateSetting: SubmitUrbAndWait failed (%N).\n", status);
    } else {
      KN_TRACE(0x8, "%P:SetAlternateSetting:call Add Interface[\n");
      KnUsbInterface* added = AddUsbInterface(information, interfaceDescriptor);
      KN_TRACE(0x8, "%P:SetAlternateSetting:return Add Interface[\n");
      if (added == NULL) {
        KN_TRACE(0x1, "%P:SetConfiguration AddUsbInterface failed\n");
        status = STATUS_NO_MEMORY;
      }
    }
    ExFreePool(urb);
  }
  KN_TRACE(0x8, "%P:]KnUsbConfiguration::SetAlternateSetting (%N)\n", status);
  return status;
}

KnUsbInterface* KnUsbConfiguration::AddUsbInterface(const USBD_INTERFACE_INFORMATION* Information,
                                                    const USB_INTERFACE_DESCRIPTOR* InterfaceDescriptor) {
  KnUsbInterface* added = new (NonPagedPool, kUsbConfigurationTag) KnUsbInterface();
  if (added == NULL) {
    return NULL;
  }
  added->mLowerDevice = mLowerDevice;
  RtlCopyMemory(&added->mInterfaceInformation, Information, sizeof(added->mInterfaceInformation));
  RtlCopyMemory(&added->mInterfaceDescriptor, InterfaceDescriptor, sizeof(added->mInterfaceDescriptor));
  for (ULONG i = 0; i < Information->NumberOfPipes; ++i) {
    KnUsbPipe* pipe = added->AddPipe();
    if (pipe == NULL) {
      KN_TRACE(0x2, "%P:KnUsbConfiguration::AddUsbInterface AddPipe failed\n");
      delete added;
      return NULL;
    }
    pipe->SetPipeInformation(Information->Pipes[i]);
  }
  KIRQL oldIrql = mInterfacesLock.Lock();
  InsertTailList(&mInterfaces, &added->mLink);
  mInterfacesLock.Unlock(oldIrql);
  return added;
}

void KnUsbConfiguration::DeleteInterfaces() {
  KIRQL oldIrql = mInterfacesLock.Lock();
  while (!IsListEmpty(&mInterfaces)) {
    delete CONTAINING_RECORD(RemoveHeadList(&mInterfaces), KnUsbInterface, mLink);
  }
  mInterfacesLock.Unlock(oldIrql);
}

KnUsbInterface* KnUsbConfiguration::FindInterface(UCHAR InterfaceNumber, USHORT Class, USHORT SubClass,
                                                  USHORT Protocol) {
  KnUsbInterface* match = NULL;
  KIRQL oldIrql = mInterfacesLock.Lock();
  for (PLIST_ENTRY entry = mInterfaces.Flink; entry != &mInterfaces && match == NULL; entry = entry->Flink) {
    KnUsbInterface* candidate = CONTAINING_RECORD(entry, KnUsbInterface, mLink);
    const KnUsbInterfaceInformation& information = candidate->mInterfaceInformation;
    if ((InterfaceNumber == kAnyInterface || InterfaceNumber == information.InterfaceNumber) &&
        CodeMatches(Class, information.Class) && CodeMatches(SubClass, information.SubClass) &&
        CodeMatches(Protocol, information.Protocol)) {
      match = candidate;
    }
  }
  mInterfacesLock.Unlock(oldIrql);
  return match;
}

PUSBD_PIPE_INFORMATION KnUsbConfiguration::FindPipeByHandle(USBD_PIPE_HANDLE Handle) {
  PUSBD_PIPE_INFORMATION found = NULL;
  KIRQL oldIrql = mInterfacesLock.Lock();
  for (PLIST_ENTRY entry = mInterfaces.Flink; entry != &mInterfaces && found == NULL; entry = entry->Flink) {
    KnUsbPipe* pipe = CONTAINING_RECORD(entry, KnUsbInterface, mLink)->FindPipeByHandle(Handle);
    if (pipe != NULL) {
      found = const_cast<PUSBD_PIPE_INFORMATION>(&pipe->GetPipeInformation());
    }
  }
  mInterfacesLock.Unlock(oldIrql);
  return found;
}
