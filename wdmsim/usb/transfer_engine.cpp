// The host controller's schedule for one device. Who finishes a transfer is decided under
// the bus lock: whoever takes it out of its queue. A transfer goes to the firmware only
// after its cancel routine was taken back (it is not cancellable while the firmware holds
// it) and becomes cancellable again while it waits for its latency or for the endpoint.
#include "usb/transfer_engine.h"

#include <algorithm>

#include "usb/bus_model.h"
#include "usb/device_pdo.h"
#include "usb/usb_faults.h"
#include "usb/usbd_status.h"

namespace wdmsim {
namespace usb {
namespace {

constexpr uint64_t kTicksPerMs = 10000;  // interrupt time counts 100 ns

USHORT FunctionOf(const Transfer& transfer) {
  return transfer.urb != nullptr ? transfer.urb->UrbHeader.Function : 0xFFFF;
}

}  // namespace

TransferEngine::TransferEngine(DevicePdo* owner) : mOwner(owner) {
  KeInitializeTimer(&mTimer);
  KeInitializeDpc(&mDpc, OnDpc, this);
}

TransferEngine::~TransferEngine() = default;

void NTAPI TransferEngine::OnDpc(PKDPC, PVOID context, PVOID, PVOID) {
  static_cast<TransferEngine*>(context)->Service();
}

void NTAPI TransferEngine::OnCancel(PDEVICE_OBJECT device, PIRP irp) {
  IoReleaseCancelSpinLock(irp->CancelIrql);
  DevicePdo::From(device)->Engine().Cancel(irp);
}

void TransferEngine::Kick() { KeInsertQueueDpc(&mDpc, nullptr, nullptr); }

NTSTATUS TransferEngine::Submit(std::unique_ptr<Transfer> transfer) {
  PIRP irp = transfer->irp;
  Transfer* queued = nullptr;
  {
    auto guard = LockBus();
    if (!mGone) {
      queued = transfer.release();
      IoMarkIrpPending(irp);
      Queue& queue = mQueues[queued->endpoint];
      queue.transfers.push_back(queued);
      IoSetCancelRoutine(irp, OnCancel);
      if (!(irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr)) {
        guard.unlock();
        Kick();
        return STATUS_PENDING;
      }
      // Cancelled before it could wait: nobody else will finish it.
      queue.transfers.pop_back();
      queued->aborted = true;
      queued->abortStatus = USBD_STATUS_CANCELED;
      ++mFinishing;
    }
  }
  if (queued == nullptr) return CompleteUrb(irp, transfer->urb, USBD_STATUS_DEVICE_GONE);
  Finish(queued);
  std::lock_guard<std::mutex> guard(TheBus().lock);
  --mFinishing;
  return STATUS_PENDING;
}

void TransferEngine::Cancel(PIRP irp) {
  Transfer* found = nullptr;
  std::vector<PIRP> released;
  {
    auto guard = LockBus();
    for (auto& [endpoint, queue] : mQueues) {
      auto it = std::find_if(queue.transfers.begin(), queue.transfers.end(),
                             [irp](const Transfer* t) { return t->irp == irp; });
      if (it == queue.transfers.end()) continue;
      found = *it;
      if (found->state == Transfer::State::InFlight &&
          TakeFault(UsbFault::CompleteAfterCancel, FunctionOf(*found), endpoint, nullptr)) {
        found->cancelIgnored = true;  // its result is already on the way
        return;
      }
      queue.transfers.erase(it);
      break;
    }
    if (found == nullptr) return;
    found->aborted = true;
    found->abortStatus = USBD_STATUS_CANCELED;
    ++mFinishing;
    ReleaseAbortWaitersLocked(released);
  }
  Finish(found);
  CompleteAbortWaiters(released);
  auto guard = LockBus();
  mFinishing -= 1 + released.size();
  if (!mGone) Kick();  // the next transfer of the endpoint may go now
}

NTSTATUS TransferEngine::Abort(uint8_t endpoint, PIRP waiter) {
  Taken taken;
  {
    auto guard = LockBus();
    TakeAbortedLocked(endpoint, USBD_STATUS_CANCELED, taken.transfers);
    if (waiter != nullptr) {
      IoMarkIrpPending(waiter);
      mAbortWaiters.push_back({endpoint, waiter});
      ReleaseAbortWaitersLocked(taken.abortWaiters);
    }
  }
  FinishTaken(taken);
  return STATUS_PENDING;  // marked pending, whoever completed it
}

void TransferEngine::FailAllLocked(Taken& taken) {
  mGone = true;
  TakeAbortedLocked(0xFF, USBD_STATUS_DEVICE_GONE, taken.transfers);
  ReleaseAbortWaitersLocked(taken.abortWaiters);
}

void TransferEngine::FinishTaken(Taken& taken) {
  for (Transfer* transfer : taken.transfers) Finish(transfer);
  CompleteAbortWaiters(taken.abortWaiters);
  auto guard = LockBus();
  mFinishing -= taken.transfers.size() + taken.abortWaiters.size();
  taken.transfers.clear();
  taken.abortWaiters.clear();
}

void TransferEngine::FailAll() {
  Taken taken;
  {
    auto guard = LockBus();
    FailAllLocked(taken);
  }
  FinishTaken(taken);
}

void TransferEngine::CompleteAbortWaiters(const std::vector<PIRP>& waiters) {
  for (PIRP irp : waiters) CompleteUrb(irp, static_cast<PURB>(URB_FROM_IRP(irp)), USBD_STATUS_SUCCESS);
}

void TransferEngine::MarkReadyLocked(uint8_t endpoint) {
  if (mGone) return;
  mQueues[endpoint].ready = true;
  Kick();
}

void TransferEngine::SetHalted(uint8_t endpoint, bool halted) {
  auto guard = LockBus();
  if (halted) {
    mHalted.insert(endpoint);
  } else {
    mHalted.erase(endpoint);
  }
}

size_t TransferEngine::PendingLocked() const {
  size_t count = mAbortWaiters.size();
  for (const auto& entry : mQueues) count += entry.second.transfers.size();
  return count;
}

size_t TransferEngine::Busy() {
  auto guard = LockBus();
  return PendingLocked() + mFinishing;
}

void TransferEngine::Shutdown() {
  FailAll();
  // A transfer the firmware holds right now, or one whose cancel routine runs, finishes on
  // another thread; the device object must outlive both.
  for (int waits = 0; Busy() != 0 && waits < 1000; ++waits) {
    LARGE_INTEGER interval;
    interval.QuadPart = -static_cast<LONGLONG>(kTicksPerMs);
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
  }
  KeCancelTimer(&mTimer);
  KeRemoveQueueDpc(&mDpc);
  KeFlushQueuedDpcs();
}

// ---- The host-controller context ----------------------------------------------------------

void TransferEngine::Service() {
  std::vector<Transfer*> done;
  std::vector<PIRP> released;
  auto guard = LockBus();
  if (mServicing) {  // another processor is at it; it looks again before it stops
    mServiceAgain = true;
    return;
  }
  mServicing = true;
  do {
    mServiceAgain = false;
    const uint64_t now = KeQueryInterruptTime();
    for (auto& entry : mQueues) AdvanceLocked(guard, entry.first, entry.second, done, now);
    ReleaseAbortWaitersLocked(released);
    if (done.empty() && released.empty()) break;
    mFinishing += done.size();
    guard.unlock();
    for (Transfer* transfer : done) Finish(transfer);
    CompleteAbortWaiters(released);
    guard.lock();
    mFinishing -= done.size() + released.size();
    done.clear();
    released.clear();
    mServiceAgain = true;  // completion routines may have queued more
  } while (mServiceAgain);
  ArmTimerLocked();
  mServicing = false;
}

void TransferEngine::AdvanceLocked(std::unique_lock<std::mutex>& guard, uint8_t, Queue& queue,
                                   std::vector<Transfer*>& done, uint64_t now) {
  while (!queue.transfers.empty()) {
    Transfer* head = queue.transfers.front();
    switch (head->state) {
      case Transfer::State::Waiting:
        if (!queue.ready) return;
        [[fallthrough]];
      case Transfer::State::Queued:
        queue.ready = false;  // a release during the call counts for the next attempt
        if (!StartLocked(guard, head, now)) {
          if (head->state != Transfer::State::InFlight || head->due > now) return;
          continue;
        }
        break;
      case Transfer::State::InFlight:
        if (head->due > now) return;
        if (!head->cancelIgnored && IoSetCancelRoutine(head->irp, nullptr) == nullptr) {
          head->state = Transfer::State::CancelPending;  // its cancel routine finishes it
          return;
        }
        break;
      case Transfer::State::Calling:
      case Transfer::State::CancelPending:
        return;
    }
    queue.transfers.pop_front();
    done.push_back(head);
  }
}

// Hands the head to the firmware. True when it is finished at once; otherwise its state
// says what it waits for.
bool TransferEngine::StartLocked(std::unique_lock<std::mutex>& guard, Transfer* transfer, uint64_t now) {
  if (IoSetCancelRoutine(transfer->irp, nullptr) == nullptr) {
    transfer->state = Transfer::State::CancelPending;
    return false;
  }
  if (!transfer->control && mHalted.count(transfer->endpoint)) {
    // The host keeps a stalled endpoint halted until the client resets the pipe.
    transfer->aborted = true;
    transfer->abortStatus = USBD_STATUS_ENDPOINT_HALTED;
    return true;
  }
  transfer->state = Transfer::State::Calling;
  guard.unlock();
  UsbFirmware& firmware = mOwner->Firmware();
  const USHORT function = FunctionOf(*transfer);
  if (TakeFault(UsbFault::DisconnectMidTransfer, function, transfer->endpoint, nullptr)) firmware.Disconnect();
  UsbTransferResult result = transfer->control ? firmware.Control(transfer->setup, transfer->buffer)
                                               : firmware.Transfer(transfer->endpoint, transfer->buffer, transfer->length);
  UsbFaultPoint late;
  if (result.outcome != UsbOutcome::Pending && TakeFault(UsbFault::CompleteLate, function, transfer->endpoint, &late)) {
    result.latencyMs += late.delayMs;
  }
  guard.lock();
  transfer->result = result;
  if (result.outcome == UsbOutcome::Stalled && !transfer->control) mHalted.insert(transfer->endpoint);
  if (mGone) {
    transfer->aborted = true;
    transfer->abortStatus = USBD_STATUS_DEVICE_GONE;
  }
  if (transfer->aborted) return true;
  if (result.outcome == UsbOutcome::Pending) {
    transfer->state = Transfer::State::Waiting;
  } else {
    transfer->state = Transfer::State::InFlight;
    transfer->due = now + result.latencyMs * kTicksPerMs;
  }
  IoSetCancelRoutine(transfer->irp, OnCancel);
  if (transfer->irp->Cancel && IoSetCancelRoutine(transfer->irp, nullptr) != nullptr) {
    transfer->aborted = true;  // cancelled while the firmware had it
    transfer->abortStatus = USBD_STATUS_CANCELED;
    return true;
  }
  return false;
}

void TransferEngine::TakeAbortedLocked(uint8_t endpoint, USBD_STATUS status, std::vector<Transfer*>& done) {
  for (auto& [address, queue] : mQueues) {
    if (endpoint != 0xFF && address != endpoint) continue;
    for (auto it = queue.transfers.begin(); it != queue.transfers.end();) {
      Transfer* transfer = *it;
      if (transfer->state == Transfer::State::Calling) {
        transfer->aborted = true;  // finished when the firmware gives it back
        transfer->abortStatus = status;
        ++it;
      } else if (transfer->state == Transfer::State::CancelPending ||
                 (!transfer->cancelIgnored && IoSetCancelRoutine(transfer->irp, nullptr) == nullptr)) {
        transfer->state = Transfer::State::CancelPending;
        ++it;
      } else {
        transfer->aborted = true;
        transfer->abortStatus = status;
        done.push_back(transfer);
        it = queue.transfers.erase(it);
      }
    }
  }
  mFinishing += done.size();
}

// An abort completes once its endpoint holds nothing it took or that is being cancelled.
void TransferEngine::ReleaseAbortWaitersLocked(std::vector<PIRP>& released) {
  for (auto it = mAbortWaiters.begin(); it != mAbortWaiters.end();) {
    auto queue = mQueues.find(it->endpoint);
    bool busy = queue != mQueues.end() &&
                std::any_of(queue->second.transfers.begin(), queue->second.transfers.end(), [](const Transfer* t) {
                  return t->aborted || t->state == Transfer::State::Calling ||
                         t->state == Transfer::State::CancelPending;
                });
    if (busy) {
      ++it;
    } else {
      released.push_back(it->irp);
      ++mFinishing;
      it = mAbortWaiters.erase(it);
    }
  }
}

void TransferEngine::ArmTimerLocked() {
  uint64_t earliest = 0;
  for (const auto& entry : mQueues) {
    if (entry.second.transfers.empty()) continue;
    const Transfer* head = entry.second.transfers.front();
    if (head->state == Transfer::State::InFlight && (earliest == 0 || head->due < earliest)) earliest = head->due;
  }
  if (earliest == 0) {
    KeCancelTimer(&mTimer);
    return;
  }
  const uint64_t now = KeQueryInterruptTime();
  LARGE_INTEGER due;
  due.QuadPart = -static_cast<LONGLONG>(earliest > now ? earliest - now : 1);
  KeSetTimer(&mTimer, due, &mDpc);
}

// Without the bus lock: writes the outcome into the URB and completes the IRP.
void TransferEngine::Finish(Transfer* transfer) {
  USBD_STATUS status = USBD_STATUS_SUCCESS;
  uint32_t length = 0;
  if (transfer->aborted) {
    status = transfer->abortStatus;
  } else {
    switch (transfer->result.outcome) {
      case UsbOutcome::Completed:
        length = transfer->result.length;
        break;
      case UsbOutcome::Stalled:
        status = USBD_STATUS_STALL_PID;
        break;
      case UsbOutcome::NoResponse:
      case UsbOutcome::Pending:
        status = mOwner->Firmware().IsDisconnected() ? USBD_STATUS_DEVICE_GONE : USBD_STATUS_DEV_NOT_RESPONDING;
        break;
    }
  }
  PIRP irp = transfer->irp;
  PURB urb = transfer->urb;
  if (transfer->purpose == TransferPurpose::Data) {
    urb->UrbBulkOrInterruptTransfer.TransferBufferLength = length;
  } else {
    status = mOwner->FinishStackRequest(*transfer, status);
  }
  delete transfer;
  CompleteUrb(irp, urb, status);
}

}  // namespace usb
}  // namespace wdmsim
