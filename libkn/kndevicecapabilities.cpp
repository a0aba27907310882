#include "kndevicecapabilities.h"

#include "knnametables.h"
#include "kntrace.h"

ULONG KnDeviceCapabilitiesFlags(const DEVICE_CAPABILITIES* Capabilities) {
  ULONG flags;
  RtlCopyMemory(&flags, (const UCHAR*)Capabilities + 2 * sizeof(USHORT), sizeof(flags));
  return flags;
}

void KnTraceDeviceCapabilities(const DEVICE_CAPABILITIES* Capabilities) {
  KN_TRACE(0x4, "  FLAGS:%D\n", KnDeviceCapabilitiesFlags(Capabilities));
  KN_TRACE(0x4, "  Address:%D  UINumber:%D\n", Capabilities->Address, Capabilities->UINumber);
  KN_TRACE(0x4, "  SystemWake:%s  DeviceWake:%s\n", KnSystemPowerStateName(Capabilities->SystemWake),
           KnDevicePowerStateName(Capabilities->DeviceWake));
  for (ULONG i = PowerSystemUnspecified; i < PowerSystemMaximum; i++) {
    KN_TRACE(0x4, "  DeviceState[%s] = %s\n", KnSystemPowerStateName(i),
             KnDevicePowerStateName(Capabilities->DeviceState[i]));
  }
}
