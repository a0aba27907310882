// Devices coming and going: the hub's bus relations, the bus-driver rules for PDOs that
// are reported missing, unplugging with transfers in flight, port cycles and the firmware
// disconnecting by itself.
#include <algorithm>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include <wdmsim/io.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pnp.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

#include "usb_bus_device_fixture.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint8_t kNotifyIn = 0x86;

class UsbBusPortChanges : public usbtest::DemoDeviceOnBus {
 protected:
  void SetUp() override {
    DemoDeviceOnBus::SetUp();
    wdmsim::TakeRelationInvalidations();
  }

  bool BusRelationsInvalidated() {
    for (const auto& i : wdmsim::TakeRelationInvalidations()) {
      if (i.pdo == wdmsim::UsbHubPdo(bus->RootHub()) && i.type == BusRelations) return true;
    }
    return false;
  }

  NTSTATUS ReadDeviceDescriptor(PDEVICE_OBJECT target) {
    Bytes buffer(18);
    usbtest::Urb urb = usbtest::DescriptorRequest(USB_DEVICE_DESCRIPTOR_TYPE, 0, 0, buffer.data(), 18);
    return usbtest::SubmitUrb(target, urb.get());
  }
};

TEST_F(UsbBusPortChanges, BusRelationsReferenceEveryPresentPdo) {
  PDEVICE_OBJECT second = bus->Attach(wdmsim::MakeDemoCompositeFirmware(), 4);
  const long before = wdmsim::DeviceObjectReferences(pdo);
  IO_STATUS_BLOCK result = wdmsim::SendPnpIrp(wdmsim::UsbHubFdo(bus->RootHub()), IRP_MN_QUERY_DEVICE_RELATIONS,
                                              [](IO_STACK_LOCATION& s) { s.Parameters.QueryDeviceRelations.Type = BusRelations; });
  ASSERT_EQ(STATUS_SUCCESS, result.Status);
  auto relations = reinterpret_cast<PDEVICE_RELATIONS>(result.Information);
  ASSERT_EQ(2u, relations->Count);
  EXPECT_EQ(pdo, relations->Objects[0]);  // in port order
  EXPECT_EQ(second, relations->Objects[1]);
  EXPECT_EQ(before + 1, wdmsim::DeviceObjectReferences(pdo));
  for (ULONG i = 0; i < relations->Count; ++i) ObDereferenceObject(relations->Objects[i]);
  ExFreePool(relations);
  EXPECT_EQ(before, wdmsim::DeviceObjectReferences(pdo));
}

TEST_F(UsbBusPortChanges, UnpluggedDeviceFailsItsTransfersAndGoesWithItsRemoval) {
  USBD_PIPE_HANDLE pipe = Configure()[kNotifyIn];
  Bytes buffer(4);
  usbtest::Urb read = usbtest::BulkOrInterrupt(pipe, buffer.data(), 4, USBD_SHORT_TRANSFER_OK);
  {
    usbtest::PendingUrb pending(pdo, read.get());
    kernel.RunUntilIdle();
    EXPECT_FALSE(pending.done());
    wdmsim::UnplugUsbDevice(bus->RootHub(), kPort);
    ASSERT_TRUE(pending.done());
    EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, pending.status());
    EXPECT_EQ(USBD_STATUS_DEVICE_GONE, read->UrbHeader.Status);
  }
  EXPECT_TRUE(BusRelationsInvalidated());
  EXPECT_FALSE(wdmsim::GetUsbPortState(bus->RootHub(), kPort).occupied);
  EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, ReadDeviceDescriptor(pdo));
  ULONG status = 0xFFFFFFFF;
  EXPECT_EQ(STATUS_SUCCESS, usbtest::SendInternal(pdo, IOCTL_INTERNAL_USB_GET_PORT_STATUS, &status));
  EXPECT_EQ(0u, status);

  // Still there until the PnP manager has heard it is missing and removed it.
  EXPECT_TRUE(wdmsim::IsLiveDeviceObject(pdo));
  EXPECT_TRUE(bus->Enumerate().empty());
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(pdo));
}

TEST_F(UsbBusPortChanges, RemovedPdoThatIsStillReportedStaysAndStartsOver) {
  USBD_PIPE_HANDLE pipe = Configure()[kNotifyIn];
  ASSERT_EQ(1, firmware->Configuration());
  ASSERT_EQ(STATUS_SUCCESS, wdmsim::SendPnpIrp(pdo, IRP_MN_REMOVE_DEVICE).Status);
  EXPECT_TRUE(wdmsim::IsLiveDeviceObject(pdo));
  EXPECT_EQ(0, firmware->Configuration());  // reset for its next start
  usbtest::Urb reset = usbtest::PipeRequest(URB_FUNCTION_RESET_PIPE, pipe);
  EXPECT_EQ(STATUS_INVALID_PARAMETER, usbtest::SubmitUrb(pdo, reset.get()));
  EXPECT_EQ(STATUS_SUCCESS, ReadDeviceDescriptor(pdo));
  EXPECT_TRUE(bus->Enumerate().empty());  // the same PDO is reported again
  EXPECT_TRUE(wdmsim::IsLiveDeviceObject(pdo));
}

TEST_F(UsbBusPortChanges, PortCycleReplacesThePdoWithOneForTheResetDevice) {
  Configure()[kNotifyIn];
  ULONG status = 0;
  ASSERT_EQ(STATUS_SUCCESS, usbtest::SendInternal(pdo, IOCTL_INTERNAL_USB_GET_PORT_STATUS, &status));
  EXPECT_EQ(static_cast<ULONG>(USBD_PORT_ENABLED | USBD_PORT_CONNECTED), status);

  ASSERT_EQ(STATUS_SUCCESS, usbtest::SendInternal(pdo, IOCTL_INTERNAL_USB_CYCLE_PORT, nullptr));
  EXPECT_TRUE(BusRelationsInvalidated());
  EXPECT_EQ(0, firmware->Configuration());
  EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, ReadDeviceDescriptor(pdo));
  PDEVICE_OBJECT fresh = wdmsim::GetUsbPortState(bus->RootHub(), kPort).pdo;
  ASSERT_NE(nullptr, fresh);
  EXPECT_NE(pdo, fresh);

  std::vector<PDEVICE_OBJECT> appeared = bus->Enumerate();
  EXPECT_EQ(std::vector<PDEVICE_OBJECT>{fresh}, appeared);
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(pdo));
  EXPECT_EQ(STATUS_SUCCESS, ReadDeviceDescriptor(fresh));
  // The same device, so the same instance and hardware key.
  EXPECT_EQ(usbtest::QueryIds(fresh, BusQueryInstanceID), std::vector<std::u16string>{u"WDMSIM-DEMO-0001"});
}

TEST_F(UsbBusPortChanges, FirmwareDisconnectAndReconnectReachTheHubThroughAWorker) {
  firmware->Disconnect();
  kernel.RunUntilIdle();
  EXPECT_TRUE(BusRelationsInvalidated());
  EXPECT_EQ(nullptr, wdmsim::GetUsbPortState(bus->RootHub(), kPort).pdo);
  EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, ReadDeviceDescriptor(pdo));
  EXPECT_TRUE(bus->Enumerate().empty());
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(pdo));

  firmware->Reconnect();
  kernel.RunUntilIdle();
  std::vector<PDEVICE_OBJECT> appeared = bus->Enumerate();
  ASSERT_EQ(1u, appeared.size());
  EXPECT_EQ(STATUS_SUCCESS, ReadDeviceDescriptor(appeared[0]));
}

TEST_F(UsbBusPortChanges, PdoThePnpManagerNeverSawIsDeletedAtTheNextQuery) {
  const int port = wdmsim::AttachUsbDevice(bus->RootHub(), wdmsim::MakeDemoCompositeFirmware(), 3);
  PDEVICE_OBJECT unseen = wdmsim::GetUsbPortState(bus->RootHub(), port).pdo;
  ASSERT_NE(nullptr, unseen);
  EXPECT_TRUE(BusRelationsInvalidated());
  wdmsim::UnplugUsbDevice(bus->RootHub(), port);
  EXPECT_TRUE(wdmsim::IsLiveDeviceObject(unseen));
  EXPECT_TRUE(bus->Enumerate().empty());
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(unseen));
}

}  // namespace
