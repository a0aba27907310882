// KnPnPDeviceObject: a device object that takes part in Plug and Play: PnP state,
// capabilities and device power state, and the lock that serialises its PnP handling.
#pragma once

#include <ntddk.h>

#include "kndeviceobject.h"

enum KnPnPState {
  KnPnPState_Initializing = 0,   // constructed, not yet added
  KnPnPState_Added = 1,          // device object created and attached
  KnPnPState_Started = 2,
  KnPnPState_StopPending = 3,
  KnPnPState_Stopped = 4,
  KnPnPState_RemovePending = 5,
  KnPnPState_Removed = 6,
  KnPnPState_SurpriseRemoved = 7,
};

class KnPnPDeviceObject : public KnDeviceObject {
 public:
  KnPnPDeviceObject();

  // Slots 11 and 12: the concrete class's lock around PnP state changes and hook calls.
  virtual void Lock() = 0;
  virtual void Unlock() = 0;

  // The previous state is kept so that a cancel request can go back to it.
  void SetPnPState(KnPnPState State) {
    mPreviousPnPState = mPnPState;
    mPnPState = State;
  }
  void RestorePnPState() { mPnPState = mPreviousPnPState; }
  KnPnPState GetPnPState() const { return mPnPState; }

 protected:
  DEVICE_CAPABILITIES mDeviceCapabilities;  // Size 64 and Version 1 until a query fills it
  DEVICE_POWER_STATE mPowerState;           // PowerDeviceUnspecified until started
  KnPnPState mPnPState;
  KnPnPState mPreviousPnPState;
};
