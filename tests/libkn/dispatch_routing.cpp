// The routing routines: each major function reaches its slot of the framework object
// behind the device object, under the device's remove lock, taken and given back exactly
// once; after removal no request reaches the object, also while other threads send.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <atomic>
#include <string>
#include <vector>

#include <wdmsim/io.h>

#include "kndriverobject.h"
#include "knpnpdeviceobject.h"
#include "knsystemthread.h"
#include "kntrace.h"
#include "knutils.h"
#include "support_test_driver.h"

namespace {

using kntest::CreateBoundDevice;
using kntest::Has;

// A warning status completes a request like a success, and no default handler uses it.
const NTSTATUS kReplyStatus = STATUS_BUFFER_OVERFLOW;
const ULONG_PTR kReplyInformationBase = 0xA000;
const ULONG_PTR kPresetInformation = 0x5A5A;

// Answers every routed request from its own slot, so that the answer shows which slot ran.
class RecordingDevice : public KnPnPDeviceObject {
 public:
  void Lock() override {}
  void Unlock() override {}

  NTSTATUS OnDispatchPnp(KnPrivateDeviceExtension* extension, PIRP irp) override {
    NTSTATUS status = Reply(1, irp);
    extension->mRemoveLock.Release(irp);
    return status;
  }
  NTSTATUS OnDispatchPower(KnPrivateDeviceExtension* extension, PIRP irp) override {
    PoStartNextPowerIrp(irp);
    NTSTATUS status = Reply(2, irp);
    extension->mRemoveLock.Release(irp);
    return status;
  }
  NTSTATUS OnDispatchSystemControl(PIRP irp) override { return Reply(3, irp); }
  NTSTATUS OnDispatchCreate(PIRP irp) override { return Reply(4, irp); }
  NTSTATUS OnDispatchCleanup(PIRP irp) override { return Reply(5, irp); }
  NTSTATUS OnDispatchClose(PIRP irp) override { return Reply(6, irp); }
  NTSTATUS OnDispatchRead(PIRP irp) override { return Reply(7, irp); }
  NTSTATUS OnDispatchWrite(PIRP irp) override { return Reply(8, irp); }
  NTSTATUS OnDispatchDeviceControl(PIRP irp) override { return Reply(9, irp); }
  NTSTATUS OnDispatchInternalDeviceControl(PIRP irp) override { return Reply(10, irp); }

  std::vector<int> hits;
  bool keepNext = false;  // the next request stays pending with the object
  PIRP kept = nullptr;

 private:
  NTSTATUS Reply(int slot, PIRP irp) {
    hits.push_back(slot);
    if (keepNext) {
      keepNext = false;
      kept = irp;
      IoMarkIrpPending(irp);
      return STATUS_PENDING;
    }
    return CompleteRequest(irp, kReplyStatus, kReplyInformationBase + slot);
  }
};

// Only what a concrete PnP class must supply: every handler is the framework's default.
class BareDevice : public KnPnPDeviceObject {
 public:
  void Lock() override {}
  void Unlock() override {}
};

struct Route {
  UCHAR major;
  UCHAR minor;
  int slot;
};

const Route kRoutes[] = {
    {IRP_MJ_PNP, IRP_MN_QUERY_PNP_DEVICE_STATE, 1}, {IRP_MJ_POWER, IRP_MN_QUERY_POWER, 2},
    {IRP_MJ_SYSTEM_CONTROL, IRP_MN_QUERY_ALL_DATA, 3}, {IRP_MJ_CREATE, 0, 4}, {IRP_MJ_CLEANUP, 0, 5},
    {IRP_MJ_CLOSE, 0, 6}, {IRP_MJ_READ, 0, 7}, {IRP_MJ_WRITE, 0, 8}, {IRP_MJ_DEVICE_CONTROL, 0, 9},
    {IRP_MJ_INTERNAL_DEVICE_CONTROL, 0, 10},
};

IO_STATUS_BLOCK Send(PDEVICE_OBJECT device, const Route& route, NTSTATUS preset = STATUS_NOT_SUPPORTED) {
  return wdmsim::SendIrpToStack(device, route.major, route.minor, nullptr, preset, kPresetInformation);
}

// Returns once every reference but ours has been given back; a reference that a route
// kept would never come back, which the simulated kernel reports as a deadlock.
void DrainRemoveLock(PDEVICE_OBJECT device) {
  KnPrivateDeviceExtension* ext = KnDeviceObject::GetExtension(device);
  int tag = 0;
  ASSERT_EQ(STATUS_SUCCESS, ext->mRemoveLock.Acquire(reinterpret_cast<PIRP>(&tag)));
  ext->mRemoveLock.ReleaseAndWait(reinterpret_cast<PIRP>(&tag));
}

NTSTATUS NTAPI KeepIrpForCaller(PDEVICE_OBJECT, PIRP, PVOID context) {
  *static_cast<bool*>(context) = true;
  return STATUS_MORE_PROCESSING_REQUIRED;
}

class DispatchRoutingTest : public kntest::FrameworkTest {
 protected:
  void SetUp() override {
    mDriver = kntest::LoadTestDriver();
    ASSERT_NE(nullptr, mDriver);
    TakeTrace();
  }
  void TearDown() override { ASSERT_TRUE(wdmsim::UnloadDriver(mDriver)); }

  PDRIVER_OBJECT mDriver = nullptr;
};

TEST_F(DispatchRoutingTest, EachMajorFunctionReachesItsSlotUnderTheRemoveLockTakenOnce) {
  RecordingDevice* device = CreateBoundDevice<RecordingDevice>();
  ASSERT_NE(nullptr, device);
  for (const Route& route : kRoutes) {
    SCOPED_TRACE(route.slot);
    device->hits.clear();
    IO_STATUS_BLOCK result = Send(device->GetDeviceObject(), route);
    EXPECT_EQ(kReplyStatus, result.Status);
    EXPECT_EQ(kReplyInformationBase + route.slot, result.Information);
    EXPECT_EQ(std::vector<int>{route.slot}, device->hits);
  }
  // The framework routes no other major function: a flush gets the platform's answer.
  device->hits.clear();
  EXPECT_EQ(STATUS_INVALID_DEVICE_REQUEST, Send(device->GetDeviceObject(), {IRP_MJ_FLUSH_BUFFERS, 0, 0}).Status);
  EXPECT_TRUE(device->hits.empty());
  DrainRemoveLock(device->GetDeviceObject());
  delete device;
}

TEST_F(DispatchRoutingTest, RemoveLockIsGivenBackWhenTheHandlerKeepsTheRequestPending) {
  RecordingDevice* device = CreateBoundDevice<RecordingDevice>();
  ASSERT_NE(nullptr, device);
  PDEVICE_OBJECT deviceObject = device->GetDeviceObject();
  PIRP irp = IoAllocateIrp(deviceObject->StackSize, FALSE);
  ASSERT_NE(nullptr, irp);
  IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
  bool completed = false;
  IoSetCompletionRoutine(irp, KeepIrpForCaller, &completed, TRUE, TRUE, TRUE);

  device->keepNext = true;
  EXPECT_EQ(STATUS_PENDING, IoCallDriver(deviceObject, irp));
  EXPECT_EQ(irp, device->kept);
  EXPECT_FALSE(completed);
  // The request is still with the object, but the lock is free: removal need not wait.
  DrainRemoveLock(deviceObject);

  CompleteRequest(device->kept, STATUS_SUCCESS, 7);
  EXPECT_TRUE(completed);
  EXPECT_EQ(7u, irp->IoStatus.Information);
  IoFreeIrp(irp);
  delete device;
}

TEST_F(DispatchRoutingTest, AfterRemovalRequestsAreCompletedWithoutReachingTheObject) {
  RecordingDevice* device = CreateBoundDevice<RecordingDevice>();
  ASSERT_NE(nullptr, device);
  DrainRemoveLock(device->GetDeviceObject());
  for (const Route& route : kRoutes) {
    SCOPED_TRACE(route.slot);
    IO_STATUS_BLOCK result = Send(device->GetDeviceObject(), route);
    const bool pnpOrPower = route.major == IRP_MJ_PNP || route.major == IRP_MJ_POWER;
    // PnP and power only set the status, keeping what the sender preset in the information
    // field; the others give the lock's own answer, with no information.
    EXPECT_EQ(pnpOrPower ? STATUS_NO_SUCH_DEVICE : STATUS_DELETE_PENDING, result.Status);
    EXPECT_EQ(pnpOrPower ? kPresetInformation : 0u, result.Information);
  }
  EXPECT_TRUE(device->hits.empty());
  delete device;
}

TEST_F(DispatchRoutingTest, DefaultHandlersAnswerNotSupportedWithNoInformation) {
  BareDevice* device = CreateBoundDevice<BareDevice>();
  ASSERT_NE(nullptr, device);
  for (const Route& route : kRoutes) {
    if (route.major == IRP_MJ_PNP || route.major == IRP_MJ_POWER) continue;  // every PnP class overrides both
    SCOPED_TRACE(route.slot);
    IO_STATUS_BLOCK result = Send(device->GetDeviceObject(), route, STATUS_SUCCESS);
    EXPECT_EQ(STATUS_NOT_SUPPORTED, result.Status);
    EXPECT_EQ(0u, result.Information);
  }
  DrainRemoveLock(device->GetDeviceObject());
  delete device;
}

TEST_F(DispatchRoutingTest, RequestThroughAnUnboundDeviceObjectNeverReachesAHandler) {
  RecordingDevice* device = CreateBoundDevice<RecordingDevice>();
  ASSERT_NE(nullptr, device);
  PDEVICE_OBJECT deviceObject = device->GetDeviceObject();
  // Someone still holds the platform object when the framework deletes it: the object
  // outlives the link to its framework object.
  ObReferenceObject(deviceObject);
  device->DeleteDevice();
  gKnTraceMask = 0x1;
  TakeTrace();

  for (const Route& route : kRoutes) {
    SCOPED_TRACE(route.slot);
    IO_STATUS_BLOCK result = Send(deviceObject, route);
    EXPECT_EQ(STATUS_NO_SUCH_DEVICE, result.Status);
    std::string trace = TakeTrace();
    if (route.major == IRP_MJ_PNP || route.major == IRP_MJ_POWER) {
      EXPECT_EQ(kPresetInformation, result.Information);
      const bool pnp = route.major == IRP_MJ_PNP;
      EXPECT_TRUE(Has(trace, std::string("kntest:KnDriverObject::Dispatch") + (pnp ? "Pnp" : "Power") +
                                 ": FATAL: ext->mDevObj==NULL, DO="));
      EXPECT_TRUE(Has(trace, pnp ? " 0x14 'IRP_MN_QUERY_PNP_DEVICE_STATE'\n" : " 0x03 'IRP_MN_QUERY_POWER'\n"));
    } else {
      EXPECT_EQ(0u, result.Information);
      EXPECT_TRUE(Has(trace, "kntest:ASSERTION FAILED: (ext->mDevObj!=NULL)"));
    }
  }
  EXPECT_TRUE(device->hits.empty());
  // Every route gave its reference back, also on these paths.
  DrainRemoveLock(deviceObject);
  ObDereferenceObject(deviceObject);
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(deviceObject));
  delete device;
}

// While reads are routed from several threads, the removal's ReleaseAndWait returns only
// when no handler runs any more, and from then on every read is refused.
class CountingDevice : public KnPnPDeviceObject {
 public:
  static constexpr int kRequestsBeforeRemoval = 100;
  CountingDevice() { KeInitializeEvent(&mEnoughRequests, NotificationEvent, FALSE); }
  void Lock() override {}
  void Unlock() override {}

  NTSTATUS OnDispatchRead(PIRP irp) override {
    mInside++;
    if (mRemoved.load()) mEnteredAfterRemoval++;
    if (++mHandled == kRequestsBeforeRemoval) KeSetEvent(&mEnoughRequests, IO_NO_INCREMENT, FALSE);
    mInside--;
    return CompleteRequest(irp, STATUS_SUCCESS, 1);
  }

  KEVENT mEnoughRequests;
  std::atomic<int> mInside{0};
  std::atomic<int> mHandled{0};
  std::atomic<int> mEnteredAfterRemoval{0};
  std::atomic<bool> mRemoved{false};
};

TEST_F(DispatchRoutingTest, RequestsFromManyThreadsAreEitherHandledBeforeRemovalOrRefused) {
  const int kThreads = 4, kRequestsPerThread = 300;
  CountingDevice* device = CreateBoundDevice<CountingDevice>();
  ASSERT_NE(nullptr, device);
  struct Sender {
    PDEVICE_OBJECT device;
    std::vector<NTSTATUS> statuses;
  } senders[kThreads];
  KnSystemThread threads[kThreads];
  for (int i = 0; i < kThreads; i++) {
    senders[i].device = device->GetDeviceObject();
    ASSERT_EQ(STATUS_SUCCESS, threads[i].CreateSystemThread(
                                  [](PVOID context) {
                                    Sender* sender = static_cast<Sender*>(context);
                                    for (int n = 0; n < kRequestsPerThread; n++) {
                                      sender->statuses.push_back(wdmsim::SendIrpToStack(sender->device, IRP_MJ_READ, 0,
                                                                                        nullptr, STATUS_NOT_SUPPORTED)
                                                                     .Status);
                                    }
                                  },
                                  &senders[i]));
  }
  KeWaitForSingleObject(&device->mEnoughRequests, Executive, KernelMode, FALSE, NULL);

  DrainRemoveLock(device->GetDeviceObject());  // what the removal does with its own reference
  EXPECT_EQ(0, device->mInside.load());
  device->mRemoved = true;
  for (KnSystemThread& thread : threads) ASSERT_EQ(STATUS_SUCCESS, thread.WaitForThreadToTerminate(-1));

  EXPECT_EQ(0, device->mEnteredAfterRemoval.load());
  int handled = 0;
  for (const Sender& sender : senders) {
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
  EXPECT_GE(handled, CountingDevice::kRequestsBeforeRemoval);
  delete device;
}

}  // namespace
