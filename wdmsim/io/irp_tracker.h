// The I/O manager's record of every IRP it knows, and the verifier's view of each
// dispatch call: whether the driver that returned from it kept its word about pending.
//
// A dispatch call at stack location L ends in two events that may come in either order and
// on different threads: the dispatch routine returns a status, and the completion walk
// passes location L (reading SL_PENDING_RETURNED and IoStatus.Status there). Whichever event
// comes second checks the pair, so nothing ever reads an IRP after its dispatch returned.
#pragma once
#include <wdm.h>

#include <cstddef>
#include <vector>

namespace wdmsim {
namespace io {

enum class IrpOrigin {
  Allocated,          // IoAllocateIrp: its owner frees it after a completion routine stopped it
  Thread,             // IoBuildSynchronousFsdRequest, IoBuildDeviceIoControlRequest: freed at completion
  Asynchronous,       // IoBuildAsynchronousFsdRequest: freed at completion unless its routine keeps it
  DriverInitialized,  // driver memory given to IoInitializeIrp: the driver frees it
};
const char* OriginName(IrpOrigin origin);

void TrackIrp(const IRP* irp, IrpOrigin origin);
// Forgets the IRP; dispatch calls still running on it are left to finish unchecked.
// False when it was not tracked.
bool UntrackIrp(const IRP* irp);
// False (and nothing read) when the I/O manager does not know the IRP.
bool LookupIrp(const IRP* irp, IrpOrigin* origin);
size_t CountLiveIrps();
// Whether IofCallDriver has delivered the IRP since it was allocated or last reused.
bool HasBeenSent(const IRP* irp);

// Size of the caller's buffer that buffered I/O copies back into at completion.
void SetUserBufferLength(const IRP* irp, ULONG length);
ULONG UserBufferLength(const IRP* irp);

struct DispatchFrame;
// Called by IofCallDriver once the IRP has moved to the driver's stack location.
DispatchFrame* BeginDispatch(const IRP* irp, int location, PDEVICE_OBJECT device, UCHAR major, UCHAR minor);
void EndDispatch(const IRP* irp, DispatchFrame* frame, NTSTATUS returned);
// Called by the completion walk for each stack location it leaves.
void NoteLocationCompleted(const IRP* irp, int location, bool markedPending, NTSTATUS status);

struct LiveIrp {
  PIRP irp;
  IrpOrigin origin;
  PDEVICE_OBJECT lastDevice;  // where it was last sent (NULL: never sent)
  UCHAR lastMajor;
  UCHAR lastMinor;
};
// End of run: every tracked IRP, forgotten.
std::vector<LiveIrp> ForgetAllIrps();

}  // namespace io
}  // namespace wdmsim
