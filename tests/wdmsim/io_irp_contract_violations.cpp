// Breaches of the IRP contract are reported with the bugcheck Windows (or its driver
// verifier) would raise, and the run goes on in the safest way.
#include <gtest/gtest.h>

#include "io_test_driver.h"

namespace {

using iotest::CountViolations;
using iotest::kIoViolation;

class IrpContract : public iotest::IoTest {
 protected:
  wdmsim_test::ExpectViolations expected;
};

TEST_F(IrpContract, SecondCompletionIsReportedAndIgnored) {
  // A thread request is freed by its first completion; a driver's own IRP is back with its
  // owner after it; an IRP that went past its top stays completed.
  PDEVICE_OBJECT twice = driver.AddDevice([](PDEVICE_OBJECT, PIRP irp) {
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
  });
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb;
  PIRP thread = IoBuildSynchronousFsdRequest(IRP_MJ_FLUSH_BUFFERS, twice, nullptr, 0, nullptr, &event, &iosb);
  IoCallDriver(twice, thread);
  EXPECT_EQ(KeReadStateEvent(&event), 1);
  EXPECT_EQ(CountViolations(wdmsim::TakeViolations(), "MULTIPLE_IRP_COMPLETE_REQUESTS", "not an allocated IRP"), 1);

  PIRP own = OwnIrp(twice);
  IoCallDriver(twice, own);
  EXPECT_EQ(takeBacks, 1);
  EXPECT_EQ(CountViolations(wdmsim::TakeViolations(), "MULTIPLE_IRP_COMPLETE_REQUESTS", "already completed"), 1);
  IoFreeIrp(own);

  PIRP unowned = IoAllocateIrp(1, FALSE);
  IoGetNextIrpStackLocation(unowned)->MajorFunction = IRP_MJ_READ;
  IoCallDriver(twice, unowned);
  auto violations = wdmsim::TakeViolations();
  EXPECT_EQ(CountViolations(violations, kIoViolation, "completed past its top stack location"), 1);
  EXPECT_EQ(CountViolations(violations, "MULTIPLE_IRP_COMPLETE_REQUESTS", "already completed"), 1);
  IoFreeIrp(unowned);
  EXPECT_EQ(expected.Total(), 4);
}

void NTAPI NeverCalled(PDEVICE_OBJECT, PIRP irp) { ADD_FAILURE() << "cancel routine of a completed IRP ran"; }

TEST_F(IrpContract, CompletionWithACancelRoutineSetIsReportedAndTheRoutineDisarmed) {
  PDEVICE_OBJECT device = driver.AddDevice([](PDEVICE_OBJECT, PIRP irp) {
    IoSetCancelRoutine(irp, NeverCalled);
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
  });
  PIRP irp = OwnIrp(device);
  IoCallDriver(device, irp);
  EXPECT_EQ(CountViolations(wdmsim::TakeViolations(), "CANCEL_STATE_IN_COMPLETED_IRP"), 1);
  EXPECT_EQ(irp->CancelRoutine, nullptr);
  EXPECT_FALSE(IoCancelIrp(irp));
  IoFreeIrp(irp);
}

TEST_F(IrpContract, DispatchRoutinesMustKeepTheirPendingPromise) {
  enum class Behaviour { PendUnmarkedCompleteLater, PendUnmarkedCompleteFirst, MarkCompleteReturnSuccess,
                         FailButReturnSuccess, ReturnWithoutCompleting, CompleteWithStatusPending, PendProperly };
  struct Row {
    const char* name;
    Behaviour behaviour;
    const char* code;  // expected I/O error code, NULL for none
  };
  const Row rows[] = {
      {"pending, unmarked, completed later", Behaviour::PendUnmarkedCompleteLater, "0x23D"},
      {"pending, unmarked, completed before returning", Behaviour::PendUnmarkedCompleteFirst, "0x23D"},
      {"marked, completed, success returned", Behaviour::MarkCompleteReturnSuccess, "0x23E"},
      {"failed, success returned", Behaviour::FailButReturnSuccess, "0x224"},
      {"returned without completing", Behaviour::ReturnWithoutCompleting, "0x226"},
      {"completed with STATUS_PENDING", Behaviour::CompleteWithStatusPending, "0x06"},
      {"marked and pending, completed later", Behaviour::PendProperly, nullptr},
  };
  const Row* row = nullptr;
  PIRP held = nullptr;
  PDEVICE_OBJECT device = driver.AddDevice([&](PDEVICE_OBJECT, PIRP irp) -> NTSTATUS {
    irp->IoStatus.Status = STATUS_SUCCESS;
    switch (row->behaviour) {
      case Behaviour::PendUnmarkedCompleteLater:
        held = irp;
        return STATUS_PENDING;
      case Behaviour::PendUnmarkedCompleteFirst:
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_PENDING;
      case Behaviour::MarkCompleteReturnSuccess:
        IoMarkIrpPending(irp);
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_SUCCESS;
      case Behaviour::FailButReturnSuccess:
        irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_SUCCESS;
      case Behaviour::ReturnWithoutCompleting:
        held = irp;
        return STATUS_SUCCESS;
      case Behaviour::CompleteWithStatusPending:
        IoMarkIrpPending(irp);
        irp->IoStatus.Status = STATUS_PENDING;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_PENDING;
      case Behaviour::PendProperly:
        IoMarkIrpPending(irp);
        held = irp;
        return STATUS_PENDING;
    }
    return STATUS_UNSUCCESSFUL;
  });
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    row = &r;
    held = nullptr;
    takeBacks = 0;
    PIRP irp = OwnIrp(device);
    IoCallDriver(device, irp);
    if (held != nullptr) IoCompleteRequest(held, IO_NO_INCREMENT);
    EXPECT_EQ(takeBacks, 1);
    auto violations = wdmsim::TakeViolations();
    EXPECT_EQ(violations.size(), r.code ? 1u : 0u);
    if (r.code) {
      EXPECT_EQ(CountViolations(violations, kIoViolation, r.code), 1);
    }
    IoFreeIrp(irp);
  }
}

NTSTATUS NTAPI ForgetsPendingReturned(PDEVICE_OBJECT, PIRP, PVOID) { return STATUS_SUCCESS; }

TEST_F(IrpContract, RoutineThatDropsPendingReturnedBreaksItsDriversPromise) {
  PIRP held = nullptr;
  PDEVICE_OBJECT bottom = driver.AddDevice([&](PDEVICE_OBJECT, PIRP irp) {
    IoMarkIrpPending(irp);
    held = irp;
    return STATUS_PENDING;
  });
  PDEVICE_OBJECT filter = driver.AddDevice(
      [&](PDEVICE_OBJECT, PIRP irp) {
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(irp, ForgetsPendingReturned, nullptr, TRUE, TRUE, TRUE);
        return IoCallDriver(bottom, irp);
      },
      bottom);
  PIRP irp = OwnIrp(filter);
  EXPECT_EQ(IoCallDriver(filter, irp), STATUS_PENDING);
  EXPECT_TRUE(wdmsim::TakeViolations().empty());
  IoCompleteRequest(held, IO_NO_INCREMENT);
  char device[32];
  snprintf(device, sizeof device, "device %p", (void*)filter);
  auto violations = wdmsim::TakeViolations();
  EXPECT_EQ(CountViolations(violations, kIoViolation, "0x23D"), 1);
  EXPECT_EQ(CountViolations(violations, kIoViolation, device), 1);
  IoFreeIrp(irp);
}

TEST_F(IrpContract, FreeingAnIrpThatIsNotTheCallersIsRefused) {
  PIRP held = nullptr;
  PDEVICE_OBJECT device = driver.AddDevice([&](PDEVICE_OBJECT, PIRP irp) {
    IoMarkIrpPending(irp);
    held = irp;
    return STATUS_PENDING;
  });
  PIRP irp = OwnIrp(device);
  IoCallDriver(device, irp);
  IoFreeIrp(irp);
  EXPECT_EQ(CountViolations(wdmsim::TakeViolations(), kIoViolation, "0x20B"), 1);
  EXPECT_TRUE(wdmsim::IsLiveIrp(irp));
  IoCompleteRequest(held, IO_NO_INCREMENT);
  IoFreeIrp(irp);

  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb;
  PIRP thread = IoBuildSynchronousFsdRequest(IRP_MJ_FLUSH_BUFFERS, device, nullptr, 0, nullptr, &event, &iosb);
  IoFreeIrp(thread);
  EXPECT_EQ(CountViolations(wdmsim::TakeViolations(), kIoViolation, "0x20C"), 1);
  IoCallDriver(device, thread);
  IoCompleteRequest(held, IO_NO_INCREMENT);
  EXPECT_EQ(KeReadStateEvent(&event), 1);

  irp = IoAllocateIrp(1, FALSE);
  IoFreeIrp(irp);
  IoFreeIrp(irp);
  EXPECT_EQ(CountViolations(wdmsim::TakeViolations(), kIoViolation, "0x01"), 1);
  EXPECT_EQ(expected.Total(), 3);
}

TEST_F(IrpContract, ForwardingWithoutAStackLocationLeftIsRefused) {
  bool reached = false;
  PDEVICE_OBJECT elsewhere = driver.AddDevice([&](PDEVICE_OBJECT, PIRP irp) {
    reached = true;
    return STATUS_SUCCESS;
  });
  NTSTATUS forwarded = STATUS_PENDING;
  PDEVICE_OBJECT device = driver.AddDevice([&](PDEVICE_OBJECT, PIRP irp) {
    // Sends its one-location IRP on to a device of another stack (preparing the next
    // location would already write outside the IRP).
    forwarded = IoCallDriver(elsewhere, irp);
    irp->IoStatus.Status = forwarded;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return forwarded;
  });
  PIRP irp = OwnIrp(device);  // one stack location
  IoCallDriver(device, irp);
  EXPECT_FALSE(reached);
  EXPECT_EQ(forwarded, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(takeBacks, 1);
  EXPECT_EQ(expected.Count("NO_MORE_IRP_STACK_LOCATIONS"), 1);
  IoFreeIrp(irp);
}

TEST_F(IrpContract, CallAndCompletionAboveDispatchLevelAreReported) {
  PDEVICE_OBJECT device = driver.AddDevice(iotest::CompleteWith(STATUS_SUCCESS));
  PIRP irp = OwnIrp(device);
  KIRQL old;
  KeRaiseIrql(DISPATCH_LEVEL + 1, &old);
  IoCallDriver(device, irp);
  KeLowerIrql(old);
  auto violations = wdmsim::TakeViolations();
  EXPECT_EQ(CountViolations(violations, kIoViolation, "0x10"), 1);
  EXPECT_EQ(CountViolations(violations, kIoViolation, "0x0E"), 1);
  EXPECT_EQ(takeBacks, 1);
  IoFreeIrp(irp);

  PDEVICE_OBJECT raises = driver.AddDevice([](PDEVICE_OBJECT, PIRP irp) {
    KIRQL ignored;
    KeRaiseIrql(DISPATCH_LEVEL, &ignored);
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
  });
  irp = OwnIrp(raises);
  IoCallDriver(raises, irp);
  KeLowerIrql(PASSIVE_LEVEL);
  EXPECT_EQ(CountViolations(wdmsim::TakeViolations(), kIoViolation, "0x05"), 1);
  IoFreeIrp(irp);
}

TEST_F(IrpContract, RequestsToWhatIsNotADeviceStayWithTheCaller) {
  PIRP irp = OwnIrp(driver.AddDevice(iotest::CompleteWith(STATUS_SUCCESS)));
  EXPECT_EQ(IoCallDriver(nullptr, irp), STATUS_INVALID_PARAMETER);
  DEVICE_OBJECT fake = {};
  EXPECT_EQ(IoCallDriver(&fake, irp), STATUS_INVALID_PARAMETER);
  auto violations = wdmsim::TakeViolations();
  EXPECT_EQ(CountViolations(violations, kIoViolation, "0x204"), 1);
  EXPECT_EQ(CountViolations(violations, kIoViolation, "0x04"), 1);
  EXPECT_EQ(takeBacks, 0);
  IoFreeIrp(irp);
}

}  // namespace
