// The small name tables: every listed code, the holes, and the first codes past the end.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <ntddk.h>
#include <usb.h>

#include "knnametables.h"
#include "knpnpdeviceobject.h"

namespace {

struct NameTable {
  const char* title;
  const char* (*lookUp)(ULONG);
  std::vector<std::pair<ULONG, const char*>> names;
  std::vector<ULONG> unknown;  // codes that must print "unknown"
};

std::vector<NameTable> Tables() {
  return {
      {"PnP minor functions",
       KnPnpMinorFunctionName,
       {{IRP_MN_START_DEVICE, "IRP_MN_START_DEVICE"},
        {IRP_MN_QUERY_REMOVE_DEVICE, "IRP_MN_QUERY_REMOVE_DEVICE"},
        {IRP_MN_REMOVE_DEVICE, "IRP_MN_REMOVE_DEVICE"},
        {IRP_MN_CANCEL_REMOVE_DEVICE, "IRP_MN_CANCEL_REMOVE_DEVICE"},
        {IRP_MN_STOP_DEVICE, "IRP_MN_STOP_DEVICE"},
        {IRP_MN_QUERY_STOP_DEVICE, "IRP_MN_QUERY_STOP_DEVICE"},
        {IRP_MN_CANCEL_STOP_DEVICE, "IRP_MN_CANCEL_STOP_DEVICE"},
        {IRP_MN_QUERY_DEVICE_RELATIONS, "IRP_MN_QUERY_DEVICE_RELATIONS"},
        {IRP_MN_QUERY_INTERFACE, "IRP_MN_QUERY_INTERFACE"},
        {IRP_MN_QUERY_CAPABILITIES, "IRP_MN_QUERY_CAPABILITIES"},
        {IRP_MN_QUERY_RESOURCES, "IRP_MN_QUERY_RESOURCES"},
        {IRP_MN_QUERY_RESOURCE_REQUIREMENTS, "IRP_MN_QUERY_RESOURCE_REQUIREMENTS"},
        {IRP_MN_QUERY_DEVICE_TEXT, "IRP_MN_QUERY_DEVICE_TEXT"},
        {IRP_MN_FILTER_RESOURCE_REQUIREMENTS, "IRP_MN_FILTER_RESOURCE_REQUIREMENTS"},
        {IRP_MN_READ_CONFIG, "IRP_MN_READ_CONFIG"},
        {IRP_MN_WRITE_CONFIG, "IRP_MN_WRITE_CONFIG"},
        {IRP_MN_EJECT, "IRP_MN_EJECT"},
        {IRP_MN_SET_LOCK, "IRP_MN_SET_LOCK"},
        {IRP_MN_QUERY_ID, "IRP_MN_QUERY_ID"},
        {IRP_MN_QUERY_PNP_DEVICE_STATE, "IRP_MN_QUERY_PNP_DEVICE_STATE"},
        {IRP_MN_QUERY_BUS_INFORMATION, "IRP_MN_QUERY_BUS_INFORMATION"},
        {IRP_MN_DEVICE_USAGE_NOTIFICATION, "IRP_MN_DEVICE_USAGE_NOTIFICATION"},
        {IRP_MN_SURPRISE_REMOVAL, "IRP_MN_SURPRISE_REMOVAL"},
        {IRP_MN_QUERY_LEGACY_BUS_INFORMATION, "IRP_MN_QUERY_LEGACY_BUS_INFORMATION"}},
       {0x0E, 0x19, 0xFF, 0xFFFFFFFF}},
      {"PnP states",
       KnPnPStateName,
       {{KnPnPState_Initializing, "KnPnPDeviceObject::KnPnPState_Initializing"},
        {KnPnPState_Added, "KnPnPDeviceObject::KnPnPState_Added"},
        {KnPnPState_Started, "KnPnPDeviceObject::KnPnPState_Started"},
        {KnPnPState_StopPending, "KnPnPDeviceObject::KnPnPState_StopPending"},
        {KnPnPState_Stopped, "KnPnPDeviceObject::KnPnPState_Stopped"},
        {KnPnPState_RemovePending, "KnPnPDeviceObject::KnPnPState_RemovePending"},
        {KnPnPState_Removed, "KnPnPDeviceObject::KnPnPState_Removed"},
        {KnPnPState_SurpriseRemoved, "KnPnPDeviceObject::KnPnPState_SurpriseRemoved"}},
       {8, 0x80000000}},
      {"power minor functions",
       KnPowerMinorFunctionName,
       {{IRP_MN_WAIT_WAKE, "IRP_MN_WAIT_WAKE"},
        {IRP_MN_POWER_SEQUENCE, "IRP_MN_POWER_SEQUENCE"},
        {IRP_MN_SET_POWER, "IRP_MN_SET_POWER"},
        {IRP_MN_QUERY_POWER, "IRP_MN_QUERY_POWER"}},
       {4, 0x100}},
      {"device relation types",
       KnDeviceRelationTypeName,
       {{BusRelations, "BusRelations"},
        {EjectionRelations, "EjectionRelations"},
        {PowerRelations, "PowerRelations"},
        {RemovalRelations, "RemovalRelations"},
        {TargetDeviceRelation, "TargetDeviceRelation"}},
       {SingleBusRelations, TransportRelations}},
      {"identifier query types",
       KnBusQueryIdTypeName,
       {{BusQueryDeviceID, "BusQueryDeviceID"},
        {BusQueryHardwareIDs, "BusQueryHardwareIDs"},
        {BusQueryCompatibleIDs, "BusQueryCompatibleIDs"},
        {BusQueryInstanceID, "BusQueryInstanceID"},
        {BusQueryDeviceSerialNumber, "BusQueryDeviceSerialNumber"}},
       {BusQueryContainerID}},
      {"device text types",
       KnDeviceTextTypeName,
       {{DeviceTextDescription, "DeviceTextDescription"},
        {DeviceTextLocationInformation, "DeviceTextLocationInformation"}},
       {2}},
      {"system power states",
       KnSystemPowerStateName,
       {{PowerSystemUnspecified, "PowerSystemUnspecified"},
        {PowerSystemWorking, "PowerSystemWorking"},
        {PowerSystemSleeping1, "PowerSystemSleeping1"},
        {PowerSystemSleeping2, "PowerSystemSleeping2"},
        {PowerSystemSleeping3, "PowerSystemSleeping3"},
        {PowerSystemHibernate, "PowerSystemHibernate"},
        {PowerSystemShutdown, "PowerSystemShutdown"},
        {PowerSystemMaximum, "PowerSystemMaximum"}},
       {8}},
      {"device power states",
       KnDevicePowerStateName,
       {{PowerDeviceUnspecified, "PowerDeviceUnspecified"},
        {PowerDeviceD0, "PowerDeviceD0"},
        {PowerDeviceD1, "PowerDeviceD1"},
        {PowerDeviceD2, "PowerDeviceD2"},
        {PowerDeviceD3, "PowerDeviceD3"},
        {PowerDeviceMaximum, "PowerDeviceMaximum"}},
       {6}},
      {"power state types",
       KnPowerStateTypeName,
       {{SystemPowerState, "SystemPowerState"}, {DevicePowerState, "DevicePowerState"}},
       {2}},
      {"power actions",
       KnPowerActionName,
       {{PowerActionNone, "PowerActionNone"},
        {PowerActionReserved, "PowerActionReserved"},
        {PowerActionSleep, "PowerActionSleep"},
        {PowerActionHibernate, "PowerActionHibernate"},
        {PowerActionShutdown, "PowerActionShutdown"},
        {PowerActionShutdownReset, "PowerActionShutdownReset"},
        {PowerActionShutdownOff, "PowerActionShutdownOff"}},
       {PowerActionWarmEject}},
      {"USB descriptor types",
       KnDescriptorTypeName,
       {{USB_DEVICE_DESCRIPTOR_TYPE, "USB_DEVICE_DESCRIPTOR_TYPE"},
        {USB_CONFIGURATION_DESCRIPTOR_TYPE, "USB_CONFIGURATION_DESCRIPTOR_TYPE"},
        {USB_INTERFACE_DESCRIPTOR_TYPE, "USB_INTERFACE_DESCRIPTOR_TYPE"},
        {USB_ENDPOINT_DESCRIPTOR_TYPE, "USB_ENDPOINT_DESCRIPTOR_TYPE"},
        {6, "USB_RESERVED_DESCRIPTOR_TYPE"},
        {7, "USB_CONFIG_POWER_DESCRIPTOR_TYPE"},
        {8, "USB_INTERFACE_POWER_DESCRIPTOR_TYPE"}},
       {0, USB_STRING_DESCRIPTOR_TYPE, 9, 0x21, 0x24}},
  };
}

TEST(NameTables, EveryListedCodeAndEveryGap) {
  for (const NameTable& table : Tables()) {
    for (const auto& [code, name] : table.names) {
      EXPECT_STREQ(table.lookUp(code), name) << table.title << " code " << code;
    }
    for (ULONG code : table.unknown) {
      // The one shared constant, not merely an equal text.
      EXPECT_EQ(table.lookUp(code), gKnUnknownName) << table.title << " code " << code;
    }
  }
  EXPECT_STREQ(gKnUnknownName, "unknown");
}

// Every URB function code 0x00 to 0x32 has the platform's name; codes past it do not.
TEST(NameTables, UrbFunctions) {
  const char* const expected[] = {
      "URB_FUNCTION_SELECT_CONFIGURATION", "URB_FUNCTION_SELECT_INTERFACE",
      "URB_FUNCTION_ABORT_PIPE", "URB_FUNCTION_TAKE_FRAME_LENGTH_CONTROL",
      "URB_FUNCTION_RELEASE_FRAME_LENGTH_CONTROL", "URB_FUNCTION_GET_FRAME_LENGTH",
      "URB_FUNCTION_SET_FRAME_LENGTH", "URB_FUNCTION_GET_CURRENT_FRAME_NUMBER",
      "URB_FUNCTION_CONTROL_TRANSFER", "URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER",
      "URB_FUNCTION_ISOCH_TRANSFER", "URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE",
      "URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE", "URB_FUNCTION_SET_FEATURE_TO_DEVICE",
      "URB_FUNCTION_SET_FEATURE_TO_INTERFACE", "URB_FUNCTION_SET_FEATURE_TO_ENDPOINT",
      "URB_FUNCTION_CLEAR_FEATURE_TO_DEVICE", "URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE",
      "URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT", "URB_FUNCTION_GET_STATUS_FROM_DEVICE",
      "URB_FUNCTION_GET_STATUS_FROM_INTERFACE", "URB_FUNCTION_GET_STATUS_FROM_ENDPOINT",
      "URB_FUNCTION_RESERVED_0X0016", "URB_FUNCTION_VENDOR_DEVICE",
      "URB_FUNCTION_VENDOR_INTERFACE", "URB_FUNCTION_VENDOR_ENDPOINT",
      "URB_FUNCTION_CLASS_DEVICE", "URB_FUNCTION_CLASS_INTERFACE",
      "URB_FUNCTION_CLASS_ENDPOINT", "URB_FUNCTION_RESERVE_0X001D",
      "URB_FUNCTION_RESET_PIPE", "URB_FUNCTION_CLASS_OTHER",
      "URB_FUNCTION_VENDOR_OTHER", "URB_FUNCTION_GET_STATUS_FROM_OTHER",
      "URB_FUNCTION_CLEAR_FEATURE_TO_OTHER", "URB_FUNCTION_SET_FEATURE_TO_OTHER",
      "URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT", "URB_FUNCTION_SET_DESCRIPTOR_TO_ENDPOINT",
      "URB_FUNCTION_GET_CONFIGURATION", "URB_FUNCTION_GET_INTERFACE",
      "URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE", "URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE",
      "URB_FUNCTION_GET_MS_FEATURE_DESCRIPTOR", "URB_FUNCTION_RESERVE_0X002B",
      "URB_FUNCTION_RESERVE_0X002C", "URB_FUNCTION_RESERVE_0X002D",
      "URB_FUNCTION_RESERVE_0X002E", "URB_FUNCTION_RESERVE_0X002F",
      "URB_FUNCTION_SYNC_RESET_PIPE", "URB_FUNCTION_SYNC_CLEAR_STALL",
      "URB_FUNCTION_CONTROL_TRANSFER_EX",
  };
  ASSERT_EQ(sizeof(expected) / sizeof(expected[0]), 0x33u);
  for (ULONG code = 0; code <= 0x32; code++) {
    EXPECT_STREQ(KnUrbFunctionName(code), expected[code]) << "code " << code;
  }
  // The platform's constants agree with the positions.
  EXPECT_STREQ(KnUrbFunctionName(URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER), "URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER");
  EXPECT_STREQ(KnUrbFunctionName(URB_FUNCTION_RESET_PIPE), "URB_FUNCTION_RESET_PIPE");
  EXPECT_STREQ(KnUrbFunctionName(URB_FUNCTION_SYNC_CLEAR_STALL), "URB_FUNCTION_SYNC_CLEAR_STALL");
  EXPECT_EQ(KnUrbFunctionName(0x33), gKnUnknownName);
  EXPECT_EQ(KnUrbFunctionName(URB_FUNCTION_OPEN_STATIC_STREAMS), gKnUnknownName);
  EXPECT_EQ(KnUrbFunctionName(0xFFFF), gKnUnknownName);
}

}  // namespace
