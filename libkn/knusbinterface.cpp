#include "knusbinterface.h"

#include "knusbpipe.h"
#include "libknnewdelete.h"

namespace {
const ULONG kUsbConfigurationTag = 0x43425355;  // "USBC"
}

KnUsbInterface::KnUsbInterface() : mLowerDevice(NULL) {
  InitializeListHead(&mLink);
  InitializeListHead(&mPipes);
  RtlZeroMemory(&mInterfaceInformation, sizeof(mInterfaceInformation));
  RtlZeroMemory(&mInterfaceDescriptor, sizeof(mInterfaceDescriptor));
}

KnUsbInterface::~KnUsbInterface() { DeletePipes(); }

KnUsbPipe* KnUsbInterface::AddPipe() {
  KnUsbPipe* pipe = new (NonPagedPool, kUsbConfigurationTag) KnUsbPipe();
  if (pipe == NULL) {
    return NULL;
  }
  pipe->mInterface = this;
  pipe->mLowerDevice = mLowerDevice;
  InsertTailList(&mPipes, &pipe->mLink);
  return pipe;
}

KnUsbPipe* KnUsbInterface::FindPipe(KnUsbPipe* After, ULONG Direction, ULONG Type) {
  PLIST_ENTRY entry = (After == NULL) ? mPipes.Flink : After->mLink.Flink;
  for (; entry != &mPipes; entry = entry->Flink) {
    KnUsbPipe* pipe = CONTAINING_RECORD(entry, KnUsbPipe, mLink);
    if (Direction != kAnyDirection && Direction != (ULONG)(pipe->GetEndpointAddress() & 0x80)) {
      continue;
    }
    if (Type == kAnyType || Type == (ULONG)pipe->GetPipeInformation().PipeType) {
      return pipe;
    }
  }
  return NULL;
}

KnUsbPipe* KnUsbInterface::FindPipeByHandle(USBD_PIPE_HANDLE Handle) {
  for (PLIST_ENTRY entry = mPipes.Flink; entry != &mPipes; entry = entry->Flink) {
    KnUsbPipe* pipe = CONTAINING_RECORD(entry, KnUsbPipe, mLink);
    if (pipe->GetPipeHandle() == Handle) {
      return pipe;
    }
  }
  return NULL;
}

void KnUsbInterface::DeletePipes() {
  while (!IsListEmpty(&mPipes)) {
    delete CONTAINING_RECORD(RemoveHeadList(&mPipes), KnUsbPipe, mLink);
  }
}
