// A child device object: how it is created below its parent (device object type, flags and
// stack size, its worker thread), what its creation failure leaves behind (nothing), and the
// capabilities it reports: the parent's, as the parent recorded them from the stack below,
// with no UI number and not removable on its own.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>

#include <wdmsim/debugout.h>
#include <wdmsim/io.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pool.h>

#include "childpdo.h"
#include "device.h"
#include "kndriverobject.h"
#include "kntrace.h"
#include "libknnewdelete.h"

namespace {

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// What the bus driver below the parent answers: sentinel values in every field.
void FillBusCapabilities(DEVICE_CAPABILITIES* c) {
  c->DeviceD1 = 1;
  c->DeviceD2 = 1;
  c->Removable = 1;
  c->UniqueID = 1;
  c->WakeFromD2 = 1;
  c->Address = 0x00C0FFEE;
  c->UINumber = 7;
  for (int s = 0; s < PowerSystemMaximum; s++) {
    c->DeviceState[s] = PowerDeviceD3;
  }
  c->DeviceState[PowerSystemWorking] = PowerDeviceD0;
  c->DeviceState[PowerSystemSleeping1] = PowerDeviceD2;
  c->SystemWake = PowerSystemSleeping3;
  c->DeviceWake = PowerDeviceD2;
  c->D1Latency = 11;
  c->D2Latency = 22;
  c->D3Latency = 33;
}

class ChildPdoTest : public testing::Test {
 protected:
  void SetUp() override {
    wdmsim::SetDebugSink(wdmsim::DebugSink::Memory);
    gKnTraceMask = 3;
    KnTraceSetPrefix("");
    mDriver = wdmsim::LoadDriver(u"usbmi", DriverEntry);
    ASSERT_NE(nullptr, mDriver);
    wdmsim::RawPdoOptions options;
    options.hook = [](PDEVICE_OBJECT, PIRP irp, NTSTATUS* status) {
      PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
      if (stack->MajorFunction != IRP_MJ_PNP || stack->MinorFunction != IRP_MN_QUERY_CAPABILITIES) {
        return false;
      }
      FillBusCapabilities(stack->Parameters.DeviceCapabilities.Capabilities);
      irp->IoStatus.Status = STATUS_SUCCESS;
      IoCompleteRequest(irp, IO_NO_INCREMENT);
      *status = STATUS_SUCCESS;
      return true;
    };
    mPdo = wdmsim::CreateRawPdo(options);
    ASSERT_EQ(STATUS_SUCCESS, mDriver->DriverExtension->AddDevice(mDriver, mPdo));
    mFdo = mPdo->AttachedDevice;
    mParent = static_cast<Device*>(KnDeviceObject::GetExtension(mFdo)->mDevObj);
    gKnTraceMask = 0x107;
    wdmsim::TakeDebugOutput();
  }
  void TearDown() override {
    gKnTraceMask = 3;
    if (mFdo != nullptr) {
      EXPECT_EQ(STATUS_SUCCESS, wdmsim::SendPnpIrp(mPdo, IRP_MN_REMOVE_DEVICE).Status);
    }
    wdmsim::DeleteRawPdo(mPdo);
    EXPECT_TRUE(wdmsim::UnloadDriver(mDriver));
  }

  // The capabilities query as the PnP manager sends it, with a zeroed structure of version 1.
  DEVICE_CAPABILITIES QueryCapabilities(PDEVICE_OBJECT device, NTSTATUS* status) {
    DEVICE_CAPABILITIES caps = {};
    caps.Size = sizeof(caps);
    caps.Version = 1;
    caps.Address = 0xFFFFFFFF;
    caps.UINumber = 0xFFFFFFFF;
    *status = wdmsim::SendPnpIrp(device, IRP_MN_QUERY_CAPABILITIES, [&](IO_STACK_LOCATION& s) {
                s.Parameters.DeviceCapabilities.Capabilities = &caps;
              }).Status;
    return caps;
  }

  ChildPdo* NewChild() {
    ChildPdo* child = new (NonPagedPool, gKnDefaultPoolTag) ChildPdo(mParent);
    child->SetLowerDevice(mParent->GetLowerDeviceUsb());
    return child;
  }

  wdmsim::Kernel mKernel;
  PDRIVER_OBJECT mDriver = nullptr;
  PDEVICE_OBJECT mPdo = nullptr;
  PDEVICE_OBJECT mFdo = nullptr;
  Device* mParent = nullptr;
};

TEST_F(ChildPdoTest, ParentAndChildReportTheBusCapabilitiesAdjustedForTheirRole) {
  NTSTATUS status = STATUS_UNSUCCESSFUL;
  DEVICE_CAPABILITIES parent = QueryCapabilities(mPdo, &status);
  ASSERT_EQ(STATUS_SUCCESS, status);
  // The parent: surprise removal is fine, no UI number; everything else as the bus said.
  EXPECT_EQ(1u, parent.SurpriseRemovalOK);
  EXPECT_EQ(0xFFFFFFFFu, parent.UINumber);
  EXPECT_EQ(1u, parent.Removable);
  EXPECT_EQ(0x00C0FFEEu, parent.Address);
  EXPECT_EQ(PowerSystemSleeping3, parent.SystemWake);

  ChildPdo* child = NewChild();
  ASSERT_EQ(STATUS_SUCCESS, child->OnCreate());
  DEVICE_CAPABILITIES answer = QueryCapabilities(child->GetDeviceObject(), &status);
  ASSERT_EQ(STATUS_SUCCESS, status);

  DEVICE_CAPABILITIES expected = parent;
  expected.Removable = 0;
  expected.UINumber = 0xFFFFFFFF;
  EXPECT_EQ(0, memcmp(&expected, &answer, sizeof(answer)));
  EXPECT_EQ(0u, answer.Removable);
  EXPECT_EQ(1u, answer.DeviceD2);
  EXPECT_EQ(1u, answer.WakeFromD2);
  EXPECT_EQ(1u, answer.SurpriseRemovalOK);
  EXPECT_EQ(0x00C0FFEEu, answer.Address);
  EXPECT_EQ(PowerDeviceD2, answer.DeviceState[PowerSystemSleeping1]);
  EXPECT_EQ(PowerDeviceD2, answer.DeviceWake);
  EXPECT_EQ(22u, answer.D2Latency);
  delete child;
}

TEST_F(ChildPdoTest, ChildDeviceObjectSitsOneLocationAboveTheParentsLowerStack) {
  ChildPdo* child = NewChild();
  ASSERT_EQ(STATUS_SUCCESS, child->OnCreate());
  PDEVICE_OBJECT device = child->GetDeviceObject();
  ASSERT_NE(nullptr, device);
  EXPECT_EQ(mDriver, device->DriverObject);
  EXPECT_EQ(ULONG(FILE_DEVICE_UNKNOWN), device->DeviceType);
  EXPECT_EQ(ULONG(FILE_AUTOGENERATED_DEVICE_NAME | FILE_DEVICE_SECURE_OPEN), device->Characteristics);
  EXPECT_EQ(ULONG(DO_POWER_PAGABLE), device->Flags & (DO_POWER_PAGABLE | DO_DEVICE_INITIALIZING | DO_BUFFERED_IO));
  EXPECT_FALSE(wdmsim::DeviceObjectName(device).empty());
  // The stack below the parent is the raw PDO alone.
  EXPECT_EQ(1, mPdo->StackSize);
  EXPECT_EQ(2, device->StackSize);
  EXPECT_EQ(KnPnPState_Added, child->GetPnPState());

  // The worker thread runs until the child goes; the end of the run would report it otherwise.
  mKernel.RunUntilIdle();
  std::string trace = wdmsim::TakeDebugOutput();
  EXPECT_TRUE(Contains(trace, ":<NULL> ChildPdo::ThreadFunction enter\n")) << trace;
  delete child;
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(device));
}

TEST_F(ChildPdoTest, FailedCreationLeavesNothingBehind) {
  size_t blocks = wdmsim::LivePoolBlockCount(gKnDefaultPoolTag);
  ChildPdo* child = NewChild();
  wdmsim::FailDeviceCreations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, child->OnCreate());
  EXPECT_EQ(nullptr, child->GetDeviceObject());
  std::string trace = wdmsim::TakeDebugOutput();
  EXPECT_TRUE(Contains(trace, ":<NULL>:ChildPdo::OnCreate:  CreateDevice failed, stat=0xC000009A")) << trace;
  delete child;
  EXPECT_EQ(blocks, wdmsim::LivePoolBlockCount(gKnDefaultPoolTag));
  wdmsim::TakeErrorLogEntries();
}

}  // namespace
