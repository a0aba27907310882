// IoAllocateIrp, IoInitializeIrp, IoReuseIrp and IoFreeIrp.
#include <cstdlib>
#include <cstring>

#include <wdmsim/verifier.h>

#include "io/io_faults.h"
#include "io/irp_memory.h"
#include "io/irql_rules.h"

namespace wdmsim {
namespace io {
namespace {

// IRP.AllocationFlags bits the I/O manager keeps across IoReuseIrp.
constexpr UCHAR kQuotaCharged = 0x01;
constexpr UCHAR kAllocatedFixedSize = 0x04;

// A driver may hand an IRP back only when no driver holds a stack location of it: before it
// is sent, or after the completion walk left the last location.
bool HeldByDriver(const IRP* irp) { return irp->CurrentLocation <= irp->StackCount; }

}  // namespace

void InitializeIrpFields(PIRP irp, USHORT size, CCHAR stackSize) {
  memset(irp, 0, size);
  irp->Type = IO_TYPE_IRP;
  irp->Size = size;
  irp->StackCount = stackSize;
  irp->CurrentLocation = stackSize + 1;
  InitializeListHead(&irp->ThreadListEntry);
  // One past the last stack location: IoCallDriver moves to the last one first.
  irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + stackSize;
}

PIRP AllocateIrp(CCHAR stackSize, IrpOrigin origin, bool chargeQuota) {
  if (stackSize < 0 || ConsumeIrpAllocationFault()) return nullptr;
  USHORT size = IoSizeOfIrp(stackSize);
  PIRP irp = static_cast<PIRP>(std::calloc(1, size));
  if (irp == nullptr) return nullptr;
  InitializeIrpFields(irp, size, stackSize);
  irp->AllocationFlags = kAllocatedFixedSize | (chargeQuota ? kQuotaCharged : 0);
  TrackIrp(irp, origin);
  return irp;
}

void ReleaseIrp(PIRP irp) {
  UntrackIrp(irp);
  memset(irp, 0xDD, irp->Size);
  std::free(irp);
}

}  // namespace io
}  // namespace wdmsim

using wdmsim::ReportViolation;
using namespace wdmsim::io;

extern "C" PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota) {
  IrqlAtMost(DISPATCH_LEVEL, "IoAllocateIrp", nullptr);
  return AllocateIrp(StackSize, IrpOrigin::Allocated, ChargeQuota != FALSE);
}

extern "C" void IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize) {
  if (StackSize < 0 || PacketSize < IoSizeOfIrp(StackSize)) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", Irp,
                    "IoInitializeIrp: packet of %u bytes cannot hold an IRP with %d stack locations (%u bytes)",
                    PacketSize, StackSize, (unsigned)IoSizeOfIrp(StackSize < 0 ? 0 : StackSize));
    return;
  }
  IrpOrigin origin;
  bool known = LookupIrp(Irp, &origin);
  InitializeIrpFields(Irp, PacketSize, StackSize);
  // An IRP from IoAllocateIrp stays the I/O manager's (IoReuseIrp is the documented way to
  // recycle it); anything else is the driver's own memory.
  TrackIrp(Irp, known && origin != IrpOrigin::DriverInitialized ? origin : IrpOrigin::DriverInitialized);
}

extern "C" void IoReuseIrp(PIRP Irp, NTSTATUS Iostatus) {
  IrpOrigin origin;
  if (!LookupIrp(Irp, &origin)) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", Irp, "IoReuseIrp: %p is not an allocated IRP", (void*)Irp);
    return;
  }
  if (HeldByDriver(Irp)) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", Irp,
                    "I/O error 0x20B: IoReuseIrp on IRP %p that is still in use (stack location %d of %d)",
                    (void*)Irp, Irp->CurrentLocation, Irp->StackCount);
  }
  if (Irp->CancelRoutine != nullptr) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", Irp, "IoReuseIrp: IRP %p still has cancel routine %p",
                    (void*)Irp, (void*)Irp->CancelRoutine);
  }
  UCHAR allocationFlags = Irp->AllocationFlags;
  InitializeIrpFields(Irp, Irp->Size, Irp->StackCount);
  Irp->AllocationFlags = allocationFlags;
  Irp->IoStatus.Status = Iostatus;
  TrackIrp(Irp, origin);
}

extern "C" void IoFreeIrp(PIRP Irp) {
  IrqlAtMost(DISPATCH_LEVEL, "IoFreeIrp", Irp);
  IrpOrigin origin;
  if (Irp == nullptr || !LookupIrp(Irp, &origin)) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", Irp,
                    "I/O error 0x01: IoFreeIrp on %p, which is not an allocated IRP (freed twice?)", (void*)Irp);
    return;
  }
  switch (origin) {
    case IrpOrigin::Thread:
      // The I/O manager frees it when it completes; freeing it here would leave the
      // waiting thread with a dangling status block.
      ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", Irp,
                      "I/O error 0x20C: IoFreeIrp on IRP %p that is still queued against a thread", (void*)Irp);
      return;
    case IrpOrigin::DriverInitialized:
      ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", Irp,
                      "I/O error 0x01: IoFreeIrp on IRP %p, which lives in driver memory given to IoInitializeIrp",
                      (void*)Irp);
      UntrackIrp(Irp);
      return;
    case IrpOrigin::Allocated:
    case IrpOrigin::Asynchronous:
      break;
  }
  if (HeldByDriver(Irp)) {
    // Kept allocated: the driver holding it would otherwise write into freed memory.
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", Irp,
                    "I/O error 0x20B: IoFreeIrp on IRP %p that is still in use (stack location %d of %d)",
                    (void*)Irp, Irp->CurrentLocation, Irp->StackCount);
    return;
  }
  if (Irp->CancelRoutine != nullptr) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", Irp, "IoFreeIrp: IRP %p still has cancel routine %p",
                    (void*)Irp, (void*)Irp->CancelRoutine);
  }
  ReleaseIrp(Irp);
}
