// wdmsim host API: what the power manager services recorded.
#pragma once
#include <vector>

#include <wdm.h>

namespace wdmsim {

// Every PoStartNextPowerIrp call since the last take, in call order (one entry per call,
// so a driver that starts the next IRP twice for one request shows the IRP twice).
std::vector<const IRP*> TakePoStartNextPowerIrpCalls();

// The device power state a driver last announced with PoSetPowerState
// (PowerDeviceUnspecified when it never did).
DEVICE_POWER_STATE AnnouncedDevicePowerState(const DEVICE_OBJECT* device);

}  // namespace wdmsim
