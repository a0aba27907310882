// The host controller's schedule for one device: a queue of transfers per endpoint, worked
// off in a DPC (the host-controller context, DISPATCH_LEVEL). The head of a queue goes to
// the firmware; its outcome is delivered after the firmware's latency in virtual time; a
// NAK keeps it waiting until the firmware says the endpoint is ready. Every waiting
// transfer can be cancelled; a transfer is not cancellable only while the firmware holds it.
#pragma once
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include <usb.h>
#include <wdm.h>
#include <wdmsim/usbdevice.h>

namespace wdmsim {
namespace usb {

class DevicePdo;

// What a transfer does for the stack once the device answered.
enum class TransferPurpose {
  Data,                 // the client's own transfer
  SelectConfiguration,  // SET_CONFIGURATION of a select-configuration URB
  SelectInterface,      // SET_INTERFACE of a select-interface URB
  ResetPipe,            // CLEAR_FEATURE(ENDPOINT_HALT) of a reset-pipe URB
};

struct Transfer {
  enum class State { Queued, Calling, Waiting, InFlight, CancelPending };

  PIRP irp = nullptr;
  PURB urb = nullptr;
  TransferPurpose purpose = TransferPurpose::Data;
  uint8_t endpoint = 0;  // endpoint address; 0x00 is the control pipe
  bool control = false;
  UsbSetupPacket setup;  // control transfers
  uint8_t* buffer = nullptr;
  uint32_t length = 0;
  bool in = false;
  uint8_t target = 0xFF;  // ResetPipe: the endpoint whose host halt is lifted (0xFF: none)

  // Engine state, under the bus lock.
  State state = State::Queued;
  bool aborted = false;        // abort or disconnection: finish with abortStatus
  USBD_STATUS abortStatus = USBD_STATUS_CANCELED;
  bool cancelIgnored = false;  // fault point: the cancel came too late
  UsbTransferResult result;
  uint64_t due = 0;            // interrupt time at which the result is delivered
};

class TransferEngine {
 public:
  explicit TransferEngine(DevicePdo* owner);
  ~TransferEngine();
  TransferEngine(const TransferEngine&) = delete;
  TransferEngine& operator=(const TransferEngine&) = delete;

  // Takes the transfer's IRP: pending, cancellable, queued behind the endpoint's earlier
  // transfers. Returns STATUS_PENDING, or completes the IRP at once when the device is gone.
  NTSTATUS Submit(std::unique_ptr<Transfer> transfer);
  // What a caller took out of the queues under the bus lock, to be finished without it.
  struct Taken {
    std::vector<Transfer*> transfers;
    std::vector<PIRP> abortWaiters;
  };

  // Completes every transfer of the endpoint with STATUS_CANCELLED/USBD_STATUS_CANCELED.
  // `waiter` (the abort request) completes once none is left: at once, or when the one the
  // firmware holds right now has come back. Returns STATUS_PENDING (the waiter is marked so).
  // Endpoint 0xFF with no waiter: every endpoint, the control pipe included.
  NTSTATUS Abort(uint8_t endpoint, PIRP waiter);
  // The device left the bus: every transfer fails with STATUS_DEVICE_NOT_CONNECTED and
  // USBD_STATUS_DEVICE_GONE, now and from now on. The engine stays until FinishTaken is done.
  void FailAllLocked(Taken& taken);
  void FinishTaken(Taken& taken);
  void FailAll();
  // Under the bus lock: the firmware released the endpoint.
  void MarkReadyLocked(uint8_t endpoint);
  void SetHalted(uint8_t endpoint, bool halted);
  // Transfers and aborts the stack holds (queued, waiting or with the firmware).
  size_t PendingLocked() const;
  // PASSIVE_LEVEL, before the device object goes: fails what is left and waits until the
  // host-controller context has let go of the device.
  void Shutdown();

 private:
  struct Queue {
    std::deque<Transfer*> transfers;
    bool ready = false;  // the firmware released the endpoint since the last NAK
  };
  struct AbortWaiter {
    uint8_t endpoint;
    PIRP irp;
  };

  static void NTAPI OnDpc(PKDPC dpc, PVOID context, PVOID argument1, PVOID argument2);
  static void NTAPI OnCancel(PDEVICE_OBJECT device, PIRP irp);
  void Cancel(PIRP irp);
  void Service();
  // Under the lock: moves the head of the queue on; finished transfers go to `done`.
  void AdvanceLocked(std::unique_lock<std::mutex>& guard, uint8_t endpoint, Queue& queue,
                     std::vector<Transfer*>& done, uint64_t now);
  bool StartLocked(std::unique_lock<std::mutex>& guard, Transfer* transfer, uint64_t now);
  // Under the lock: takes every transfer of the endpoint (all when endpoint is 0xFF) that is
  // not with the firmware; they are to be finished with their abort status.
  void TakeAbortedLocked(uint8_t endpoint, USBD_STATUS status, std::vector<Transfer*>& done);
  void CompleteAbortWaiters(const std::vector<PIRP>& waiters);
  void ReleaseAbortWaitersLocked(std::vector<PIRP>& released);
  void ArmTimerLocked();
  // Pending, and those taken out of the queues whose completion is still under way.
  size_t Busy();
  void Finish(Transfer* transfer);
  void Kick();

  DevicePdo* mOwner;
  KTIMER mTimer;
  KDPC mDpc;
  std::map<uint8_t, Queue> mQueues;
  std::vector<AbortWaiter> mAbortWaiters;
  std::set<uint8_t> mHalted;  // endpoints that stalled and were not reset since
  size_t mFinishing = 0;      // taken out of the queues, not yet completed
  bool mGone = false;
  bool mServicing = false;
  bool mServiceAgain = false;
};

}  // namespace usb
}  // namespace wdmsim
