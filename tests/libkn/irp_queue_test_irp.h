// IRPs for the queue tests, owned the way a driver owns the IRPs it allocates: one stack
// location (the queue's driver), and a completion routine that records each completion
// and hands the IRP back with STATUS_MORE_PROCESSING_REQUIRED so that the test frees it.
#pragma once
#include <ntddk.h>

#include <atomic>
#include <mutex>
#include <ostream>
#include <vector>

#include <gtest/gtest.h>
#include <wdmsim/debugout.h>
#include <wdmsim/kernel.h>

#include "knirpqueue.h"
#include "kntrace.h"

namespace irp_queue_test {

enum class Event { IrpCancelled, Completed };

struct Entry {
  PIRP irp;
  Event event;
  bool operator==(const Entry& other) const { return irp == other.irp && event == other.event; }
};

// What happened to the test's IRPs, in order: completions and IrpCancelled calls.
class EventLog {
 public:
  void Add(PIRP irp, Event event) {
    std::lock_guard<std::mutex> guard(mLock);
    mEntries.push_back(Entry{irp, event});
  }
  std::vector<Entry> Take() {
    std::lock_guard<std::mutex> guard(mLock);
    std::vector<Entry> entries;
    entries.swap(mEntries);
    return entries;
  }

 private:
  std::mutex mLock;
  std::vector<Entry> mEntries;
};

inline std::ostream& operator<<(std::ostream& out, const Entry& entry) {
  return out << (entry.event == Event::IrpCancelled ? "IrpCancelled(" : "Completed(") << entry.irp << ")";
}

inline Entry Cancelled(PIRP irp) { return Entry{irp, Event::IrpCancelled}; }
inline Entry Completed(PIRP irp) { return Entry{irp, Event::Completed}; }

class TestIrp {
 public:
  static constexpr ULONG_PTR kInformationSentinel = 0xA5A5A5A5;

  explicit TestIrp(EventLog* log, PFILE_OBJECT fileObject = nullptr) : mLog(log) {
    mIrp = IoAllocateIrp(1, FALSE);
    IoSetCompletionRoutine(mIrp, OnComplete, this, TRUE, TRUE, TRUE);
    IoSetNextIrpStackLocation(mIrp);
    IoGetCurrentIrpStackLocation(mIrp)->FileObject = fileObject;
    mIrp->IoStatus.Information = kInformationSentinel;
  }
  ~TestIrp() { IoFreeIrp(mIrp); }
  TestIrp(const TestIrp&) = delete;
  TestIrp& operator=(const TestIrp&) = delete;

  PIRP irp() const { return mIrp; }
  int completions() const { return mCompletions.load(); }
  NTSTATUS status() const { return mStatus.load(); }
  ULONG_PTR information() const { return mInformation.load(); }
  // While the IRP is still in the queue's hands.
  bool markedPending() const { return (IoGetCurrentIrpStackLocation(mIrp)->Control & SL_PENDING_RETURNED) != 0; }
  // What the completion reported upward: the queue's driver had marked it pending.
  bool pendingReturned() const { return mPendingReturned.load(); }

  // What the owner of a removed IRP does with it.
  void Complete(NTSTATUS status) {
    mIrp->IoStatus.Status = status;
    IoCompleteRequest(mIrp, IO_NO_INCREMENT);
  }

 private:
  static NTSTATUS OnComplete(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    TestIrp* self = static_cast<TestIrp*>(context);
    self->mStatus = irp->IoStatus.Status;
    self->mInformation = irp->IoStatus.Information;
    self->mPendingReturned = irp->PendingReturned != FALSE;
    self->mCompletions++;
    self->mLog->Add(irp, Event::Completed);
    return STATUS_MORE_PROCESSING_REQUIRED;
  }

  PIRP mIrp;
  EventLog* mLog;
  std::atomic<int> mCompletions{0};
  std::atomic<NTSTATUS> mStatus{0x7EEEEEEE};
  std::atomic<ULONG_PTR> mInformation{0};
  std::atomic<bool> mPendingReturned{false};
};

// A derived queue that logs every IrpCancelled call.
class RecordingQueue : public KnIrpQueue {
 public:
  explicit RecordingQueue(EventLog* log) : mLog(log) {}
  void IrpCancelled(PIRP Irp) override { mLog->Add(Irp, Event::IrpCancelled); }

 private:
  EventLog* mLog;
};

// A queue that logs, on a fresh simulated machine, with "kntest" traces.
class QueueTest : public testing::Test {
 protected:
  void SetUp() override {
    KnTraceSetPrefix("kntest");
    gKnTraceMask = 3;
    wdmsim::TakeDebugOutput();
  }

  wdmsim::Kernel mKernel;
  EventLog mLog;
  RecordingQueue mQueue{&mLog};
};

}  // namespace irp_queue_test
