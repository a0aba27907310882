// Device stacks: IoAttachDeviceToDeviceStack, IoDetachDevice, IoGetAttachedDeviceReference.
#include <wdmsim/verifier.h>

#include "io/irql_rules.h"
#include "io/object_table.h"

using wdmsim::ReportViolation;
using namespace wdmsim::io;

namespace {

PDEVICE_OBJECT TopOfStack(PDEVICE_OBJECT device) {
  while (device->AttachedDevice != nullptr) device = device->AttachedDevice;
  return device;
}

}  // namespace

extern "C" PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice) {
  IrqlAtMost(DISPATCH_LEVEL, "IoAttachDeviceToDeviceStack", SourceDevice);
  const char* refusal = nullptr;
  PDEVICE_OBJECT top = nullptr;
  {
    ObjectTable& table = Objects();
    std::lock_guard<std::mutex> guard(table.lock);
    DeviceRecord* source = FindDevice(table, SourceDevice);
    if (source == nullptr || FindDevice(table, TargetDevice) == nullptr) {
      refusal = "is not a device object";
    } else if (source->attachedTo != nullptr) {
      refusal = "is already attached to a stack";
    } else {
      top = TopOfStack(TargetDevice);
      // A stack whose top is being deleted takes no new device; the caller sees NULL.
      if (FindDevice(table, top)->deletePending) return nullptr;
      top->AttachedDevice = SourceDevice;
      source->attachedTo = top;
      SourceDevice->StackSize = top->StackSize + 1;
      SourceDevice->AlignmentRequirement = top->AlignmentRequirement;
      SourceDevice->SectorSize = top->SectorSize;
    }
  }
  if (refusal != nullptr) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", SourceDevice,
                    "IoAttachDeviceToDeviceStack(%p, %p): the source or target %s", (void*)SourceDevice,
                    (void*)TargetDevice, refusal);
    return nullptr;
  }
  return top;
}

extern "C" void IoDetachDevice(PDEVICE_OBJECT TargetDevice) {
  IrqlAtMost(DISPATCH_LEVEL, "IoDetachDevice", TargetDevice);
  bool attached = false;
  {
    ObjectTable& table = Objects();
    std::lock_guard<std::mutex> guard(table.lock);
    if (FindDevice(table, TargetDevice) != nullptr && TargetDevice->AttachedDevice != nullptr) {
      attached = true;
      PDEVICE_OBJECT upper = TargetDevice->AttachedDevice;
      TargetDevice->AttachedDevice = nullptr;
      if (DeviceRecord* record = FindDevice(table, upper)) record->attachedTo = nullptr;
      // Either side may have been deleted and kept only by this link.
      FreeDeviceIfUnused(table, upper);
      FreeDeviceIfUnused(table, TargetDevice);
    }
  }
  if (!attached) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", TargetDevice,
                    "I/O error 0x202: IoDetachDevice(%p): nothing is attached to that device object",
                    (void*)TargetDevice);
  }
}

extern "C" PDEVICE_OBJECT IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject) {
  IrqlAtMost(DISPATCH_LEVEL, "IoGetAttachedDeviceReference", DeviceObject);
  {
    ObjectTable& table = Objects();
    std::lock_guard<std::mutex> guard(table.lock);
    if (FindDevice(table, DeviceObject) != nullptr) {
      PDEVICE_OBJECT top = TopOfStack(DeviceObject);
      ++FindDevice(table, top)->references;
      return top;
    }
  }
  ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", DeviceObject,
                  "IoGetAttachedDeviceReference(%p): not a device object", (void*)DeviceObject);
  return nullptr;
}
