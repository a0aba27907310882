// What the parent learns about its hub: the stack below names the hub's device object; the
// driver that owns it tells an external hub ("\Driver\usbhub", in any letter case) from a root
// hub (a host controller's driver); the node information comes from the top of the hub's own
// stack, byte for byte, and each failure is reported with its status.
#include <gtest/gtest.h>

#include <ntddk.h>
#include <usbioctl.h>

#include <cstring>
#include <string>

#include <wdmsim/debugout.h>
#include <wdmsim/io.h>
#include <wdmsim/kernel.h>

#include "device.h"
#include "kndriverobject.h"
#include "kntrace.h"

namespace {

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// A hub driver's device stack: the hub object the device's stack names, and a filter on top
// of it. Only the top answers the node information; a request that reaches the bottom fails.
struct HubDouble {
  PDEVICE_OBJECT bottom = nullptr;
  PDEVICE_OBJECT top = nullptr;
  NTSTATUS answer = STATUS_SUCCESS;
  BOOLEAN busPowered = FALSE;
  int topRequests = 0;
};
HubDouble* gHub = nullptr;

NTSTATUS HubDeviceControl(PDEVICE_OBJECT device, PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  NTSTATUS status = STATUS_INVALID_DEVICE_REQUEST;
  ULONG_PTR information = 0;
  if (device == gHub->top && stack->Parameters.DeviceIoControl.IoControlCode == IOCTL_USB_GET_NODE_INFORMATION &&
      stack->Parameters.DeviceIoControl.OutputBufferLength == sizeof(USB_NODE_INFORMATION)) {
    gHub->topRequests++;
    status = gHub->answer;
    if (NT_SUCCESS(status)) {
      auto* node = static_cast<PUSB_NODE_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
      node->NodeType = UsbHub;
      USB_HUB_DESCRIPTOR& hub = node->u.HubInformation.HubDescriptor;
      hub.bDescriptorLength = 9;
      hub.bDescriptorType = 0x29;
      hub.bNumberOfPorts = 7;
      hub.wHubCharacteristics = 0x00A9;
      hub.bPowerOnToPowerGood = 0x32;
      hub.bHubControlCurrent = 0x64;
      node->u.HubInformation.HubIsBusPowered = gHub->busPowered;
      information = sizeof(USB_NODE_INFORMATION);
    }
  }
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = information;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

NTSTATUS NTAPI HubEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
  driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = HubDeviceControl;
  return STATUS_SUCCESS;
}

class HubInfoTest : public testing::Test {
 protected:
  void SetUp() override {
    wdmsim::SetDebugSink(wdmsim::DebugSink::Memory);
    gKnTraceMask = 3;
    KnTraceSetPrefix("");
    gHub = &mHub;
    mDriver = wdmsim::LoadDriver(u"usbmi", DriverEntry);
    ASSERT_NE(nullptr, mDriver);
  }
  void TearDown() override {
    gKnTraceMask = 3;
    Unplug();
    EXPECT_TRUE(wdmsim::UnloadDriver(mDriver));
    gHub = nullptr;
  }

  // Removes the parent, then the hub's stack with its driver.
  void Unplug() {
    RemoveParent();
    if (mHubDriver != nullptr) {
      IoDetachDevice(mHub.bottom);
      IoDeleteDevice(mHub.top);
      IoDeleteDevice(mHub.bottom);
      EXPECT_TRUE(wdmsim::UnloadDriver(mHubDriver));
      mHubDriver = nullptr;
    }
    mHub = HubDouble();
  }

  // The hub's stack, owned by a driver of that service name.
  void PlugIntoHubOf(const std::u16string& hubService) {
    mHubDriver = wdmsim::LoadDriver(hubService, HubEntry);
    ASSERT_NE(nullptr, mHubDriver);
    ASSERT_EQ(STATUS_SUCCESS, IoCreateDevice(mHubDriver, 0, nullptr, FILE_DEVICE_USB, 0, FALSE, &mHub.bottom));
    ASSERT_EQ(STATUS_SUCCESS, IoCreateDevice(mHubDriver, 0, nullptr, FILE_DEVICE_USB, 0, FALSE, &mHub.top));
    mHub.bottom->Flags &= ~DO_DEVICE_INITIALIZING;
    mHub.top->Flags &= ~DO_DEVICE_INITIALIZING;
    ASSERT_EQ(mHub.bottom, IoAttachDeviceToDeviceStack(mHub.top, mHub.bottom));
    CreateParent(STATUS_SUCCESS);
  }

  // The device's PDO answers the parent hub request with the hub's bottom object.
  void CreateParent(NTSTATUS parentHubAnswer) {
    wdmsim::RawPdoOptions options;
    options.hook = [this, parentHubAnswer](PDEVICE_OBJECT, PIRP irp, NTSTATUS* status) {
      PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
      if (stack->MajorFunction != IRP_MJ_INTERNAL_DEVICE_CONTROL ||
          stack->Parameters.DeviceIoControl.IoControlCode != IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO) {
        return false;
      }
      if (NT_SUCCESS(parentHubAnswer)) {
        *static_cast<PDEVICE_OBJECT*>(stack->Parameters.Others.Argument1) = mHub.bottom;  // NULL without a hub
      }
      irp->IoStatus.Status = parentHubAnswer;
      IoCompleteRequest(irp, IO_NO_INCREMENT);
      *status = parentHubAnswer;
      return true;
    };
    mPdo = wdmsim::CreateRawPdo(options);
    ASSERT_EQ(STATUS_SUCCESS, mDriver->DriverExtension->AddDevice(mDriver, mPdo));
    mParent = static_cast<Device*>(KnDeviceObject::GetExtension(mPdo->AttachedDevice)->mDevObj);
    gKnTraceMask = 0x23;
    wdmsim::TakeDebugOutput();
  }

  void RemoveParent() {
    if (mPdo != nullptr) {
      EXPECT_EQ(STATUS_SUCCESS, wdmsim::SendPnpIrp(mPdo, IRP_MN_REMOVE_DEVICE).Status);
      wdmsim::DeleteRawPdo(mPdo);
      mPdo = nullptr;
    }
  }

  // The node information after the call, starting from a buffer full of 0xEE.
  NTSTATUS GetHubInfo(USB_NODE_INFORMATION* node) {
    memset(node, 0xEE, sizeof(*node));
    return mParent->GetHubInfo(node);
  }

  wdmsim::Kernel mKernel;
  HubDouble mHub;
  PDRIVER_OBJECT mDriver = nullptr;
  PDRIVER_OBJECT mHubDriver = nullptr;
  PDEVICE_OBJECT mPdo = nullptr;
  Device* mParent = nullptr;
};

TEST_F(HubInfoTest, ExternalHubIsRecognisedByItsDriverInAnyLetterCase) {
  for (const char16_t* service : {u"usbhub", u"USBHub"}) {
    SCOPED_TRACE(service[3] == u'H' ? "USBHub" : "usbhub");
    PlugIntoHubOf(service);
    USB_NODE_INFORMATION node;
    EXPECT_EQ(STATUS_SUCCESS, GetHubInfo(&node));
    std::string trace = wdmsim::TakeDebugOutput();
    EXPECT_TRUE(Contains(trace, "usbmi:Device::GetHubInfo is connected to an external Hub\n")) << trace;
    EXPECT_FALSE(Contains(trace, "root Hub")) << trace;
    EXPECT_EQ(0u, node.u.HubInformation.HubIsBusPowered);
    Unplug();
  }
}

TEST_F(HubInfoTest, RootHubAnswersFromTheTopOfItsStackByteForByte) {
  mHub.busPowered = TRUE;
  PlugIntoHubOf(u"usbehci");
  USB_NODE_INFORMATION node;
  EXPECT_EQ(STATUS_SUCCESS, GetHubInfo(&node));
  EXPECT_EQ(1, mHub.topRequests);

  USB_NODE_INFORMATION expected;
  memset(&expected, 0, sizeof(expected));  // the parent zeroes what the hub leaves alone
  expected.NodeType = UsbHub;
  expected.u.HubInformation.HubDescriptor.bDescriptorLength = 9;
  expected.u.HubInformation.HubDescriptor.bDescriptorType = 0x29;
  expected.u.HubInformation.HubDescriptor.bNumberOfPorts = 7;
  expected.u.HubInformation.HubDescriptor.wHubCharacteristics = 0x00A9;
  expected.u.HubInformation.HubDescriptor.bPowerOnToPowerGood = 0x32;
  expected.u.HubInformation.HubDescriptor.bHubControlCurrent = 0x64;
  expected.u.HubInformation.HubIsBusPowered = TRUE;
  EXPECT_EQ(0, memcmp(&expected, &node, sizeof(node)));

  std::string trace = wdmsim::TakeDebugOutput();
  EXPECT_TRUE(Contains(trace, "usbmi:Device::GetHubInfo device is connected to a  root Hub\n")) << trace;
  EXPECT_TRUE(Contains(trace, "NodeType 00000000\nLength 0x09\nType 0x29\nbNumberOfPorts 0x07\nwHubCharacteristics 0xA9\n"))
      << trace;
}

TEST_F(HubInfoTest, EachFailureIsReportedWithItsStatus) {
  // The node information request fails: the hub kind is known already.
  mHub.answer = STATUS_DEVICE_NOT_READY;
  PlugIntoHubOf(u"usbhub");
  USB_NODE_INFORMATION node;
  EXPECT_EQ(STATUS_DEVICE_NOT_READY, GetHubInfo(&node));
  std::string trace = wdmsim::TakeDebugOutput();
  EXPECT_TRUE(Contains(trace, "external Hub")) << trace;
  EXPECT_TRUE(Contains(trace, "IOCTL_USB_GET_NODE_INFORMATION failed with C00000A3\n")) << trace;

  // No IRP for the first request.
  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, GetHubInfo(&node));
  wdmsim::ClearIoFaults();
  trace = wdmsim::TakeDebugOutput();
  EXPECT_TRUE(Contains(trace, "QueryInterface: IoBuildSynchronousFsdRequest failed\n")) << trace;
  EXPECT_FALSE(Contains(trace, "Hub\n")) << trace;
  EXPECT_EQ(0u, wdmsim::LiveIrpCount());
}

TEST_F(HubInfoTest, ParentHubRequestFailureLeavesTheNodeInformationUntouched) {
  CreateParent(STATUS_NOT_SUPPORTED);
  USB_NODE_INFORMATION node;
  EXPECT_EQ(STATUS_NOT_SUPPORTED, GetHubInfo(&node));
  const UCHAR* bytes = reinterpret_cast<const UCHAR*>(&node);
  for (size_t i = 0; i < sizeof(node); i++) {
    ASSERT_EQ(0xEE, bytes[i]) << "byte " << i;
  }
  std::string trace = wdmsim::TakeDebugOutput();
  EXPECT_TRUE(Contains(trace, "usbmi: IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO failed with C00000BB\n")) << trace;
  EXPECT_FALSE(Contains(trace, "Hub\n")) << trace;

  // Success without a hub device object is no answer either.
  RemoveParent();
  CreateParent(STATUS_SUCCESS);
  EXPECT_EQ(STATUS_UNSUCCESSFUL, GetHubInfo(&node));
  EXPECT_EQ(0xEE, reinterpret_cast<const UCHAR*>(&node)[0]);
  trace = wdmsim::TakeDebugOutput();
  EXPECT_TRUE(Contains(trace, "usbmi: IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO failed with C0000001\n")) << trace;
}

}  // namespace
