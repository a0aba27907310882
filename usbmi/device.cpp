// Device: construction, destruction, the PnP lock and the place on the device stack.
#include "device.h"

#include "kntrace.h"

Device::Device()
    : mEp0InUse(0),
      mDeviceRemoved(0),
      mOSVersion(OS_unknown),
      mConnectedToRootHub(0),
      mCyclePortOnPowerOn(0),
      mConfigInPnpId(0),
      mUsbConfigurationValue(0),
      mChildCount(0),
      mSelSusInterface(NULL),
      mSelSusPipe(NULL),
      mIdlePeriod(0),
      mSelSusOperation(0),
      mSelSusMode(0),
      mTrySsOnXpWithHub(0),
      mIdleNotificationIrp(NULL),
      mIdleNotificationComplete(NotificationEvent, TRUE),
      mNextSleepTime(0) {
  RtlZeroMemory(&mDeviceDescriptor, sizeof(mDeviceDescriptor));
  RtlZeroMemory(mFamilyName, sizeof(mFamilyName));
  mUsbConfiguration.mLowerDevice = &mLowerDeviceUsb;
  mConfigDesc.SetLowerDevice(&mLowerDeviceUsb);
  SetLowerDevice(&mLowerDeviceUsb);
  InitializeListHead(&mInterfaceList);
  InitializeListHead(&mIadList);
}

Device::~Device() {
  SetLowerDevice(NULL);
  FreeLists();
  KN_ASSERT(mIdleNotificationIrp == NULL);
  // The members go in reverse order; mConfigDesc frees the held set, and the KnBusFdo part
  // destroys any child still in the list.
}

void Device::Lock() {
  mDeviceMutex.Lock();
}

void Device::Unlock() {
  mDeviceMutex.Unlock();
}

NTSTATUS Device::OnAddDevice(PDRIVER_OBJECT, PDEVICE_OBJECT PhysicalDeviceObject) {
  NTSTATUS status = CreateDevice(NULL, FILE_DEVICE_UNKNOWN, FILE_DEVICE_SECURE_OPEN, FALSE, 0);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:Device::OnAddDevice: CreateDevice failed, stat=%N\n", status);
    return status;
  }
  status = mLowerDeviceUsb.AttachToPnpDeviceStack(mDeviceObject, PhysicalDeviceObject);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:DDevice::OnAddDevice: mLowerDevice->AttachToPnpDeviceStack failed, stat=%N\n", status);
    DeleteDevice();
    return status;
  }
  mPnPState = KnPnPState_Added;
  // Buffered I/O like the USB stack below; pageable power handling at PASSIVE_LEVEL. The
  // device may receive requests from here on.
  mDeviceObject->Flags |= DO_BUFFERED_IO | DO_POWER_PAGABLE;
  mDeviceObject->Flags &= ~DO_DEVICE_INITIALIZING;
  return STATUS_SUCCESS;
}

// The functions of a composite device can go without warning, and each child has its own
// user-visible number.
void Device::OnPnpQueryCapabilitiesComplete(PDEVICE_CAPABILITIES Capabilities) {
  Capabilities->SurpriseRemovalOK = TRUE;
  Capabilities->UINumber = 0xFFFFFFFF;
}
