// Requests the I/O manager builds for a caller (IoBuild...): buffers on the way down and
// back, the caller's event and status block at completion, and the IRP freed afterwards.
#include <gtest/gtest.h>

#include <cstring>

#include "io_test_driver.h"

namespace {

const ULONG kBufferedControl = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_BUFFERED, FILE_ANY_ACCESS);
const ULONG kNeitherInternal = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x802, METHOD_NEITHER, FILE_ANY_ACCESS);
const ULONG kOutDirectControl = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x803, METHOD_OUT_DIRECT, FILE_ANY_ACCESS);

class ThreadRequests : public iotest::IoTest {
 protected:
  ThreadRequests() { KeInitializeEvent(&event, NotificationEvent, FALSE); }

  KEVENT event;
  IO_STATUS_BLOCK iosb = {};
};

// The bottom device answers a buffered control: it keeps the input it was given and writes
// `produced` bytes of 0xC3 as output, claiming `information` bytes. Exactly what the caller
// may see comes back, only on success; a claim beyond the caller's buffer is reported.
TEST_F(ThreadRequests, BufferedControlCarriesInputDownAndOutputBack) {
  struct Row {
    const char* name;
    NTSTATUS status;
    ULONG outputLength;
    ULONG produced;
    ULONG_PTR information;
    const char* output;  // the caller's 8 bytes afterwards: 'C' for 0xC3, '.' untouched
    int violations;
  } rows[] = {
      {"success", STATUS_SUCCESS, 8, 6, 6, "CCCCCC..", 0},
      {"failure", STATUS_UNSUCCESSFUL, 8, 8, 8, "........", 0},
      {"information beyond the output buffer", STATUS_SUCCESS, 4, 4, 8, "CCCC....", 1},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    std::vector<UCHAR> seenInput;
    PDEVICE_OBJECT device = driver.AddDevice([&](PDEVICE_OBJECT, PIRP irp) {
      PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
      EXPECT_EQ(stack->MajorFunction, IRP_MJ_DEVICE_CONTROL);
      EXPECT_EQ(stack->Parameters.DeviceIoControl.IoControlCode, kBufferedControl);
      auto system = static_cast<UCHAR*>(irp->AssociatedIrp.SystemBuffer);
      seenInput.assign(system, system + stack->Parameters.DeviceIoControl.InputBufferLength);
      memset(system, 0xC3, r.produced);
      irp->IoStatus.Status = r.status;
      irp->IoStatus.Information = r.information;
      IoCompleteRequest(irp, IO_NO_INCREMENT);
      return r.status;
    });
    UCHAR input[3] = {0x11, 0x22, 0x33};
    UCHAR output[8];
    memset(output, 0xEE, sizeof output);
    KeClearEvent(&event);
    wdmsim_test::ExpectViolations expected;
    PIRP irp = IoBuildDeviceIoControlRequest(kBufferedControl, device, input, sizeof input, output, r.outputLength,
                                             FALSE, &event, &iosb);
    ASSERT_NE(irp, nullptr);
    EXPECT_EQ(wdmsim::LiveIrpCount(), 1u);
    EXPECT_EQ(IoCallDriver(device, irp), r.status);

    EXPECT_EQ(seenInput, std::vector<UCHAR>({0x11, 0x22, 0x33}));
    EXPECT_EQ(KeReadStateEvent(&event), 1);
    EXPECT_EQ(iosb.Status, r.status);
    EXPECT_EQ(iosb.Information, r.information);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(output[i], r.output[i] == 'C' ? 0xC3 : 0xEE) << "byte " << i;
    EXPECT_EQ(iotest::CountViolations(wdmsim::TakeViolations(), iotest::kIoViolation,
                                      "more than the 4-byte output buffer"),
              r.violations);
    EXPECT_EQ(wdmsim::LiveIrpCount(), 0u);
  }
}

TEST_F(ThreadRequests, PendingRequestSignalsOnlyWhenCompletedLater) {
  PIRP held = nullptr;
  PDEVICE_OBJECT device = driver.AddDevice([&](PDEVICE_OBJECT, PIRP irp) {
    IoMarkIrpPending(irp);
    held = irp;
    return STATUS_PENDING;
  });
  iosb.Status = 0x1234;
  PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_FLUSH_BUFFERS, device, nullptr, 0, nullptr, &event, &iosb);
  EXPECT_EQ(IoCallDriver(device, irp), STATUS_PENDING);
  EXPECT_EQ(KeReadStateEvent(&event), 0);
  EXPECT_EQ(iosb.Status, 0x1234);
  EXPECT_TRUE(wdmsim::IsLiveIrp(held));

  // Completed from another thread, as a lower driver's DPC would.
  iotest::SystemThread completer([&] {
    held->IoStatus.Status = STATUS_SUCCESS;
    held->IoStatus.Information = 77;
    IoCompleteRequest(held, IO_NO_INCREMENT);
  });
  EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
  completer.Join();
  EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
  EXPECT_EQ(iosb.Information, 77u);
  EXPECT_FALSE(wdmsim::IsLiveIrp(irp));
}

TEST_F(ThreadRequests, InternalNeitherControlPassesTheCallersPointers) {
  int input = 0, output = 0;
  PDEVICE_OBJECT device = driver.AddDevice([&](PDEVICE_OBJECT, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    EXPECT_EQ(stack->MajorFunction, IRP_MJ_INTERNAL_DEVICE_CONTROL);
    EXPECT_EQ(stack->Parameters.DeviceIoControl.Type3InputBuffer, &input);
    EXPECT_EQ(irp->UserBuffer, &output);
    EXPECT_EQ(irp->AssociatedIrp.SystemBuffer, nullptr);
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
  });
  PIRP irp = IoBuildDeviceIoControlRequest(kNeitherInternal, device, &input, sizeof input, &output, sizeof output,
                                           TRUE, &event, &iosb);
  EXPECT_EQ(IoCallDriver(device, irp), STATUS_SUCCESS);
  EXPECT_EQ(KeReadStateEvent(&event), 1);
}

TEST_F(ThreadRequests, TransfersFollowTheDevicesBufferingMethod) {
  UCHAR data[16];
  memset(data, 0x4D, sizeof data);
  PDEVICE_OBJECT device = driver.AddDevice([&](PDEVICE_OBJECT self, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    EXPECT_EQ(stack->Parameters.Read.Length, sizeof data);
    EXPECT_EQ(stack->Parameters.Read.ByteOffset.QuadPart, 512);
    void* target;
    if (self->Flags & DO_BUFFERED_IO) {
      target = irp->AssociatedIrp.SystemBuffer;
      EXPECT_NE(target, data);
    } else {
      EXPECT_NE(irp->MdlAddress, nullptr);
      EXPECT_EQ(MmGetMdlByteCount(irp->MdlAddress), sizeof data);
      target = MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
      EXPECT_EQ(target, data);
    }
    memset(target, 0x5E, sizeof data);
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = sizeof data;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
  });
  for (ULONG method : {DO_BUFFERED_IO, DO_DIRECT_IO}) {
    SCOPED_TRACE(method == DO_BUFFERED_IO ? "buffered" : "direct");
    device->Flags = (device->Flags & ~(DO_BUFFERED_IO | DO_DIRECT_IO)) | method;
    memset(data, 0x4D, sizeof data);
    KeClearEvent(&event);
    LARGE_INTEGER offset;
    offset.QuadPart = 512;
    PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_READ, device, data, sizeof data, &offset, &event, &iosb);
    ASSERT_NE(irp, nullptr);
    EXPECT_EQ(IoCallDriver(device, irp), STATUS_SUCCESS);
    for (UCHAR b : data) EXPECT_EQ(b, 0x5E);
    EXPECT_EQ(iosb.Information, sizeof data);
  }
  // System buffers and MDLs went with their IRPs (the end of the run reports any left).
  EXPECT_EQ(wdmsim::LiveIrpCount(), 0u);
}

// The documented way to use an asynchronous request: the routine frees it.
NTSTATUS NTAPI FreeAsynchronousRequest(PDEVICE_OBJECT, PIRP irp, PVOID context) {
  *static_cast<NTSTATUS*>(context) = irp->IoStatus.Status;
  IoFreeIrp(irp);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

TEST_F(ThreadRequests, AsynchronousRequestIsFreedByItsRoutineOrByTheIoManager) {
  PDEVICE_OBJECT device = driver.AddDevice(iotest::CompleteWith(STATUS_SUCCESS, 5));
  NTSTATUS seen = STATUS_PENDING;
  PIRP irp = IoBuildAsynchronousFsdRequest(IRP_MJ_WRITE, device, nullptr, 0, nullptr, &iosb);
  IoSetCompletionRoutine(irp, FreeAsynchronousRequest, &seen, TRUE, TRUE, TRUE);
  EXPECT_EQ(IoCallDriver(device, irp), STATUS_SUCCESS);
  EXPECT_EQ(seen, STATUS_SUCCESS);
  EXPECT_EQ(wdmsim::LiveIrpCount(), 0u);

  // Without a routine it goes back to the issuer: status block written, IRP freed.
  irp = IoBuildAsynchronousFsdRequest(IRP_MJ_WRITE, device, nullptr, 0, nullptr, &iosb);
  EXPECT_EQ(IoCallDriver(device, irp), STATUS_SUCCESS);
  EXPECT_EQ(iosb.Information, 5u);
  EXPECT_EQ(wdmsim::LiveIrpCount(), 0u);
}

TEST_F(ThreadRequests, ThreadRequestStoppedByItsIssuerIsFinishedByCompletingAgain) {
  PDEVICE_OBJECT device = driver.AddDevice(iotest::CompleteWith(STATUS_SUCCESS, 3));
  NTSTATUS seen = STATUS_PENDING;
  PIRP irp = IoBuildDeviceIoControlRequest(kBufferedControl, device, nullptr, 0, nullptr, 0, FALSE, &event, &iosb);
  IoSetCompletionRoutine(
      irp, [](PDEVICE_OBJECT, PIRP irp, PVOID context) -> NTSTATUS {
        *static_cast<NTSTATUS*>(context) = irp->IoStatus.Status;
        return STATUS_MORE_PROCESSING_REQUIRED;
      },
      &seen, TRUE, TRUE, TRUE);
  IoCallDriver(device, irp);
  EXPECT_EQ(seen, STATUS_SUCCESS);
  EXPECT_EQ(KeReadStateEvent(&event), 0);
  EXPECT_TRUE(wdmsim::IsLiveIrp(irp));

  IoCompleteRequest(irp, IO_NO_INCREMENT);
  EXPECT_EQ(KeReadStateEvent(&event), 1);
  EXPECT_EQ(iosb.Information, 3u);
  EXPECT_FALSE(wdmsim::IsLiveIrp(irp));
}

TEST_F(ThreadRequests, AllocationFailureGivesNoIrp) {
  PDEVICE_OBJECT device = driver.AddDevice(iotest::CompleteWith(STATUS_SUCCESS));
  wdmsim::FailIrpAllocations(2);
  EXPECT_EQ(IoBuildDeviceIoControlRequest(kBufferedControl, device, nullptr, 0, nullptr, 0, TRUE, &event, &iosb),
            nullptr);
  EXPECT_EQ(IoAllocateIrp(1, FALSE), nullptr);
  PIRP irp = IoAllocateIrp(1, FALSE);
  EXPECT_NE(irp, nullptr);
  IoFreeIrp(irp);
}

}  // namespace
