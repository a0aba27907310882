// Device: the PnP start. The lower stack has started the device already (KnFdo) and Lock
// is held. A failed start undoes nothing: the removal that follows runs StopDevice.
#include "device.h"

#include "knregistrykey.h"
#include "knsystemtime.h"
#include "kntrace.h"

namespace {

const ULONG kMaximumTransferSize = 4096;
// No selective suspend right after a start.
const LONGLONG kNoSleepAfterStartMs = 6000;

}  // namespace

NTSTATUS Device::OnPnpStartDevice(PIRP) {
  KN_TRACE(0x20, "%P:[Device::OnPnpStartDevice\n");
  KnRegistryKey key;
  ULONG highPowerCfg = 0;
  ULONG lowPowerCfg = 0;
  USB_NODE_INFORMATION nodeInformation;
  BOOLEAN highPower = FALSE;
  UCHAR configurationIndex;

  mOSVersion = QueryOSVersion();
  KN_ASSERT(mOSVersion != OS_unknown);

  NTSTATUS status =
      key.OpenDeviceRegistryKey(mLowerDeviceUsb.GetPhysicalDeviceObject(), PLUGPLAY_REGKEY_DEVICE, KEY_READ);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:Device::OnPnpStartDevice: OpenDeviceRegistryKey failed, stat=%N\n", status);
    goto Done;
  }
  ReadSettings(&key, &highPowerCfg, &lowPowerCfg);
  key.Close();

  status = mLowerDeviceUsb.GetDeviceDescriptor(&mDeviceDescriptor, kRequestTimeoutMs);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:Device::OnPnpStartDevice: GetDeviceDescriptor failed, stat=%N\n", status);
    goto Done;
  }

  {
    // Only a self-powered hub gives a port 500 mA; without an answer assume the least.
    NTSTATUS hubStatus = GetHubInfo(&nodeInformation);
    if (NT_SUCCESS(hubStatus)) {
      highPower = !nodeInformation.u.HubInformation.HubIsBusPowered;
    } else {
      KN_TRACE(0x1, "%P:Device::OnPnpStartDevice: OnPnpStartDevice:GetHubInfo failed %08x\n", hubStatus);
    }
  }
  KN_TRACE(0x4, "%P:Device::OnPnpStartDevice: Hub supports cuurrent up to %d mA\n", highPower ? 500 : 100);

  configurationIndex = ConfigurationIndexFromSetting(highPower ? highPowerCfg : lowPowerCfg,
                                                     mDeviceDescriptor.bNumConfigurations);
  status = mConfigDesc.GetAndAllocate(configurationIndex, kRequestTimeoutMs);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:Device::OnPnpStartDevice: GetAndAllocate failed, stat=%N\n", status);
    goto Done;
  }

  // Every pipe may carry 4096 bytes; the selection itself waits as long as the stack takes.
  status = mUsbConfiguration.SetConfiguration(&mConfigDesc, kMaximumTransferSize, 0);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:Device::OnPnpStartDevice: SetConfiguration failed, stat=%N\n", status);
    goto Done;
  }

  status = CreateChildren();
  if (status != STATUS_SUCCESS) {
    KN_TRACE(0x1, "%P:Device::OnPnpStartDevice: CreateChildren failed, stat=%N\n", status);
    goto Done;
  }

  mNextSleepTime = KnGetSystemTimeMs() + kNoSleepAfterStartMs;
  // Arming wait-wake belongs to the power handling, which does not exist yet.

  // Allocated now so that a sleep never fails for want of it; it stays unused until then.
  KN_ASSERT(mIdleNotificationIrp == NULL);
  mIdleNotificationIrp = IoAllocateIrp(mLowerDeviceUsb.GetStackSize(), FALSE);
  if (mIdleNotificationIrp == NULL) {
    status = STATUS_INSUFFICIENT_RESOURCES;
    KN_TRACE(0x1, "%P:Device::OnPnpStartDevice: IoAllocateIrp failed, stat=%N\n", status);
    goto Done;
  }
  // The read on the notification pipe starts here once the notification protocol exists.

Done:
  KN_TRACE(0x20, "%P:]Device::OnPnpStartDevice %N\n", status);
  return status;
}
