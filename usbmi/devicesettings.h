// The parent's settings from the device's hardware key: which generation of the platform
// runs the driver, and how each raw registry value becomes the value the driver uses.
#pragma once

#include <ntddk.h>

// Platform generation, by the newest WDM version the platform offers.
enum DeviceOSVersion {
  OS_unknown = 0,
  OS_Win2000 = 1,  // WDM 1.10
  OS_WinXP = 2,    // WDM 1.20
  OS_Vista = 3,    // WDM 6.0 and later
};

// Registry values read with their defaults; the order in which the start reads them.
const ULONG kDefaultSelectiveSuspendOperation = 1;
const ULONG kDefaultSelectiveSuspendMode = 1;
const ULONG kDefaultSelectiveSuspendIdlePeriodMs = 500;
// Shorter idle periods are raised to this.
const ULONG kMinimumIdlePeriodMs = 50;
// Characters of the family name, terminator included.
const ULONG kFamilyNameChars = 32;

// PASSIVE_LEVEL. The newest platform generation that IoIsWdmVersionAvailable confirms.
ULONG QueryOSVersion();

// The configuration index a "HighPowerCfg" / "LowPowerCfg" value selects: its low 8 bits,
// at most the last index of a device with NumConfigurations configurations (a device that
// reports none keeps the index as read).
UCHAR ConfigurationIndexFromSetting(ULONG Value, UCHAR NumConfigurations);
// "SelectiveSuspendOperation" holds one byte per platform generation; a byte outside 1..3
// means the default.
ULONG SelSusOperationFromSetting(ULONG Value, ULONG OSVersion);
// "SelectiveSuspendMode": 1 to 3 as read, 0 and 4 or more the default; a negative value
// (as a signed number) is kept.
LONG SelSusModeFromSetting(ULONG Value);
// "SelectiveSuspendIdlePeriod": an idle period of 0 also turns the operation back to the
// default; periods below the minimum are raised to it.
ULONG IdlePeriodFromSetting(ULONG Value, ULONG* SelSusOperation);
// The DWORD flags: non-zero is 1.
UCHAR FlagFromSetting(ULONG Value);
