// The built-in demo composite device: the layout the driver is made for (an RNDIS and a
// CDC ACM function behind IADs, a vendor function and the notification interface), in a
// high-power and a low-power configuration so that the choice by hub power shows.
#include <wdmsim/usbdevice.h>

#include <usb200.h>

namespace wdmsim {

namespace {

constexpr uint8_t kCdcAbstractControl = 0x02;
constexpr uint8_t kCdcAcmAtCommands = 0x01;
constexpr uint8_t kVendorSpecificProtocol = 0xFF;
constexpr uint8_t kMiscRndisSubClass = 0x04;  // IAD function class EF/04/01: RNDIS over Ethernet
constexpr uint8_t kMiscRndisProtocol = 0x01;
constexpr uint8_t kAcmLineCodingAndState = 0x02;  // ACM capability: SET/GET_LINE_CODING, SET_CONTROL_LINE_STATE
constexpr uint8_t kNotificationSubClass = 0x01;   // vendor FF/01/00: the device notification interface
constexpr uint8_t kHighSpeedInterval32ms = 9;     // 2^(9-1) microframes

constexpr uint8_t kBusPowered = USB_CONFIG_BUS_POWERED;  // bit 7 is set in every configuration

void AcmFunction(UsbDescriptionBuilder& b, uint8_t control, uint8_t notifyIn, uint8_t dataIn, uint8_t dataOut) {
  const uint8_t data = static_cast<uint8_t>(control + 1);
  b.Iad(control, 2, USB_DEVICE_CLASS_COMMUNICATIONS, kCdcAbstractControl, kCdcAcmAtCommands, u"CDC Serial")
      .Interface(control, 0, USB_DEVICE_CLASS_COMMUNICATIONS, kCdcAbstractControl, kCdcAcmAtCommands,
                 u"CDC ACM Control")
      .CdcHeader(0x0110)
      .CdcCallManagement(0x00, data)
      .CdcAcm(kAcmLineCodingAndState)
      .CdcUnion(control, {data})
      .InterruptIn(notifyIn, 16, kHighSpeedInterval32ms)
      .Interface(data, 0, USB_DEVICE_CLASS_CDC_DATA, 0x00, 0x00, u"CDC ACM Data")
      .BulkIn(dataIn)
      .BulkOut(dataOut);
}

void NotificationInterface(UsbDescriptionBuilder& b, uint8_t number, uint8_t interruptIn) {
  b.Interface(number, 0, USB_DEVICE_CLASS_VENDOR_SPECIFIC, kNotificationSubClass, 0x00, u"Device Notification")
      .InterruptIn(interruptIn, 4, kHighSpeedInterval32ms);
}

}  // namespace

UsbDeviceDescription DemoCompositeDevice() {
  UsbDescriptionBuilder b(kDemoVendorId, kDemoProductId);
  b.Name("demo composite device")
      .DeviceClass(USB_DEVICE_CLASS_MISCELLANEOUS, 0x02, 0x01)
      .DeviceRelease(0x0442)
      .Manufacturer(u"wdmsim")
      .Product(u"wdmsim Demo Composite Device")
      .SerialNumber(u"WDMSIM-DEMO-0001")
      .Languages({0x0409});

  b.Configuration(1, kBusPowered | USB_CONFIG_REMOTE_WAKEUP, 500, u"High power: RNDIS, serial, vendor")
      .Iad(0, 2, USB_DEVICE_CLASS_MISCELLANEOUS, kMiscRndisSubClass, kMiscRndisProtocol, u"RNDIS Network")
      .Interface(0, 0, USB_DEVICE_CLASS_COMMUNICATIONS, kCdcAbstractControl, kVendorSpecificProtocol,
                 u"RNDIS Communications Control")
      .CdcHeader(0x0110)
      .CdcCallManagement(0x00, 1)
      .CdcAcm(0x00)
      .CdcUnion(0, {1})
      .InterruptIn(0x81, 8, kHighSpeedInterval32ms)
      .Interface(1, 0, USB_DEVICE_CLASS_CDC_DATA, 0x00, 0x00, u"RNDIS Ethernet Data")
      .BulkIn(0x82)
      .BulkOut(0x01);
  AcmFunction(b, 2, 0x83, 0x84, 0x02);
  b.Interface(4, 0, USB_DEVICE_CLASS_VENDOR_SPECIFIC, 0xFF, 0x00, u"Vendor Bulk Function").BulkIn(0x85).BulkOut(0x03);
  NotificationInterface(b, 5, 0x86);

  b.Configuration(2, kBusPowered | USB_CONFIG_SELF_POWERED | USB_CONFIG_REMOTE_WAKEUP, 100,
                  u"Low power: serial only");
  AcmFunction(b, 0, 0x81, 0x82, 0x01);
  NotificationInterface(b, 2, 0x83);
  return b.Build();
}

std::unique_ptr<UsbFirmware> MakeDemoCompositeFirmware() {
  auto firmware = std::make_unique<UsbFirmware>(DemoCompositeDevice());
  // Device notification protocol: the suspend query answers "idle", the continue notice is
  // taken; both exist addressed to the interface and, on devices without it, the device.
  constexpr uint8_t kSuspendQuery = 0xF0;
  constexpr uint8_t kContinueNotice = 0xF1;
  firmware->SetRequestAnswer(0xC1, kSuspendQuery, UsbRequestAnswer::Reply({0, 0, 0, 0}));
  firmware->SetRequestAnswer(0xC0, kSuspendQuery, UsbRequestAnswer::Reply({0, 0, 0, 0}));
  firmware->SetRequestAnswer(0x41, kContinueNotice, UsbRequestAnswer::Accept());
  firmware->SetRequestAnswer(0x40, kContinueNotice, UsbRequestAnswer::Accept());
  // CDC ACM line control (class, interface recipient).
  constexpr uint8_t kSetLineCoding = 0x20;
  constexpr uint8_t kGetLineCoding = 0x21;
  constexpr uint8_t kSetControlLineState = 0x22;
  firmware->SetRequestAnswer(0x21, kSetLineCoding, UsbRequestAnswer::Accept());
  firmware->SetRequestAnswer(0xA1, kGetLineCoding, UsbRequestAnswer::Reply({0x00, 0xC2, 0x01, 0x00, 0, 0, 8}));
  firmware->SetRequestAnswer(0x21, kSetControlLineState, UsbRequestAnswer::Accept());
  return firmware;
}

}  // namespace wdmsim
