// Raw PDOs answer the PnP manager like a bus driver's PDO with no hardware, at the bottom
// of a stack that requests reach from the top.
#include <gtest/gtest.h>

#include "io_test_driver.h"

namespace {

class RawPdo : public ::testing::Test {
 protected:
  wdmsim::Kernel kernel;
};

TEST_F(RawPdo, AnswersIdentityQueriesFromItsOptions) {
  wdmsim::RawPdoOptions options;
  options.deviceId = u"USB\\VID_1234&PID_0001";
  options.hardwareIds = {u"USB\\VID_1234&PID_0001&REV_0100", u"USB\\VID_1234&PID_0001"};
  options.instanceId = u"7&1a2b";
  options.description = u"Test gadget";
  PDEVICE_OBJECT pdo = wdmsim::CreateRawPdo(options);
  ASSERT_NE(pdo, nullptr);
  EXPECT_TRUE(pdo->Flags & DO_BUS_ENUMERATED_DEVICE);
  EXPECT_FALSE(pdo->Flags & DO_DEVICE_INITIALIZING);

  using iotest::QueryIds;
  EXPECT_EQ(QueryIds(pdo, BusQueryDeviceID), std::vector<std::u16string>{u"USB\\VID_1234&PID_0001"});
  EXPECT_EQ(QueryIds(pdo, BusQueryHardwareIDs), options.hardwareIds);
  EXPECT_EQ(QueryIds(pdo, BusQueryInstanceID), std::vector<std::u16string>{u"7&1a2b"});
  EXPECT_EQ(iotest::QueryText(pdo, DeviceTextDescription), u"Test gadget");
  // Nothing configured: the query keeps the status the PnP manager preset.
  IO_STATUS_BLOCK compatible = wdmsim::SendPnpIrp(pdo, IRP_MN_QUERY_ID, [](IO_STACK_LOCATION& stack) {
    stack.Parameters.QueryId.IdType = BusQueryCompatibleIDs;
  });
  EXPECT_EQ(compatible.Status, STATUS_NOT_SUPPORTED);
  EXPECT_EQ(compatible.Information, 0u);
  EXPECT_EQ(wdmsim::SendPnpIrp(pdo, IRP_MN_QUERY_DEVICE_TEXT,
                               [](IO_STACK_LOCATION& stack) {
                                 stack.Parameters.QueryDeviceText.DeviceTextType = DeviceTextLocationInformation;
                               })
                .Status,
            STATUS_NOT_SUPPORTED);

  IO_STATUS_BLOCK target = wdmsim::SendPnpIrp(pdo, IRP_MN_QUERY_DEVICE_RELATIONS, [](IO_STACK_LOCATION& stack) {
    stack.Parameters.QueryDeviceRelations.Type = TargetDeviceRelation;
  });
  ASSERT_EQ(target.Status, STATUS_SUCCESS);
  auto relations = reinterpret_cast<PDEVICE_RELATIONS>(target.Information);
  ASSERT_EQ(relations->Count, 1u);
  EXPECT_EQ(relations->Objects[0], pdo);
  EXPECT_EQ(wdmsim::DeviceObjectReferences(pdo), 1);
  ObDereferenceObject(pdo);
  ExFreePool(relations);
  wdmsim::DeleteRawPdo(pdo);
}

TEST_F(RawPdo, CapabilitiesDescribeADeviceThatCannotWake) {
  PDEVICE_OBJECT pdo = wdmsim::CreateRawPdo();
  DEVICE_CAPABILITIES caps = {};
  caps.Size = sizeof caps;
  caps.Version = 1;
  caps.Address = caps.UINumber = 0xFFFFFFFF;
  IO_STATUS_BLOCK result = wdmsim::SendPnpIrp(pdo, IRP_MN_QUERY_CAPABILITIES, [&](IO_STACK_LOCATION& stack) {
    stack.Parameters.DeviceCapabilities.Capabilities = &caps;
  });
  EXPECT_EQ(result.Status, STATUS_SUCCESS);
  EXPECT_EQ(caps.DeviceState[PowerSystemWorking], PowerDeviceD0);
  EXPECT_EQ(caps.DeviceState[PowerSystemSleeping3], PowerDeviceD3);
  EXPECT_EQ(caps.DeviceState[PowerSystemShutdown], PowerDeviceD3);
  EXPECT_EQ(caps.SystemWake, PowerSystemUnspecified);
  EXPECT_EQ(caps.DeviceWake, PowerDeviceUnspecified);
  EXPECT_TRUE(caps.SurpriseRemovalOK);
  EXPECT_EQ(caps.UINumber, 0xFFFFFFFFu);  // left as preset

  caps.Version = 2;
  EXPECT_EQ(wdmsim::SendPnpIrp(pdo, IRP_MN_QUERY_CAPABILITIES,
                               [&](IO_STACK_LOCATION& stack) { stack.Parameters.DeviceCapabilities.Capabilities = &caps; })
                .Status,
            STATUS_UNSUCCESSFUL);
  wdmsim::DeleteRawPdo(pdo);
}

TEST_F(RawPdo, RequestsEnterAtTheTopOfTheStackAndReachThePdo) {
  PDEVICE_OBJECT pdo = wdmsim::CreateRawPdo();
  iotest::TestDriver driver;
  std::vector<UCHAR> seenByFunctionDriver;
  PDEVICE_OBJECT fdo = driver.AddDevice(
      [&](PDEVICE_OBJECT, PIRP irp) {
        seenByFunctionDriver.push_back(IoGetCurrentIrpStackLocation(irp)->MinorFunction);
        IoSkipCurrentIrpStackLocation(irp);
        return IoCallDriver(pdo, irp);
      },
      pdo);
  EXPECT_EQ(fdo->StackSize, 2);

  EXPECT_EQ(wdmsim::SendPnpIrp(pdo, IRP_MN_START_DEVICE).Status, STATUS_SUCCESS);
  EXPECT_EQ(wdmsim::SendPnpIrp(pdo, IRP_MN_QUERY_PNP_DEVICE_STATE).Status, STATUS_NOT_SUPPORTED);
  EXPECT_EQ(wdmsim::SendPowerIrp(pdo, IRP_MN_SET_POWER,
                                 [](IO_STACK_LOCATION& stack) {
                                   stack.Parameters.Power.Type = DevicePowerState;
                                   stack.Parameters.Power.State.DeviceState = PowerDeviceD2;
                                 })
                .Status,
            STATUS_SUCCESS);
  EXPECT_EQ(wdmsim::SendPowerIrp(pdo, IRP_MN_WAIT_WAKE).Status, STATUS_NOT_SUPPORTED);
  EXPECT_EQ(wdmsim::SendIrpToStack(pdo, IRP_MJ_READ, 0, nullptr, STATUS_SUCCESS).Status, STATUS_NOT_SUPPORTED);

  EXPECT_EQ(seenByFunctionDriver,
            std::vector<UCHAR>({IRP_MN_START_DEVICE, IRP_MN_QUERY_PNP_DEVICE_STATE, IRP_MN_SET_POWER,
                                IRP_MN_WAIT_WAKE, 0}));
  auto requests = wdmsim::TakeRawPdoRequests(pdo);
  ASSERT_EQ(requests.size(), 5u);
  EXPECT_EQ(requests[0].majorFunction, IRP_MJ_PNP);
  EXPECT_EQ(requests[0].status, STATUS_SUCCESS);
  EXPECT_EQ(requests[2].majorFunction, IRP_MJ_POWER);
  EXPECT_EQ(requests[4].majorFunction, IRP_MJ_READ);
  EXPECT_EQ(requests[4].status, STATUS_NOT_SUPPORTED);
  EXPECT_TRUE(wdmsim::TakeRawPdoRequests(pdo).empty());

  driver.RemoveDevice(fdo);
  wdmsim::DeleteRawPdo(pdo);
}

TEST_F(RawPdo, HookCanHoldARequestAndCompleteItLater) {
  PIRP held = nullptr;
  wdmsim::RawPdoOptions options;
  options.hook = [&](PDEVICE_OBJECT, PIRP irp, NTSTATUS* status) {
    if (IoGetCurrentIrpStackLocation(irp)->MajorFunction != IRP_MJ_INTERNAL_DEVICE_CONTROL) return false;
    IoMarkIrpPending(irp);
    held = irp;
    *status = STATUS_PENDING;
    return true;
  };
  PDEVICE_OBJECT pdo = wdmsim::CreateRawPdo(options);
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb;
  PIRP irp = IoBuildDeviceIoControlRequest(CTL_CODE(FILE_DEVICE_UNKNOWN, 1, METHOD_NEITHER, FILE_ANY_ACCESS), pdo,
                                           nullptr, 0, nullptr, 0, TRUE, &event, &iosb);
  EXPECT_EQ(IoCallDriver(pdo, irp), STATUS_PENDING);
  ASSERT_EQ(held, irp);
  held->IoStatus.Status = STATUS_SUCCESS;
  held->IoStatus.Information = 42;
  IoCompleteRequest(held, IO_NO_INCREMENT);
  EXPECT_EQ(iosb.Information, 42u);
  // Requests the hook declines get the PDO's own answer.
  EXPECT_EQ(wdmsim::SendPnpIrp(pdo, IRP_MN_START_DEVICE).Status, STATUS_SUCCESS);
  wdmsim::DeleteRawPdo(pdo);
}

}  // namespace
