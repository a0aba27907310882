// The trace of a DEVICE_CAPABILITIES answer, shared by the FDO and the bus child: the
// caller prints its own heading line, this prints the structure's lines below it.
#pragma once

#include <ntddk.h>

// The 32-bit word of flag bits that follows Size and Version.
ULONG KnDeviceCapabilitiesFlags(const DEVICE_CAPABILITIES* Capabilities);

// With trace bit 0x4: flags, address and UI number, wake limits and the device state of
// each system state from PowerSystemUnspecified to PowerSystemShutdown.
void KnTraceDeviceCapabilities(const DEVICE_CAPABILITIES* Capabilities);
