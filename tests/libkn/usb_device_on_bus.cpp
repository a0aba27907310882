#include "usb_device_on_bus.h"

#include <gtest/gtest.h>

#include <wdmsim/io.h>
#include <wdmsim/kernel.h>

#include "support_test_driver.h"

namespace kntest {
namespace {

std::vector<uint8_t> DeviceDescriptor() {
  return {18, 0x01, 0x00, 0x02, 0xFF, 0x00, 0x00, 64, 0x9B, 0x4A, 0x43, 0x00, 0x00, 0x01, 0, 0, 0, 1};
}

}  // namespace

UsbDeviceOnBus::UsbDeviceOnBus(std::vector<UCHAR> configurationSet)
    : mSet(std::move(configurationSet)),
      mFirmware(std::make_shared<wdmsim::UsbFirmware>(wdmsim::UsbDescriptionFromRaw(DeviceDescriptor(), {mSet}))) {
  Plug();
}

UsbDeviceOnBus::UsbDeviceOnBus(std::shared_ptr<wdmsim::UsbFirmware> firmware) : mFirmware(std::move(firmware)) {
  if (!mFirmware->Description().configurations.empty()) mSet = mFirmware->Description().configurations[0];
  Plug();
}

void UsbDeviceOnBus::Plug() {
  mDriver = LoadTestDriver();
  EXPECT_NE(mDriver, nullptr);
  mBus = std::make_unique<wdmsim::UsbTestBus>();
  mPdo = mBus->Attach(mFirmware);
  EXPECT_NE(mPdo, nullptr);
  EXPECT_EQ(IoCreateDevice(mDriver, 0, NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, &mDevice), STATUS_SUCCESS);
  EXPECT_EQ(lower.AttachToPnpDeviceStack(mDevice, mPdo), STATUS_SUCCESS);
}

UsbDeviceOnBus::~UsbDeviceOnBus() {
  EXPECT_EQ(PendingTransfers(), 0u) << "a transfer was left with the stack";
  lower.DetachFromPnpDeviceStack();
  IoDeleteDevice(mDevice);
  mBus.reset();
  EXPECT_TRUE(wdmsim::UnloadDriver(mDriver));
}

void UsbDeviceOnBus::FailNext(USHORT function, NTSTATUS irpStatus, USBD_STATUS urbStatus) {
  wdmsim::UsbFaultPoint point;
  point.fault = wdmsim::UsbFault::FailUrb;
  point.urbFunction = function;
  point.irpStatus = irpStatus;
  point.urbStatus = urbStatus;
  wdmsim::ArmUsbFault(point);
}

wdmsim::UsbPortState UsbDeviceOnBus::Port() const { return wdmsim::GetUsbPortState(mBus->RootHub(), 1); }

void UsbDeviceOnBus::Send(UCHAR endpoint, const std::vector<UCHAR>& data) {
  mFirmware->QueueInData(endpoint, data);
  wdmsim::Kernel::Current()->RunUntilIdle();
}

}  // namespace kntest
