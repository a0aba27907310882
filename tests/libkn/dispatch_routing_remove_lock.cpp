// The routing routines: each major function reaches its slot of the framework object
// behind the device object, under the device's remove lock, taken and given back exactly
// once; after removal no request reaches the object.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>
#include <vector>

#include <wdmsim/io.h>

#include "kndriverobject.h"
#include "knpnpdeviceobject.h"
#include "kntrace.h"
#include "knutils.h"
#include "support_test_driver.h"

namespace {

using kntest::CreateBoundDevice;
using kntest::FrameworkTest;

// A warning status completes a request like a success, and no default handler uses it.
const NTSTATUS kReplyStatus = STATUS_BUFFER_OVERFLOW;
const ULONG_PTR kReplyInformationBase = 0xA000;
const ULONG_PTR kPresetInformation = 0x5A5A;

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

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
    {IRP_MJ_PNP, IRP_MN_QUERY_PNP_DEVICE_STATE, 1},
    {IRP_MJ_POWER, IRP_MN_QUERY_POWER, 2},
    {IRP_MJ_SYSTEM_CONTROL, IRP_MN_QUERY_ALL_DATA, 3},
    {IRP_MJ_CREATE, 0, 4},
    {IRP_MJ_CLEANUP, 0, 5},
    {IRP_MJ_CLOSE, 0, 6},
    {IRP_MJ_READ, 0, 7},
    {IRP_MJ_WRITE, 0, 8},
    {IRP_MJ_DEVICE_CONTROL, 0, 9},
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

class DispatchRoutingTest : public FrameworkTest {
 protected:
  void SetUp() override {
    mDriver = kntest::LoadTestDriver();
    ASSERT_NE(nullptr, mDriver);
    TakeTrace();
  }
  void TearDown() override {
    ASSERT_TRUE(wdmsim::UnloadDriver(mDriver));
  }

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
    if (route.major == IRP_MJ_PNP || route.major == IRP_MJ_POWER) {
      // Only the status is set: what the sender preset in the information field stays.
      EXPECT_EQ(STATUS_NO_SUCH_DEVICE, result.Status);
      EXPECT_EQ(kPresetInformation, result.Information);
    } else {
      // The lock's own answer, with no information.
      EXPECT_EQ(STATUS_DELETE_PENDING, result.Status);
      EXPECT_EQ(0u, result.Information);
    }
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

  IO_STATUS_BLOCK pnp = Send(deviceObject, kRoutes[0]);
  EXPECT_EQ(STATUS_NO_SUCH_DEVICE, pnp.Status);
  EXPECT_EQ(kPresetInformation, pnp.Information);
  std::string trace = TakeTrace();
  EXPECT_TRUE(Contains(trace, "kntest:KnDriverObject::DispatchPnp: FATAL: ext->mDevObj==NULL, DO=")) << trace;
  EXPECT_TRUE(Contains(trace, " 0x14 'IRP_MN_QUERY_PNP_DEVICE_STATE'\n")) << trace;

  IO_STATUS_BLOCK power = Send(deviceObject, kRoutes[1]);
  EXPECT_EQ(STATUS_NO_SUCH_DEVICE, power.Status);
  trace = TakeTrace();
  EXPECT_TRUE(Contains(trace, "kntest:KnDriverObject::DispatchPower: FATAL: ext->mDevObj==NULL, DO=")) << trace;
  EXPECT_TRUE(Contains(trace, " 0x03 'IRP_MN_QUERY_POWER'\n")) << trace;

  for (size_t i = 2; i < sizeof kRoutes / sizeof kRoutes[0]; i++) {
    SCOPED_TRACE(kRoutes[i].slot);
    IO_STATUS_BLOCK result = Send(deviceObject, kRoutes[i]);
    EXPECT_EQ(STATUS_NO_SUCH_DEVICE, result.Status);
    EXPECT_EQ(0u, result.Information);
    trace = TakeTrace();
    EXPECT_TRUE(Contains(trace, "kntest:ASSERTION FAILED: (ext->mDevObj!=NULL)")) << trace;
  }
  EXPECT_TRUE(device->hits.empty());
  // Every route gave its reference back, also on these paths.
  DrainRemoveLock(deviceObject);
  ObDereferenceObject(deviceObject);
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(deviceObject));
  delete device;
}

}  // namespace
