// UsbDescriptionBuilder: descriptors are appended as bytes; the counts and lengths that
// depend on what follows are filled in by Build().
#include <wdmsim/usbdevice.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "usb/descriptor_walk.h"

#include <usb200.h>

namespace wdmsim {

namespace {

constexpr uint8_t kCsInterface = 0x24;

void Fail(const char* what) {
  // A builder misuse is a bug in the test that composes the device, not device behaviour.
  std::fprintf(stderr, "UsbDescriptionBuilder: %s\n", what);
  std::abort();
}

}  // namespace

UsbDescriptionBuilder::UsbDescriptionBuilder(uint16_t vendorId, uint16_t productId)
    : mDevice{18, USB_DEVICE_DESCRIPTOR_TYPE, 0x00, 0x02, USB_DEVICE_CLASS_MISCELLANEOUS, 0x02, 0x01, 64,
              0, 0, 0, 0, 0x00, 0x01, 0, 0, 0, 0},
      mLanguages{0x0409} {
  usb::WriteLe16(&mDevice[8], vendorId);
  usb::WriteLe16(&mDevice[10], productId);
}

UsbDescriptionBuilder& UsbDescriptionBuilder::Name(const std::string& name) {
  mName = name;
  return *this;
}

UsbDescriptionBuilder& UsbDescriptionBuilder::DeviceClass(uint8_t cls, uint8_t subClass, uint8_t protocol) {
  mDevice[4] = cls;
  mDevice[5] = subClass;
  mDevice[6] = protocol;
  return *this;
}

UsbDescriptionBuilder& UsbDescriptionBuilder::UsbVersion(uint16_t bcdUsb) {
  usb::WriteLe16(&mDevice[2], bcdUsb);
  return *this;
}

UsbDescriptionBuilder& UsbDescriptionBuilder::DeviceRelease(uint16_t bcdDevice) {
  usb::WriteLe16(&mDevice[12], bcdDevice);
  return *this;
}

UsbDescriptionBuilder& UsbDescriptionBuilder::MaxPacketSize0(uint8_t size) {
  mDevice[7] = size;
  return *this;
}

UsbDescriptionBuilder& UsbDescriptionBuilder::Manufacturer(const std::u16string& text) {
  mDevice[14] = StringIndex(text);
  return *this;
}

UsbDescriptionBuilder& UsbDescriptionBuilder::Product(const std::u16string& text) {
  mDevice[15] = StringIndex(text);
  return *this;
}

UsbDescriptionBuilder& UsbDescriptionBuilder::SerialNumber(const std::u16string& text) {
  mDevice[16] = StringIndex(text);
  return *this;
}

UsbDescriptionBuilder& UsbDescriptionBuilder::Languages(const std::vector<uint16_t>& languages) {
  mLanguages = languages;
  return *this;
}

UsbDescriptionBuilder& UsbDescriptionBuilder::Configuration(uint8_t value, uint8_t attributes,
                                                            uint32_t maxPowerMilliamps,
                                                            const std::u16string& text) {
  if (maxPowerMilliamps > 510) {
    Fail("bMaxPower holds at most 510 mA");
  }
  const uint8_t textIndex = StringIndex(text);
  mConfigurations.push_back({9, USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, 0, 0, value, textIndex, attributes,
                             static_cast<uint8_t>(maxPowerMilliamps / 2)});
  return *this;
}

UsbDescriptionBuilder& UsbDescriptionBuilder::Iad(uint8_t firstInterface, uint8_t count, uint8_t cls,
                                                  uint8_t subClass, uint8_t protocol,
                                                  const std::u16string& text) {
  return Descriptor({8, USB_INTERFACE_ASSOCIATION_DESCRIPTOR_TYPE, firstInterface, count, cls, subClass,
                     protocol, StringIndex(text)});
}

UsbDescriptionBuilder& UsbDescriptionBuilder::Interface(uint8_t number, uint8_t alternate, uint8_t cls,
                                                        uint8_t subClass, uint8_t protocol,
                                                        const std::u16string& text) {
  return Descriptor(
      {9, USB_INTERFACE_DESCRIPTOR_TYPE, number, alternate, 0, cls, subClass, protocol, StringIndex(text)});
}

UsbDescriptionBuilder& UsbDescriptionBuilder::Endpoint(uint8_t address, uint8_t attributes,
                                                       uint16_t maxPacketSize, uint8_t interval) {
  return Descriptor({7, USB_ENDPOINT_DESCRIPTOR_TYPE, address, attributes, static_cast<uint8_t>(maxPacketSize),
                     static_cast<uint8_t>(maxPacketSize >> 8), interval});
}

UsbDescriptionBuilder& UsbDescriptionBuilder::BulkIn(uint8_t address, uint16_t maxPacketSize) {
  return Endpoint(static_cast<uint8_t>(address | 0x80), kUsbEndpointBulk, maxPacketSize, 0);
}

UsbDescriptionBuilder& UsbDescriptionBuilder::BulkOut(uint8_t address, uint16_t maxPacketSize) {
  return Endpoint(static_cast<uint8_t>(address & 0x7F), kUsbEndpointBulk, maxPacketSize, 0);
}

UsbDescriptionBuilder& UsbDescriptionBuilder::InterruptIn(uint8_t address, uint16_t maxPacketSize,
                                                          uint8_t interval) {
  return Endpoint(static_cast<uint8_t>(address | 0x80), kUsbEndpointInterrupt, maxPacketSize, interval);
}

UsbDescriptionBuilder& UsbDescriptionBuilder::Descriptor(const std::vector<uint8_t>& bytes) {
  auto& set = CurrentSet();
  set.insert(set.end(), bytes.begin(), bytes.end());
  return *this;
}

UsbDescriptionBuilder& UsbDescriptionBuilder::CdcHeader(uint16_t bcdCdc) {
  return Descriptor(CdcHeaderDescriptor(bcdCdc));
}

UsbDescriptionBuilder& UsbDescriptionBuilder::CdcCallManagement(uint8_t capabilities, uint8_t dataInterface) {
  return Descriptor(CdcCallManagementDescriptor(capabilities, dataInterface));
}

UsbDescriptionBuilder& UsbDescriptionBuilder::CdcAcm(uint8_t capabilities) {
  return Descriptor(CdcAcmDescriptor(capabilities));
}

UsbDescriptionBuilder& UsbDescriptionBuilder::CdcUnion(uint8_t controlInterface,
                                                       const std::vector<uint8_t>& subordinates) {
  return Descriptor(CdcUnionDescriptor(controlInterface, subordinates));
}

UsbDescriptionBuilder& UsbDescriptionBuilder::CdcEthernet(const std::u16string& macAddress,
                                                          uint16_t maxSegmentSize) {
  // Ethernet Networking functional descriptor: no statistics, no multicast filters, no
  // power filters.
  return Descriptor({13, kCsInterface, 0x0F, StringIndex(macAddress), 0, 0, 0, 0,
                     static_cast<uint8_t>(maxSegmentSize), static_cast<uint8_t>(maxSegmentSize >> 8), 0, 0, 0});
}

uint8_t UsbDescriptionBuilder::StringIndex(const std::u16string& text) {
  if (text.empty()) {
    return 0;
  }
  auto it = std::find(mTexts.begin(), mTexts.end(), text);
  if (it != mTexts.end()) {
    return static_cast<uint8_t>(it - mTexts.begin() + 1);
  }
  if (mTexts.size() == 255) {
    Fail("more than 255 strings");
  }
  mTexts.push_back(text);
  return static_cast<uint8_t>(mTexts.size());
}

std::vector<uint8_t>& UsbDescriptionBuilder::CurrentSet() {
  if (mConfigurations.empty()) {
    Fail("a descriptor before the first Configuration()");
  }
  return mConfigurations.back();
}

UsbDeviceDescription UsbDescriptionBuilder::Build() const {
  UsbDeviceDescription description;
  description.name = mName;
  description.device = mDevice;
  description.device[17] = static_cast<uint8_t>(mConfigurations.size());
  description.languages = mLanguages;
  for (size_t i = 0; i < mTexts.size(); ++i) {
    description.SetString(static_cast<uint8_t>(i + 1), mTexts[i]);
  }

  for (std::vector<uint8_t> set : mConfigurations) {
    if (set.size() > 0xFFFF) {
      Fail("a configuration set larger than wTotalLength can say");
    }
    usb::WriteLe16(&set[2], static_cast<uint16_t>(set.size()));
    std::vector<uint8_t> interfaceNumbers;
    size_t currentInterface = 0;  // offset of the interface descriptor endpoints count toward
    // A deliberately odd descriptor stays as given; the counts cover what comes before it.
    usb::WalkConfigurationSet(set.data(), set.size(), [&](const usb::DescriptorView& d) {
      if (d.type() == USB_INTERFACE_DESCRIPTOR_TYPE && d.length() >= 9) {
        currentInterface = d.offset;
        set[d.offset + 4] = 0;
        if (std::find(interfaceNumbers.begin(), interfaceNumbers.end(), d.bytes[2]) == interfaceNumbers.end()) {
          interfaceNumbers.push_back(d.bytes[2]);
        }
      } else if (d.type() == USB_ENDPOINT_DESCRIPTOR_TYPE && currentInterface != 0) {
        ++set[currentInterface + 4];
      }
    });
    set[4] = static_cast<uint8_t>(interfaceNumbers.size());
    description.configurations.push_back(std::move(set));
  }
  return description;
}

std::vector<uint8_t> CdcHeaderDescriptor(uint16_t bcdCdc) {
  return {5, kCsInterface, 0x00, static_cast<uint8_t>(bcdCdc), static_cast<uint8_t>(bcdCdc >> 8)};
}

std::vector<uint8_t> CdcCallManagementDescriptor(uint8_t capabilities, uint8_t dataInterface) {
  return {5, kCsInterface, 0x01, capabilities, dataInterface};
}

std::vector<uint8_t> CdcAcmDescriptor(uint8_t capabilities) { return {4, kCsInterface, 0x02, capabilities}; }

std::vector<uint8_t> CdcUnionDescriptor(uint8_t controlInterface, const std::vector<uint8_t>& subordinates) {
  std::vector<uint8_t> bytes{static_cast<uint8_t>(4 + subordinates.size()), kCsInterface, 0x06, controlInterface};
  bytes.insert(bytes.end(), subordinates.begin(), subordinates.end());
  return bytes;
}

}  // namespace wdmsim
