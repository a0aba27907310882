#include "knpnpdeviceobject.h"

KnPnPDeviceObject::KnPnPDeviceObject()
    : mPowerState(PowerDeviceUnspecified), mPnPState(KnPnPState_Initializing),
      mPreviousPnPState(KnPnPState_Initializing) {
  RtlZeroMemory(&mDeviceCapabilities, sizeof(mDeviceCapabilities));
  mDeviceCapabilities.Size = sizeof(DEVICE_CAPABILITIES);
  mDeviceCapabilities.Version = 1;
}
