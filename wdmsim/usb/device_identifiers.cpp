// Identifiers as the Windows hub forms them. A device is composite, and gets the generic
// parent's "USB\COMPOSITE", when its class is 00 (per interface) or EF/02/01 (interface
// associations), it has exactly one configuration and that has more than one interface.
// Otherwise its class (or, for class 00, its first interface's class) gives the
// compatible identifiers. A serial number names the instance only when every character
// is printable ASCII other than a comma, as the hub requires of an instance identifier.
#include "usb/device_identifiers.h"

#include <usb200.h>

#include "usb/bus_model.h"
#include "usb/descriptor_walk.h"

namespace wdmsim {
namespace usb {
namespace {

struct ClassCodes {
  uint8_t cls = 0, subClass = 0, protocol = 0;
};

uint8_t Byte(const std::vector<uint8_t>& bytes, size_t offset) { return offset < bytes.size() ? bytes[offset] : 0; }

std::vector<std::u16string> ClassIds(const std::u16string& prefix, const ClassCodes& codes) {
  std::u16string cls = prefix + Hex(codes.cls, 2);
  std::u16string subClass = cls + u"&SubClass_" + Hex(codes.subClass, 2);
  return {subClass + u"&Prot_" + Hex(codes.protocol, 2), subClass, cls};
}

ClassCodes FirstInterfaceClass(const std::vector<uint8_t>& set) {
  ClassCodes codes;
  bool found = false;
  WalkConfigurationSet(set.data(), set.size(), [&](const DescriptorView& d) {
    if (!found && d.type() == USB_INTERFACE_DESCRIPTOR_TYPE && d.length() >= 9) {
      codes = {d.bytes[5], d.bytes[6], d.bytes[7]};
      found = true;
    }
  });
  return codes;
}

bool UsableSerialNumber(const std::u16string& serial) {
  if (serial.empty()) return false;
  for (char16_t c : serial) {
    if (c < 0x20 || c > 0x7F || c == u',') return false;
  }
  return true;
}

std::u16string ProductText(const UsbDeviceDescription& description) {
  const uint8_t iProduct = Byte(description.device, 15);
  if (iProduct == 0 || description.languages.empty()) return std::u16string();
  const std::u16string* text = description.FindString(iProduct, description.languages.front());
  return text != nullptr ? *text : std::u16string();
}

}  // namespace

UsbDeviceIdentifiers IdentifyUsbDevice(const UsbDeviceDescription& description, int hub, int port) {
  UsbDeviceIdentifiers ids;
  ids.deviceId = u"USB\\VID_" + Hex(description.VendorId(), 4) + u"&PID_" + Hex(description.ProductId(), 4);
  const unsigned revision = Byte(description.device, 12) | (Byte(description.device, 13) << 8);
  ids.hardwareIds = {ids.deviceId + u"&REV_" + Hex(revision, 4), ids.deviceId};

  const ClassCodes device{Byte(description.device, 4), Byte(description.device, 5), Byte(description.device, 6)};
  const bool perInterface = device.cls == 0x00;
  const bool associations = device.cls == 0xEF && device.subClass == 0x02 && device.protocol == 0x01;
  const std::vector<uint8_t> noSet;
  const std::vector<uint8_t>& first = description.configurations.empty() ? noSet : description.configurations[0];
  ids.composite = (perInterface || associations) && description.NumConfigurations() == 1 &&
                  description.configurations.size() == 1 && Byte(first, 4) > 1;
  if (ids.composite) {
    ids.compatibleIds = ClassIds(u"USB\\DevClass_", device);
    ids.compatibleIds.push_back(u"USB\\COMPOSITE");
  } else {
    ids.compatibleIds = ClassIds(u"USB\\Class_", perInterface ? FirstInterfaceClass(first) : device);
  }

  const std::optional<std::u16string> serial = description.SerialNumber();
  ids.uniqueInstance = serial && UsableSerialNumber(*serial);
  if (ids.uniqueInstance) {
    ids.instanceId = *serial;
  } else {
    // Only unique below its hub (UniqueID is clear): the PnP manager puts the hub's prefix
    // in front, so the instance stays stable across re-plugs into the same port.
    ids.instanceId = Decimal(static_cast<unsigned>(port));
  }

  ids.description = ProductText(description);
  if (ids.description.empty()) {
    ids.description = device.cls == 0x09 ? u"Generic USB Hub" : ids.composite ? u"USB Composite Device" : u"USB Device";
  }
  ids.location = u"Port_#" + Decimal(static_cast<unsigned>(port), 4) + u".Hub_#" + Decimal(static_cast<unsigned>(hub), 4);
  return ids;
}

}  // namespace usb
}  // namespace wdmsim
