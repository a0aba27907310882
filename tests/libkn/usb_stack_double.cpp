#include "usb_stack_double.h"

#include <usbioctl.h>

#include <algorithm>
#include <cstring>

#include <wdmsim/io.h>

namespace kntest {

// A kept IRP and the timer that may finish it. Exactly one of the timer and the cancel
// routine completes the IRP: whoever clears the cancel routine first.
struct UsbStackDouble::Pending {
  UsbStackDouble* owner;
  PIRP irp;
  NTSTATUS status;
  KTIMER timer;
  KDPC dpc;
  KSPIN_LOCK lock;
  bool completedByCancel = false;  // under lock: the IRP may be gone
};

UsbStackDouble::UsbStackDouble(std::unique_ptr<wdmsim::UsbFirmware> firmware)
    : mFirmware(firmware ? std::move(firmware) : wdmsim::MakeDemoCompositeFirmware()) {
  wdmsim::RawPdoOptions options;
  options.hook = [this](PDEVICE_OBJECT, PIRP irp, NTSTATUS* dispatchStatus) { return OnRequest(irp, dispatchStatus); };
  mPdo = wdmsim::CreateRawPdo(options);
}

UsbStackDouble::~UsbStackDouble() {
  for (auto& pending : mPending) KeCancelTimer(&pending->timer);
  wdmsim::DeleteRawPdo(mPdo);
}

void UsbStackDouble::SetMode(Mode mode, NTSTATUS failOrPendStatus, uint32_t pendMs) {
  mMode = mode;
  mStatus = failOrPendStatus;
  mPendMs = pendMs;
}

void UsbStackDouble::SetDescriptorSource(std::function<std::vector<uint8_t>(uint8_t, uint8_t, uint16_t)> source) {
  mSource = std::move(source);
}

std::vector<UsbStackDouble::Seen> UsbStackDouble::TakeRequests() {
  std::vector<Seen> seen;
  seen.swap(mSeen);
  return seen;
}

bool UsbStackDouble::OnRequest(PIRP irp, NTSTATUS* dispatchStatus) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  if (stack->MajorFunction != IRP_MJ_INTERNAL_DEVICE_CONTROL) return false;
  Seen seen{stack->Parameters.DeviceIoControl.IoControlCode, 0, 0, 0, 0};
  PURB urb = static_cast<PURB>(stack->Parameters.Others.Argument1);
  if (seen.ioControlCode == IOCTL_INTERNAL_USB_SUBMIT_URB && urb != nullptr &&
      urb->UrbHeader.Function == URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE) {
    seen.descriptorType = urb->UrbControlDescriptorRequest.DescriptorType;
    seen.index = urb->UrbControlDescriptorRequest.Index;
    seen.languageId = urb->UrbControlDescriptorRequest.LanguageId;
    seen.bufferLength = urb->UrbControlDescriptorRequest.TransferBufferLength;
  }
  mSeen.push_back(seen);

  switch (mMode) {
    case Mode::Answer:
      Answer(irp);
      *dispatchStatus = irp->IoStatus.Status;
      IoCompleteRequest(irp, IO_NO_INCREMENT);
      return true;
    case Mode::Fail:
      irp->IoStatus.Status = mStatus;
      irp->IoStatus.Information = 0;
      *dispatchStatus = mStatus;
      IoCompleteRequest(irp, IO_NO_INCREMENT);
      return true;
    case Mode::Pend: {
      auto pending = std::make_unique<Pending>();
      pending->owner = this;
      pending->irp = irp;
      pending->status = mStatus;
      KeInitializeTimer(&pending->timer);
      KeInitializeDpc(&pending->dpc, OnPendExpired, pending.get());
      KeInitializeSpinLock(&pending->lock);
      irp->Tail.Overlay.DriverContext[0] = pending.get();
      IoMarkIrpPending(irp);
      IoSetCancelRoutine(irp, OnCancel);
      if (mPendMs != 0) {
        LARGE_INTEGER due;
        due.QuadPart = -10000LL * mPendMs;
        KeSetTimer(&pending->timer, due, &pending->dpc);
      }
      mPending.push_back(std::move(pending));
      *dispatchStatus = STATUS_PENDING;
      return true;
    }
  }
  return false;
}

void UsbStackDouble::Answer(PIRP irp) {
  PURB urb = static_cast<PURB>(IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1);
  irp->IoStatus.Status = STATUS_SUCCESS;
  irp->IoStatus.Information = 0;
  if (IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode != IOCTL_INTERNAL_USB_SUBMIT_URB)
    return;  // the port cycle needs no answer
  if (urb->UrbHeader.Function == URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE) {
    auto& request = urb->UrbControlDescriptorRequest;
    uint8_t* buffer = static_cast<uint8_t*>(request.TransferBuffer);
    uint32_t length = 0;
    if (mSource) {
      std::vector<uint8_t> bytes = mSource(request.DescriptorType, request.Index, request.LanguageId);
      length = std::min<uint32_t>(bytes.size(), request.TransferBufferLength);
      if (length != 0) std::memcpy(buffer, bytes.data(), length);
    } else {
      wdmsim::UsbSetupPacket setup;
      setup.bmRequestType = 0x80;
      setup.bRequest = USB_REQUEST_GET_DESCRIPTOR;
      setup.wValue = static_cast<uint16_t>((request.DescriptorType << 8) | request.Index);
      setup.wIndex = request.LanguageId;
      setup.wLength = static_cast<uint16_t>(std::min<ULONG>(request.TransferBufferLength, 0xFFFF));
      length = mFirmware->Control(setup, buffer).length;
    }
    request.TransferBufferLength = length;
  }
  urb->UrbHeader.Status = mUrbStatus;
}

void NTAPI UsbStackDouble::OnCancel(PDEVICE_OBJECT, PIRP irp) {
  IoReleaseCancelSpinLock(irp->CancelIrql);
  auto* pending = static_cast<Pending*>(irp->Tail.Overlay.DriverContext[0]);
  KIRQL irql;
  KeAcquireSpinLock(&pending->lock, &irql);
  pending->completedByCancel = true;
  KeReleaseSpinLock(&pending->lock, irql);
  pending->owner->mCancelled++;
  irp->IoStatus.Status = STATUS_CANCELLED;
  irp->IoStatus.Information = 0;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
}

void NTAPI UsbStackDouble::OnPendExpired(PKDPC, PVOID context, PVOID, PVOID) {
  auto* pending = static_cast<Pending*>(context);
  KIRQL irql;
  KeAcquireSpinLock(&pending->lock, &irql);
  // Either already completed by the cancel routine, or the cancel routine is about to run.
  bool mine = !pending->completedByCancel && IoSetCancelRoutine(pending->irp, nullptr) != nullptr;
  KeReleaseSpinLock(&pending->lock, irql);
  if (!mine) return;
  pending->irp->IoStatus.Status = pending->status;
  pending->irp->IoStatus.Information = 0;
  IoCompleteRequest(pending->irp, IO_NO_INCREMENT);
}

void LowerDeviceTest::SetUp() {
  mDriver = LoadTestDriver();
  ASSERT_NE(nullptr, mDriver);
  mDevice = CreateBoundDevice<KnDeviceObject>();
  ASSERT_NE(nullptr, mDevice);
  mStack = std::make_unique<UsbStackDouble>();
  ASSERT_EQ(STATUS_SUCCESS, mLower.AttachToPnpDeviceStack(mDevice->GetDeviceObject(), mStack->Pdo()));
}

void LowerDeviceTest::TearDown() {
  mLower.DetachFromPnpDeviceStack();
  delete mDevice;
  mStack.reset();
  if (mDriver != nullptr) EXPECT_TRUE(wdmsim::UnloadDriver(mDriver));
}

}  // namespace kntest
