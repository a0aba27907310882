// The completion walk: routines run bottom-up with their owner's device, pending travels
// upward, STATUS_MORE_PROCESSING_REQUIRED stops the walk, and the invoke flags filter.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "io_test_driver.h"

namespace {

struct Call {
  std::string name;
  PDEVICE_OBJECT device;   // the DeviceObject argument
  PDEVICE_OBJECT current;  // the device of the current stack location while the routine runs
  bool pendingReturned;
  NTSTATUS status;
  ULONG_PTR information;
};

// What a completion routine does, and where it writes down that it ran.
struct Routine {
  std::string name;
  std::vector<Call>* log;
  NTSTATUS result = STATUS_SUCCESS;
  bool propagatePending = true;
};

NTSTATUS NTAPI RecordingRoutine(PDEVICE_OBJECT device, PIRP irp, PVOID context) {
  auto routine = static_cast<Routine*>(context);
  PDEVICE_OBJECT current =
      irp->CurrentLocation <= irp->StackCount ? IoGetCurrentIrpStackLocation(irp)->DeviceObject : nullptr;
  routine->log->push_back(
      {routine->name, device, current, irp->PendingReturned != FALSE, irp->IoStatus.Status, irp->IoStatus.Information});
  if (routine->propagatePending && irp->PendingReturned && routine->result != STATUS_MORE_PROCESSING_REQUIRED) {
    IoMarkIrpPending(irp);
  }
  return routine->result;
}

// A filter's dispatch: copies its location down, sets routine and calls lower.
iotest::Dispatch ForwardWithRoutine(PDEVICE_OBJECT lower, Routine* routine) {
  return [lower, routine](PDEVICE_OBJECT, PIRP irp) {
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, RecordingRoutine, routine, TRUE, TRUE, TRUE);
    return IoCallDriver(lower, irp);
  };
}

class CompletionWalk : public iotest::IoTest {
 protected:
  // An IRP of the test's own whose routine records and takes it back.
  PIRP OwnIrp(PDEVICE_OBJECT top) { return IoTest::OwnIrp(top, RecordingRoutine, &originator); }

  std::vector<Call> log;
  Routine originator{"originator", &log, STATUS_MORE_PROCESSING_REQUIRED};
};

TEST_F(CompletionWalk, RoutinesRunBottomUpEachWithItsOwnersDevice) {
  Routine middle{"middle", &log};
  Routine top{"top", &log};
  PDEVICE_OBJECT a = driver.AddDevice(iotest::CompleteWith(STATUS_SUCCESS, 0x5A5A));
  PDEVICE_OBJECT b = driver.AddDevice(ForwardWithRoutine(a, &middle), a);
  PDEVICE_OBJECT c = driver.AddDevice(ForwardWithRoutine(b, &top), b);
  PIRP irp = OwnIrp(c);

  EXPECT_EQ(IoCallDriver(c, irp), STATUS_SUCCESS);

  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[0].name, "middle");
  EXPECT_EQ(log[0].device, b);
  EXPECT_EQ(log[0].current, b);
  EXPECT_EQ(log[1].name, "top");
  EXPECT_EQ(log[1].device, c);
  EXPECT_EQ(log[1].current, c);
  EXPECT_EQ(log[2].name, "originator");
  EXPECT_EQ(log[2].device, nullptr);
  for (const Call& call : log) {
    EXPECT_EQ(call.information, 0x5A5Au) << call.name;
    EXPECT_FALSE(call.pendingReturned) << call.name;
  }
  IoFreeIrp(irp);
}

TEST_F(CompletionWalk, PendingReturnedReachesEveryLevelAbove) {
  // The level above the pending driver either has its own routine (which must carry the
  // mark up) or none (the I/O manager carries it).
  for (bool topHasRoutine : {true, false}) {
    SCOPED_TRACE(topHasRoutine ? "top with routine" : "top without routine");
    log.clear();
    iotest::TestDriver stack(u"iotest_pending");
    Routine top{"top", &log};
    PIRP held = nullptr;
    PDEVICE_OBJECT a = stack.AddDevice([&](PDEVICE_OBJECT, PIRP irp) {
      IoMarkIrpPending(irp);
      held = irp;
      return STATUS_PENDING;
    });
    PDEVICE_OBJECT b = stack.AddDevice(iotest::SkipTo(a), a);
    iotest::Dispatch forwardPlain = [b](PDEVICE_OBJECT, PIRP irp) {
      IoCopyCurrentIrpStackLocationToNext(irp);
      return IoCallDriver(b, irp);
    };
    PDEVICE_OBJECT c = stack.AddDevice(topHasRoutine ? ForwardWithRoutine(b, &top) : forwardPlain, b);
    PIRP irp = OwnIrp(c);

    EXPECT_EQ(IoCallDriver(c, irp), STATUS_PENDING);
    EXPECT_TRUE(log.empty());
    ASSERT_EQ(held, irp);
    held->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(held, IO_NO_INCREMENT);

    ASSERT_EQ(log.size(), topHasRoutine ? 2u : 1u);
    for (const Call& call : log) EXPECT_TRUE(call.pendingReturned) << call.name;
    EXPECT_EQ(log.back().name, "originator");
    IoFreeIrp(irp);
  }
}

TEST_F(CompletionWalk, MoreProcessingRequiredStopsUntilTheOwnerCompletesAgain) {
  Routine stop{"stop", &log, STATUS_MORE_PROCESSING_REQUIRED};
  Routine top{"top", &log};
  size_t callsSeenAfterStop = 99;
  PDEVICE_OBJECT a = driver.AddDevice(iotest::CompleteWith(STATUS_SUCCESS, 1));
  PDEVICE_OBJECT b = driver.AddDevice(
      [&](PDEVICE_OBJECT, PIRP irp) {
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(irp, RecordingRoutine, &stop, TRUE, TRUE, TRUE);
        IoCallDriver(a, irp);
        // The lower driver completed synchronously; the walk stopped at our routine.
        callsSeenAfterStop = log.size();
        irp->IoStatus.Information = 0xB0B;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_SUCCESS;
      },
      a);
  PDEVICE_OBJECT c = driver.AddDevice(ForwardWithRoutine(b, &top), b);
  PIRP irp = OwnIrp(c);

  EXPECT_EQ(IoCallDriver(c, irp), STATUS_SUCCESS);

  EXPECT_EQ(callsSeenAfterStop, 1u);
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[0].name, "stop");
  EXPECT_EQ(log[0].information, 1u);
  EXPECT_EQ(log[1].name, "top");
  EXPECT_EQ(log[1].information, 0xB0Bu);
  EXPECT_EQ(log[2].name, "originator");
  EXPECT_EQ(log[2].information, 0xB0Bu);
  IoFreeIrp(irp);
}

TEST_F(CompletionWalk, InvokeFlagsSelectTheRoutineByOutcome) {
  struct Row {
    const char* name;
    NTSTATUS status;
    bool cancelled;
    bool onSuccess, onError, onCancel;
    bool called;
  };
  const Row rows[] = {
      {"success, success flag", STATUS_SUCCESS, false, true, false, false, true},
      {"success, error flag", STATUS_SUCCESS, false, false, true, false, false},
      {"informational is a success", STATUS_OBJECT_NAME_EXISTS, false, true, false, false, true},
      {"informational, error flag", STATUS_OBJECT_NAME_EXISTS, false, false, true, false, false},
      {"warning is an error", STATUS_BUFFER_OVERFLOW, false, false, true, false, true},
      {"warning, success flag", STATUS_BUFFER_OVERFLOW, false, true, false, false, false},
      {"error, error flag", STATUS_UNSUCCESSFUL, false, false, true, false, true},
      {"error, success flag", STATUS_UNSUCCESSFUL, false, true, false, false, false},
      {"cancelled, cancel flag", STATUS_CANCELLED, true, false, false, true, true},
      {"cancelled but succeeded, cancel flag", STATUS_SUCCESS, true, false, false, true, true},
      {"cancel status without Cancel, cancel flag", STATUS_CANCELLED, false, false, false, true, false},
      {"no flag", STATUS_SUCCESS, false, false, false, false, false},
  };
  NTSTATUS bottomStatus = STATUS_SUCCESS;
  const Row* row = nullptr;
  Routine filtered{"filtered", &log};
  PDEVICE_OBJECT a = driver.AddDevice([&](PDEVICE_OBJECT, PIRP irp) {
    irp->IoStatus.Status = bottomStatus;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return bottomStatus;
  });
  PDEVICE_OBJECT b = driver.AddDevice(
      [&](PDEVICE_OBJECT, PIRP irp) {
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(irp, RecordingRoutine, &filtered, row->onSuccess, row->onError, row->onCancel);
        return IoCallDriver(a, irp);
      },
      a);
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    row = &r;
    bottomStatus = r.status;
    log.clear();
    PIRP irp = OwnIrp(b);
    irp->Cancel = r.cancelled;
    IoCallDriver(b, irp);
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back().name, "originator");
    EXPECT_EQ(log.size() == 2, r.called);
    IoFreeIrp(irp);
  }
}

}  // namespace
