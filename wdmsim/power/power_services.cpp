// The power manager's driver-facing services. Requests go straight to the stack, as on
// Windows Vista and later, where PoCallDriver is IoCallDriver and PoStartNextPowerIrp only
// tells the power manager the driver is done with the request's serialisation.
#include <map>
#include <mutex>

#include <wdm.h>
#include <wdmsim/power.h>
#include <wdmsim/verifier.h>

#include "kernel/lifecycle.h"

namespace wdmsim {
namespace power {
namespace {

struct PowerState {
  std::mutex lock;
  std::vector<const IRP*> startNextCalls;
  std::map<const DEVICE_OBJECT*, DEVICE_POWER_STATE> announced;
};

PowerState& state() {
  static PowerState* s = new PowerState;
  return *s;
}

struct RequestContext {
  PREQUEST_POWER_COMPLETE completion;
  PVOID context;
  PDEVICE_OBJECT target;
  POWER_STATE powerState;
  UCHAR minorFunction;
};

// Runs when the requested IRP has been completed by the whole stack: hand the result to
// the requester, then the IRP is the power manager's to free.
NTSTATUS RequestedIrpComplete(PDEVICE_OBJECT, PIRP irp, PVOID contextPointer) {
  auto* request = static_cast<RequestContext*>(contextPointer);
  if (request->completion) {
    request->completion(request->target, request->minorFunction, request->powerState, request->context,
                        &irp->IoStatus);
  }
  ObDereferenceObject(request->target);
  delete request;
  IoFreeIrp(irp);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

}  // namespace

void EndOfRun() {
  std::lock_guard<std::mutex> guard(state().lock);
  state().startNextCalls.clear();
  state().announced.clear();
}

}  // namespace power

std::vector<const IRP*> TakePoStartNextPowerIrpCalls() {
  std::lock_guard<std::mutex> guard(power::state().lock);
  std::vector<const IRP*> out;
  out.swap(power::state().startNextCalls);
  return out;
}

DEVICE_POWER_STATE AnnouncedDevicePowerState(const DEVICE_OBJECT* device) {
  std::lock_guard<std::mutex> guard(power::state().lock);
  auto it = power::state().announced.find(device);
  return it == power::state().announced.end() ? PowerDeviceUnspecified : it->second;
}

}  // namespace wdmsim

extern "C" NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  if (IoGetNextIrpStackLocation(Irp)->MajorFunction != IRP_MJ_POWER) {
    wdmsim::ReportViolation("DRIVER_POWER_STATE_FAILURE", Irp, "PoCallDriver with a request that is not IRP_MJ_POWER");
  }
  return IoCallDriver(DeviceObject, Irp);
}

extern "C" void PoStartNextPowerIrp(PIRP Irp) {
  if (KeGetCurrentIrql() > DISPATCH_LEVEL) {
    wdmsim::ReportViolation("IRQL_NOT_LESS_OR_EQUAL", Irp, "PoStartNextPowerIrp at IRQL %d", KeGetCurrentIrql());
  }
  if (IoGetCurrentIrpStackLocation(Irp)->MajorFunction != IRP_MJ_POWER) {
    wdmsim::ReportViolation("DRIVER_POWER_STATE_FAILURE", Irp,
                            "PoStartNextPowerIrp on a request that is not IRP_MJ_POWER");
  }
  std::lock_guard<std::mutex> guard(wdmsim::power::state().lock);
  wdmsim::power::state().startNextCalls.push_back(Irp);
}

extern "C" POWER_STATE PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State) {
  POWER_STATE previous;
  previous.DeviceState = PowerDeviceUnspecified;
  if (Type != DevicePowerState) return previous;  // system states are the power manager's own
  std::lock_guard<std::mutex> guard(wdmsim::power::state().lock);
  auto& announced = wdmsim::power::state().announced;
  auto it = announced.find(DeviceObject);
  if (it != announced.end()) previous.DeviceState = it->second;
  announced[DeviceObject] = State.DeviceState;
  return previous;
}

extern "C" NTSTATUS PoRequestPowerIrp(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                                      PREQUEST_POWER_COMPLETE CompletionFunction, PVOID Context, PIRP* Irp) {
  if (KeGetCurrentIrql() > DISPATCH_LEVEL) {
    wdmsim::ReportViolation("IRQL_NOT_LESS_OR_EQUAL", DeviceObject, "PoRequestPowerIrp at IRQL %d",
                            KeGetCurrentIrql());
  }
  if (MinorFunction != IRP_MN_SET_POWER && MinorFunction != IRP_MN_QUERY_POWER && MinorFunction != IRP_MN_WAIT_WAKE) {
    return STATUS_INVALID_PARAMETER_2;
  }
  // The request goes to the top of the stack the device object belongs to.
  PDEVICE_OBJECT top = IoGetAttachedDeviceReference(DeviceObject);
  PIRP irp = IoAllocateIrp(static_cast<CCHAR>(top->StackSize + 1), FALSE);
  if (!irp) {
    ObDereferenceObject(top);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  auto* request = new wdmsim::power::RequestContext{CompletionFunction, Context, DeviceObject, PowerState, MinorFunction};
  ObReferenceObject(DeviceObject);
  // The extra location is the power manager's own: its completion routine runs last.
  IoSetNextIrpStackLocation(irp);
  IoGetCurrentIrpStackLocation(irp)->DeviceObject = DeviceObject;
  IoSetCompletionRoutine(irp, wdmsim::power::RequestedIrpComplete, request, TRUE, TRUE, TRUE);
  PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
  next->MajorFunction = IRP_MJ_POWER;
  next->MinorFunction = MinorFunction;
  if (MinorFunction == IRP_MN_WAIT_WAKE) {
    next->Parameters.WaitWake.PowerState = PowerState.SystemState;
  } else {
    next->Parameters.Power.Type = DevicePowerState;
    next->Parameters.Power.State = PowerState;
  }
  irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
  irp->IoStatus.Information = 0;
  if (Irp) *Irp = irp;
  IoCallDriver(top, irp);
  ObDereferenceObject(top);
  return STATUS_PENDING;
}

extern "C" void PoSetSystemWake(PIRP Irp) { (void)Irp; }
