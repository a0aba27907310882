// Device: stop, removal and surprise removal, and what they undo of the start. Each runs on
// the PnP manager's thread with Lock held.
#include "device.h"

#include "kntrace.h"

namespace {

const ULONG kIdleNotificationWaitSliceMs = 500;

}  // namespace

void Device::OnPnpStopDevice() {
  KN_TRACE(0x20, "%P:[Device::OnPnpStopDevice\n");
  StopDevice(TRUE);
  KN_TRACE(0x20, "%P:]Device::OnPnpStopDevice\n");
}

void Device::OnPnpRemoveDevice() {
  KN_TRACE(0x20, "%P:[Device::OnPnpRemoveDevice\n");
  StopDevice(FALSE);
  KN_TRACE(0x20, "%P:]Device::OnPnpRemoveDevice\n");
}

void Device::OnPnpSurpriseRemoval() {
  KN_TRACE(0x20, "%P:[Device::OnPnpSurpriseRemoval\n");
  StopDevice(FALSE);
  KN_TRACE(0x20, "%P:]Device::OnPnpSurpriseRemoval\n");
}

void Device::StopDevice(BOOLEAN Send) {
  // Neither a port cycle nor the idle notification may touch the device once it is
  // unconfigured.
  mCyclePortWorker.WaitForAllWorkItems(0xFFFFFFFF);
  // The idle and after-standby timers are cancelled here once selective suspend exists.

  if (mIdleNotificationIrp != NULL) {
    // Cancelling an idle notification still in the hub driver comes with selective suspend;
    // until then nothing submits it and the event stays set.
    while (mIdleNotificationComplete.Wait(kIdleNotificationWaitSliceMs) == STATUS_TIMEOUT) {
      KN_TRACE(0x1, "%P:Device::StopDevice wait for mIdleNotificationComplete\n");
    }
    IoFreeIrp(mIdleNotificationIrp);
    mIdleNotificationIrp = NULL;
  }

  // The read on the notification pipe is aborted here once the notification protocol exists.
  mSelSusPipe = NULL;
  mSelSusInterface = NULL;

  mVendorIrpQueue.CancelAllIrps(NULL);

  // On removal the device is gone or going: only the local state is cleared.
  mUsbConfiguration.UnconfigureDevice(Send, kRequestTimeoutMs);

  ReportChildrenMissing();
}

void Device::ReportChildrenMissing() {
  // Lock is recursive: held by the PnP hooks already, and what keeps a child's own removal
  // from unlinking it during the walk.
  Lock();
  for (KnBusChildPdo* child = GetFirstChild(); child != NULL; child = GetNextChild(child)) {
    child->SetPresence(KnChildPresence_Absent);
  }
  Unlock();
  mLowerDeviceUsb.InvalidateDeviceRelations(BusRelations);
}
