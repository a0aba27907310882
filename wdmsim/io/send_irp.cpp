// Requests sent to a device stack the way the PnP manager sends them.
#include <cstdlib>

#include <wdmsim/io.h>

#include "io/device_references.h"
#include "io/irp_memory.h"
#include "io/irql_rules.h"

namespace wdmsim {
namespace {

// Where the completed request reports back. It lives on the heap: a driver that returns
// without completing and completes later must find it still there.
struct Completion {
  KEVENT event;
  IO_STATUS_BLOCK iosb;
};

}  // namespace

IO_STATUS_BLOCK SendIrpToStack(PDEVICE_OBJECT device, UCHAR majorFunction, UCHAR minorFunction,
                               const std::function<void(IO_STACK_LOCATION&)>& setup, NTSTATUS presetStatus,
                               ULONG_PTR presetInformation) {
  io::IrqlAtMost(PASSIVE_LEVEL, "SendIrpToStack", device);
  IO_STATUS_BLOCK result = {};
  PDEVICE_OBJECT top = IoGetAttachedDeviceReference(device);
  if (top == nullptr) {
    result.Status = STATUS_NO_SUCH_DEVICE;
    return result;
  }
  PIRP irp = io::AllocateIrp(top->StackSize, io::IrpOrigin::Thread, false);
  if (irp == nullptr) {
    io::DereferenceDeviceObject(top);
    result.Status = STATUS_INSUFFICIENT_RESOURCES;
    return result;
  }
  auto completion = static_cast<Completion*>(std::calloc(1, sizeof(Completion)));
  KeInitializeEvent(&completion->event, NotificationEvent, FALSE);
  irp->Tail.Overlay.Thread = PsGetCurrentThread();
  irp->RequestorMode = KernelMode;
  irp->UserIosb = &completion->iosb;
  irp->UserEvent = &completion->event;
  irp->IoStatus.Status = presetStatus;
  irp->IoStatus.Information = presetInformation;
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
  stack->MajorFunction = majorFunction;
  stack->MinorFunction = minorFunction;
  if (setup) setup(*stack);

  NTSTATUS status = IofCallDriver(top, irp);
  if (status == STATUS_PENDING) KeWaitForSingleObject(&completion->event, Executive, KernelMode, FALSE, nullptr);
  if (KeReadStateEvent(&completion->event)) {
    result = completion->iosb;
    std::free(completion);
  } else {
    // Returned without completing (the verifier reported it): the IRP is still out and
    // will write into the completion block whenever it finishes.
    result.Status = status;
  }
  io::DereferenceDeviceObject(top);
  return result;
}

IO_STATUS_BLOCK SendPnpIrp(PDEVICE_OBJECT device, UCHAR minorFunction,
                           const std::function<void(IO_STACK_LOCATION&)>& setup) {
  return SendIrpToStack(device, IRP_MJ_PNP, minorFunction, setup, STATUS_NOT_SUPPORTED);
}

IO_STATUS_BLOCK SendPowerIrp(PDEVICE_OBJECT device, UCHAR minorFunction,
                             const std::function<void(IO_STACK_LOCATION&)>& setup) {
  return SendIrpToStack(device, IRP_MJ_POWER, minorFunction, setup, STATUS_NOT_SUPPORTED);
}

}  // namespace wdmsim
