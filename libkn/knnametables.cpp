#include "knnametables.h"

const char gKnUnknownName[] = "unknown";

// A table indexed by the code; a hole (NULL) or a code past its end is unknown.
template <ULONG Count>
static const char* LookUpName(const char* const (&Names)[Count], ULONG Code) {
  if (Code < Count && Names[Code] != NULL) {
    return Names[Code];
  }
  return gKnUnknownName;
}

const char* KnPnpMinorFunctionName(ULONG MinorFunction) {
  static const char* const kNames[] = {
      "IRP_MN_START_DEVICE",                  // 0x00
      "IRP_MN_QUERY_REMOVE_DEVICE",           // 0x01
      "IRP_MN_REMOVE_DEVICE",                 // 0x02
      "IRP_MN_CANCEL_REMOVE_DEVICE",          // 0x03
      "IRP_MN_STOP_DEVICE",                   // 0x04
      "IRP_MN_QUERY_STOP_DEVICE",             // 0x05
      "IRP_MN_CANCEL_STOP_DEVICE",            // 0x06
      "IRP_MN_QUERY_DEVICE_RELATIONS",        // 0x07
      "IRP_MN_QUERY_INTERFACE",               // 0x08
      "IRP_MN_QUERY_CAPABILITIES",            // 0x09
      "IRP_MN_QUERY_RESOURCES",               // 0x0A
      "IRP_MN_QUERY_RESOURCE_REQUIREMENTS",   // 0x0B
      "IRP_MN_QUERY_DEVICE_TEXT",             // 0x0C
      "IRP_MN_FILTER_RESOURCE_REQUIREMENTS",  // 0x0D
      NULL,                                   // 0x0E: no minor function has this code
      "IRP_MN_READ_CONFIG",                   // 0x0F
      "IRP_MN_WRITE_CONFIG",                  // 0x10
      "IRP_MN_EJECT",                         // 0x11
      "IRP_MN_SET_LOCK",                      // 0x12
      "IRP_MN_QUERY_ID",                      // 0x13
      "IRP_MN_QUERY_PNP_DEVICE_STATE",        // 0x14
      "IRP_MN_QUERY_BUS_INFORMATION",         // 0x15
      "IRP_MN_DEVICE_USAGE_NOTIFICATION",     // 0x16
      "IRP_MN_SURPRISE_REMOVAL",              // 0x17
      "IRP_MN_QUERY_LEGACY_BUS_INFORMATION",  // 0x18
  };
  return LookUpName(kNames, MinorFunction);
}

const char* KnPnPStateName(ULONG State) {
  static const char* const kNames[] = {
      "KnPnPDeviceObject::KnPnPState_Initializing",  "KnPnPDeviceObject::KnPnPState_Added",
      "KnPnPDeviceObject::KnPnPState_Started",       "KnPnPDeviceObject::KnPnPState_StopPending",
      "KnPnPDeviceObject::KnPnPState_Stopped",       "KnPnPDeviceObject::KnPnPState_RemovePending",
      "KnPnPDeviceObject::KnPnPState_Removed",       "KnPnPDeviceObject::KnPnPState_SurpriseRemoved",
  };
  return LookUpName(kNames, State);
}

const char* KnPowerMinorFunctionName(ULONG MinorFunction) {
  static const char* const kNames[] = {
      "IRP_MN_WAIT_WAKE",
      "IRP_MN_POWER_SEQUENCE",
      "IRP_MN_SET_POWER",
      "IRP_MN_QUERY_POWER",
  };
  return LookUpName(kNames, MinorFunction);
}

const char* KnDeviceRelationTypeName(ULONG Type) {
  static const char* const kNames[] = {
      "BusRelations", "EjectionRelations", "PowerRelations", "RemovalRelations", "TargetDeviceRelation",
  };
  return LookUpName(kNames, Type);
}

const char* KnBusQueryIdTypeName(ULONG Type) {
  static const char* const kNames[] = {
      "BusQueryDeviceID",   "BusQueryHardwareIDs",        "BusQueryCompatibleIDs",
      "BusQueryInstanceID", "BusQueryDeviceSerialNumber",
  };
  return LookUpName(kNames, Type);
}

const char* KnDeviceTextTypeName(ULONG Type) {
  static const char* const kNames[] = {
      "DeviceTextDescription",
      "DeviceTextLocationInformation",
  };
  return LookUpName(kNames, Type);
}

const char* KnSystemPowerStateName(ULONG State) {
  static const char* const kNames[] = {
      "PowerSystemUnspecified", "PowerSystemWorking",   "PowerSystemSleeping1", "PowerSystemSleeping2",
      "PowerSystemSleeping3",   "PowerSystemHibernate", "PowerSystemShutdown",  "PowerSystemMaximum",
  };
  return LookUpName(kNames, State);
}

const char* KnDevicePowerStateName(ULONG State) {
  static const char* const kNames[] = {
      "PowerDeviceUnspecified", "PowerDeviceD0", "PowerDeviceD1",
      "PowerDeviceD2",          "PowerDeviceD3", "PowerDeviceMaximum",
  };
  return LookUpName(kNames, State);
}

const char* KnPowerStateTypeName(ULONG Type) {
  static const char* const kNames[] = {
      "SystemPowerState",
      "DevicePowerState",
  };
  return LookUpName(kNames, Type);
}

// The warm-eject action (7) is deliberately not listed: it prints as unknown.
const char* KnPowerActionName(ULONG Action) {
  static const char* const kNames[] = {
      "PowerActionNone",     "PowerActionReserved",      "PowerActionSleep",       "PowerActionHibernate",
      "PowerActionShutdown", "PowerActionShutdownReset", "PowerActionShutdownOff",
  };
  return LookUpName(kNames, Action);
}

// The reserved codes keep the platform's own spelling: "RESERVED" for 0x16, "RESERVE" for
// the others.
const char* KnUrbFunctionName(ULONG Function) {
  static const char* const kNames[] = {
      "URB_FUNCTION_SELECT_CONFIGURATION",          // 0x0000
      "URB_FUNCTION_SELECT_INTERFACE",              // 0x0001
      "URB_FUNCTION_ABORT_PIPE",                    // 0x0002
      "URB_FUNCTION_TAKE_FRAME_LENGTH_CONTROL",     // 0x0003
      "URB_FUNCTION_RELEASE_FRAME_LENGTH_CONTROL",  // 0x0004
      "URB_FUNCTION_GET_FRAME_LENGTH",              // 0x0005
      "URB_FUNCTION_SET_FRAME_LENGTH",              // 0x0006
      "URB_FUNCTION_GET_CURRENT_FRAME_NUMBER",      // 0x0007
      "URB_FUNCTION_CONTROL_TRANSFER",              // 0x0008
      "URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER",    // 0x0009
      "URB_FUNCTION_ISOCH_TRANSFER",                // 0x000A
      "URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE",    // 0x000B
      "URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE",      // 0x000C
      "URB_FUNCTION_SET_FEATURE_TO_DEVICE",         // 0x000D
      "URB_FUNCTION_SET_FEATURE_TO_INTERFACE",      // 0x000E
      "URB_FUNCTION_SET_FEATURE_TO_ENDPOINT",       // 0x000F
      "URB_FUNCTION_CLEAR_FEATURE_TO_DEVICE",       // 0x0010
      "URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE",    // 0x0011
      "URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT",     // 0x0012
      "URB_FUNCTION_GET_STATUS_FROM_DEVICE",        // 0x0013
      "URB_FUNCTION_GET_STATUS_FROM_INTERFACE",     // 0x0014
      "URB_FUNCTION_GET_STATUS_FROM_ENDPOINT",      // 0x0015
      "URB_FUNCTION_RESERVED_0X0016",               // 0x0016
      "URB_FUNCTION_VENDOR_DEVICE",                 // 0x0017
      "URB_FUNCTION_VENDOR_INTERFACE",              // 0x0018
      "URB_FUNCTION_VENDOR_ENDPOINT",               // 0x0019
      "URB_FUNCTION_CLASS_DEVICE",                  // 0x001A
      "URB_FUNCTION_CLASS_INTERFACE",               // 0x001B
      "URB_FUNCTION_CLASS_ENDPOINT",                // 0x001C
      "URB_FUNCTION_RESERVE_0X001D",                // 0x001D
      "URB_FUNCTION_RESET_PIPE",                    // 0x001E
      "URB_FUNCTION_CLASS_OTHER",                   // 0x001F
      "URB_FUNCTION_VENDOR_OTHER",                  // 0x0020
      "URB_FUNCTION_GET_STATUS_FROM_OTHER",         // 0x0021
      "URB_FUNCTION_CLEAR_FEATURE_TO_OTHER",        // 0x0022
      "URB_FUNCTION_SET_FEATURE_TO_OTHER",          // 0x0023
      "URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT",  // 0x0024
      "URB_FUNCTION_SET_DESCRIPTOR_TO_ENDPOINT",    // 0x0025
      "URB_FUNCTION_GET_CONFIGURATION",             // 0x0026
      "URB_FUNCTION_GET_INTERFACE",                 // 0x0027
      "URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE", // 0x0028
      "URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE",   // 0x0029
      "URB_FUNCTION_GET_MS_FEATURE_DESCRIPTOR",     // 0x002A
      "URB_FUNCTION_RESERVE_0X002B",                // 0x002B
      "URB_FUNCTION_RESERVE_0X002C",                // 0x002C
      "URB_FUNCTION_RESERVE_0X002D",                // 0x002D
      "URB_FUNCTION_RESERVE_0X002E",                // 0x002E
      "URB_FUNCTION_RESERVE_0X002F",                // 0x002F
      "URB_FUNCTION_SYNC_RESET_PIPE",               // 0x0030
      "URB_FUNCTION_SYNC_CLEAR_STALL",              // 0x0031
      "URB_FUNCTION_CONTROL_TRANSFER_EX",           // 0x0032
  };
  return LookUpName(kNames, Function);
}

// The string descriptor type (3) is deliberately not listed: it prints as unknown.
const char* KnDescriptorTypeName(ULONG Type) {
  static const char* const kNames[] = {
      NULL,                                   // 0
      "USB_DEVICE_DESCRIPTOR_TYPE",           // 1
      "USB_CONFIGURATION_DESCRIPTOR_TYPE",    // 2
      NULL,                                   // 3
      "USB_INTERFACE_DESCRIPTOR_TYPE",        // 4
      "USB_ENDPOINT_DESCRIPTOR_TYPE",         // 5
      "USB_RESERVED_DESCRIPTOR_TYPE",         // 6
      "USB_CONFIG_POWER_DESCRIPTOR_TYPE",     // 7
      "USB_INTERFACE_POWER_DESCRIPTOR_TYPE",  // 8
  };
  return LookUpName(kNames, Type);
}
