// Removal against requests from other threads: while requests are routed concurrently, the
// removal's ReleaseAndWait returns only when no handler runs any more, and from then on
// every request is refused before it reaches the object.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <atomic>
#include <vector>

#include <wdmsim/io.h>

#include "knpnpdeviceobject.h"
#include "knutils.h"
#include "support_test_driver.h"

namespace {

const int kThreads = 4;
const int kRequestsPerThread = 300;
const int kRequestsBeforeRemoval = 100;

class CountingDevice : public KnPnPDeviceObject {
 public:
  CountingDevice() {
    KeInitializeEvent(&mEnoughRequests, NotificationEvent, FALSE);
    KeInitializeEvent(&mEntered, NotificationEvent, FALSE);
    KeInitializeEvent(&mGate, NotificationEvent, TRUE);
  }
  void Lock() override {}
  void Unlock() override {}

  NTSTATUS OnDispatchRead(PIRP irp) override {
    mInside++;
    KeSetEvent(&mEntered, IO_NO_INCREMENT, FALSE);
    KeWaitForSingleObject(&mGate, Executive, KernelMode, FALSE, NULL);
    if (mRemoved.load()) mEnteredAfterRemoval++;
    if (++mHandled == kRequestsBeforeRemoval) KeSetEvent(&mEnoughRequests, IO_NO_INCREMENT, FALSE);
    mInside--;
    return CompleteRequest(irp, STATUS_SUCCESS, 1);
  }

  KEVENT mEnoughRequests;
  KEVENT mEntered;  // a handler has started
  KEVENT mGate;     // handlers wait here while it is not signalled
  std::atomic<int> mInside{0};
  std::atomic<int> mHandled{0};
  std::atomic<int> mEnteredAfterRemoval{0};
  std::atomic<bool> mRemoved{false};
};

struct SenderContext {
  PDEVICE_OBJECT device;
  std::vector<NTSTATUS> statuses;
};

void NTAPI SendReads(PVOID context) {
  SenderContext* sender = static_cast<SenderContext*>(context);
  for (int i = 0; i < kRequestsPerThread; i++) {
    sender->statuses.push_back(
        wdmsim::SendIrpToStack(sender->device, IRP_MJ_READ, 0, nullptr, STATUS_NOT_SUPPORTED).Status);
  }
}

// Runs a routine on a new system thread; Join waits for its end.
class Thread {
 public:
  Thread(PKSTART_ROUTINE routine, PVOID context) {
    EXPECT_EQ(STATUS_SUCCESS, PsCreateSystemThread(&mHandle, THREAD_ALL_ACCESS, NULL, NULL, NULL, routine, context));
  }
  void Join() {
    PVOID object = NULL;
    ASSERT_EQ(STATUS_SUCCESS, ObReferenceObjectByHandle(mHandle, SYNCHRONIZE, NULL, KernelMode, &object, NULL));
    KeWaitForSingleObject(object, Executive, KernelMode, FALSE, NULL);
    ObDereferenceObject(object);
    ZwClose(mHandle);
  }

 private:
  HANDLE mHandle = NULL;
};

// What the FDO's removal does with the reference its own request holds.
struct Removal {
  PDEVICE_OBJECT device;
  KEVENT done;
};

void NTAPI RemoveDevice(PVOID context) {
  Removal* removal = static_cast<Removal*>(context);
  KnPrivateDeviceExtension* ext = KnDeviceObject::GetExtension(removal->device);
  ASSERT_EQ(STATUS_SUCCESS, ext->mRemoveLock.Acquire(reinterpret_cast<PIRP>(removal)));
  ext->mRemoveLock.ReleaseAndWait(reinterpret_cast<PIRP>(removal));
  KeSetEvent(&removal->done, IO_NO_INCREMENT, FALSE);
}

void NTAPI SendOneRead(PVOID context) {
  wdmsim::SendIrpToStack(static_cast<PDEVICE_OBJECT>(context), IRP_MJ_READ, 0, nullptr, STATUS_NOT_SUPPORTED);
}

class RemovalThreadsTest : public kntest::FrameworkTest {};

TEST_F(RemovalThreadsTest, RemovalCannotFinishWhileAHandlerStillRuns) {
  PDRIVER_OBJECT driver = kntest::LoadTestDriver();
  ASSERT_NE(nullptr, driver);
  CountingDevice* device = kntest::CreateBoundDevice<CountingDevice>();
  ASSERT_NE(nullptr, device);
  KeClearEvent(&device->mGate);

  Thread sender(SendOneRead, device->GetDeviceObject());
  KeWaitForSingleObject(&device->mEntered, Executive, KernelMode, FALSE, NULL);
  Removal removal{device->GetDeviceObject(), {}};
  KeInitializeEvent(&removal.done, NotificationEvent, FALSE);
  Thread remover(RemoveDevice, &removal);

  // However long the handler takes, the removal waits for it.
  LARGE_INTEGER longTime;
  longTime.QuadPart = -10000LL * 60000;
  EXPECT_EQ(STATUS_TIMEOUT, KeWaitForSingleObject(&removal.done, Executive, KernelMode, FALSE, &longTime));
  EXPECT_EQ(1, device->mInside.load());

  KeSetEvent(&device->mGate, IO_NO_INCREMENT, FALSE);
  EXPECT_EQ(STATUS_SUCCESS, KeWaitForSingleObject(&removal.done, Executive, KernelMode, FALSE, NULL));
  EXPECT_EQ(0, device->mInside.load());
  sender.Join();
  remover.Join();
  delete device;
  ASSERT_TRUE(wdmsim::UnloadDriver(driver));
}

TEST_F(RemovalThreadsTest, RequestsFromManyThreadsAreEitherHandledBeforeRemovalOrRefused) {
  PDRIVER_OBJECT driver = kntest::LoadTestDriver();
  ASSERT_NE(nullptr, driver);
  CountingDevice* device = kntest::CreateBoundDevice<CountingDevice>();
  ASSERT_NE(nullptr, device);

  SenderContext senders[kThreads];
  std::vector<Thread> threads;
  for (SenderContext& sender : senders) {
    sender.device = device->GetDeviceObject();
    threads.emplace_back(SendReads, &sender);
  }
  KeWaitForSingleObject(&device->mEnoughRequests, Executive, KernelMode, FALSE, NULL);

  Removal removal{device->GetDeviceObject(), {}};
  KeInitializeEvent(&removal.done, NotificationEvent, FALSE);
  RemoveDevice(&removal);
  EXPECT_EQ(0, device->mInside.load());
  device->mRemoved = true;
  for (Thread& thread : threads) thread.Join();

  EXPECT_EQ(0, device->mEnteredAfterRemoval.load());
  int handled = 0;
  for (const SenderContext& sender : senders) {
    ASSERT_EQ(size_t(kRequestsPerThread), sender.statuses.size());
    // Per thread: answered requests, then only refusals.
    bool refused = false;
    for (NTSTATUS status : sender.statuses) {
      if (status == STATUS_SUCCESS) {
        EXPECT_FALSE(refused);
        handled++;
      } else {
        EXPECT_EQ(STATUS_DELETE_PENDING, status);
        refused = true;
      }
    }
  }
  EXPECT_EQ(device->mHandled.load(), handled);
  EXPECT_GE(handled, kRequestsBeforeRemoval);
  delete device;
  ASSERT_TRUE(wdmsim::UnloadDriver(driver));
}

}  // namespace
