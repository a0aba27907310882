// A test on a simulated machine with a USB bus and the demo device on a root hub port.
#pragma once
#include <map>
#include <memory>

#include <gtest/gtest.h>

#include <wdmsim/kernel.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

#include "usb_bus_requests.h"

namespace usbtest {

class DemoDeviceOnBus : public ::testing::Test {
 protected:
  void SetUp() override {
    firmware = wdmsim::MakeDemoCompositeFirmware();
    bus = std::make_unique<wdmsim::UsbTestBus>();
    pdo = bus->Attach(firmware, kPort);
    ASSERT_NE(nullptr, pdo);
  }
  void TearDown() override { bus.reset(); }

  // Selects configuration index 0 with every interface in setting 0; pipe handles by endpoint.
  std::map<uint8_t, USBD_PIPE_HANDLE> Configure() {
    ConfigurationRequest request(firmware->Description().configurations[0]);
    EXPECT_EQ(STATUS_SUCCESS, SubmitUrb(pdo, request.urb()));
    configuration = request.urb()->UrbSelectConfiguration.ConfigurationHandle;
    std::map<uint8_t, USBD_PIPE_HANDLE> pipes;
    for (size_t i = 0; i < request.count(); ++i) {
      PUSBD_INTERFACE_INFORMATION info = request.Interface(i);
      for (ULONG p = 0; p < info->NumberOfPipes; ++p) pipes[info->Pipes[p].EndpointAddress] = info->Pipes[p].PipeHandle;
    }
    return pipes;
  }

  static constexpr int kPort = 2;
  wdmsim::Kernel kernel;
  std::shared_ptr<wdmsim::UsbFirmware> firmware;
  std::unique_ptr<wdmsim::UsbTestBus> bus;
  PDEVICE_OBJECT pdo = nullptr;
  USBD_CONFIGURATION_HANDLE configuration = nullptr;
};

}  // namespace usbtest
