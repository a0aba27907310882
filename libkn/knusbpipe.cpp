#include "knusbpipe.h"

#include <usbdlib.h>

#include "knpnplowerdeviceusb.h"
#include "kntrace.h"

namespace {

const ULONG kReadContextTag = 0x54425355;  // "USBT"

// Owned by one read from its submission until its completion.
struct KnUsbPipeReadContext {
  struct _URB_BULK_OR_INTERRUPT_TRANSFER Urb;
  KnUsbPipeReadCallback Callback;
  PVOID Context;
};

}  // namespace

KnUsbPipe::KnUsbPipe()
    : mPipeHandle(NULL), mEndpointAddress(0), mMaxPacketSize(0), mLowerDevice(NULL), mInterface(NULL) {
  InitializeListHead(&mLink);
  RtlZeroMemory(&mPipeInformation, sizeof(mPipeInformation));
}

void KnUsbPipe::SetPipeInformation(const USBD_PIPE_INFORMATION& Information) {
  mPipeInformation = Information;
  mPipeHandle = Information.PipeHandle;
  mEndpointAddress = Information.EndpointAddress;
  mMaxPacketSize = Information.MaximumPacketSize;
}

NTSTATUS KnUsbPipe::SendPipeRequest(USHORT Function, ULONG TimeoutMs) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(mLowerDevice != NULL);
  struct _URB_PIPE_REQUEST request;
  RtlZeroMemory(&request, sizeof(request));
  request.Hdr.Length = sizeof(request);
  request.Hdr.Function = Function;
  request.PipeHandle = mPipeHandle;
  return mLowerDevice->SubmitUrbAndWait(reinterpret_cast<PURB>(&request), TimeoutMs);
}

NTSTATUS KnUsbPipe::ResetPipe(ULONG TimeoutMs) {
  const NTSTATUS status = SendPipeRequest(URB_FUNCTION_RESET_PIPE, TimeoutMs);
  if (status != STATUS_SUCCESS) {
    KN_TRACE(0x1, "%P ResetPipe failed %x\n", status);
  }
  return status;
}

NTSTATUS KnUsbPipe::AbortPipe(ULONG TimeoutMs) {
  const NTSTATUS status = SendPipeRequest(URB_FUNCTION_ABORT_PIPE, TimeoutMs);
  if (status != STATUS_SUCCESS) {
    KN_TRACE(0x1, "%P AbortPipe failed %x\n", status);
  }
  return status;
}

NTSTATUS KnUsbPipe::Read(PVOID Buffer, ULONG Length, KnUsbPipeReadCallback Callback, PVOID Context,
                         BOOLEAN* Submitted) {
  KN_ASSERT_IRQL_LTEQ_DISPATCH();
  KN_ASSERT(mLowerDevice != NULL);
  KnUsbPipeReadContext* read = static_cast<KnUsbPipeReadContext*>(
      ExAllocatePoolWithTag(NonPagedPool, sizeof(KnUsbPipeReadContext), kReadContextTag));
  if (read == NULL) {
    KN_TRACE(0x1, "%P:KnUsbPipe::Read allocate with %u bytes failed\n", (ULONG)sizeof(KnUsbPipeReadContext));
    if (Submitted != NULL) {
      *Submitted = FALSE;
    }
    return STATUS_NO_MEMORY;
  }
  RtlZeroMemory(read, sizeof(*read));
  PURB urb = reinterpret_cast<PURB>(&read->Urb);
  UsbBuildInterruptOrBulkTransferRequest(urb, sizeof(read->Urb), mPipeHandle, Buffer, NULL, Length,
                                         USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, NULL);
  read->Callback = Callback;
  read->Context = Context;

  BOOLEAN submitted = FALSE;
  const NTSTATUS status = mLowerDevice->SubmitUrb(urb, ReadCompletion, read, &submitted);
  if (!submitted) {
    ExFreePool(read);  // no IRP went down, so no completion will free it
  }
  if (Submitted != NULL) {
    *Submitted = submitted;
  }
  return status;
}

NTSTATUS KnUsbPipe::ReadCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
  UNREFERENCED_PARAMETER(DeviceObject);
  KnUsbPipeReadContext* read = static_cast<KnUsbPipeReadContext*>(Context);
  if (read->Callback != NULL) {
    // The URB's status says more (USBD_STATUS_CANCELED rather than STATUS_CANCELLED) unless
    // the request failed before the bus driver could set it.
    LONG status = read->Urb.Hdr.Status;
    if (!NT_SUCCESS(Irp->IoStatus.Status) && USBD_SUCCESS(read->Urb.Hdr.Status)) {
      status = Irp->IoStatus.Status;
    }
    read->Callback(read->Context, status, read->Urb.TransferBuffer, read->Urb.TransferBufferLength);
  }
  ExFreePool(read);
  IoFreeIrp(Irp);
  return STATUS_MORE_PROCESSING_REQUIRED;
}
