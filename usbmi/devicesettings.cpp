#include "devicesettings.h"

#include "device.h"
#include "knregistrykey.h"

ULONG QueryOSVersion() {
  // Each generation also offers the older versions: the last test that succeeds wins.
  ULONG version = OS_unknown;
  if (IoIsWdmVersionAvailable(1, 0x10)) {
    version = OS_Win2000;
  }
  if (IoIsWdmVersionAvailable(1, 0x20)) {
    version = OS_WinXP;
  }
  if (IoIsWdmVersionAvailable(6, 0)) {
    version = OS_Vista;
  }
  return version;
}

UCHAR ConfigurationIndexFromSetting(ULONG Value, UCHAR NumConfigurations) {
  ULONG index = Value & 0xFF;
  // Unsigned: with no configuration reported the last index wraps and limits nothing.
  ULONG lastIndex = static_cast<ULONG>(NumConfigurations) - 1;
  if (!(index < lastIndex)) {
    index = lastIndex;
  }
  return static_cast<UCHAR>(index);
}

ULONG SelSusOperationFromSetting(ULONG Value, ULONG OSVersion) {
  ULONG operation;
  switch (OSVersion) {
    case OS_Win2000:
      operation = Value & 0xFF;
      break;
    case OS_WinXP:
      operation = (Value >> 8) & 0xFF;
      break;
    case OS_Vista:
      operation = (Value >> 16) & 0xFF;
      break;
    default:
      operation = kDefaultSelectiveSuspendOperation;
      break;
  }
  if (operation == 0 || operation >= 4) {
    operation = kDefaultSelectiveSuspendOperation;
  }
  return operation;
}

LONG SelSusModeFromSetting(ULONG Value) {
  LONG mode = static_cast<LONG>(Value);
  if (mode == 0 || mode >= 4) {
    mode = kDefaultSelectiveSuspendMode;
  }
  return mode;
}

ULONG IdlePeriodFromSetting(ULONG Value, ULONG* SelSusOperation) {
  if (Value == 0) {
    *SelSusOperation = kDefaultSelectiveSuspendOperation;
  }
  return Value < kMinimumIdlePeriodMs ? kMinimumIdlePeriodMs : Value;
}

UCHAR FlagFromSetting(ULONG Value) {
  return Value != 0 ? 1 : 0;
}

void Device::ReadSettings(KnRegistryKey* Key, ULONG* HighPowerCfg, ULONG* LowPowerCfg) {
  ULONG value;
  Key->GetDwordValue(L"HighPowerCfg", HighPowerCfg, 0);
  Key->GetDwordValue(L"LowPowerCfg", LowPowerCfg, 0);
  Key->GetDwordValue(L"ConfigInPnpId", &mConfigInPnpId, 0);
  Key->GetDwordValue(L"UsbConfiguration", &mUsbConfigurationValue, 0);
  // A missing name empties it; one too long or of another type leaves it as it was.
  Key->QueryString(L"FamilyName", mFamilyName, kFamilyNameChars, REG_SZ);
  Key->GetDwordValue(L"SelectiveSuspendOperation", &value, kDefaultSelectiveSuspendOperation);
  mSelSusOperation = SelSusOperationFromSetting(value, mOSVersion);
  Key->GetDwordValue(L"SelectiveSuspendMode", &value, kDefaultSelectiveSuspendMode);
  mSelSusMode = SelSusModeFromSetting(value);
  Key->GetDwordValue(L"SelectiveSuspendIdlePeriod", &value, kDefaultSelectiveSuspendIdlePeriodMs);
  mIdlePeriod = IdlePeriodFromSetting(value, &mSelSusOperation);
  Key->GetDwordValue(L"TrySsOnXpWithHub", &value, 0);
  mTrySsOnXpWithHub = FlagFromSetting(value);
  Key->GetDwordValue(L"CyclePortOnPowerOn", &value, 0);
  mCyclePortOnPowerOn = FlagFromSetting(value);
}
