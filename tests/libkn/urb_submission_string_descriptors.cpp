// Descriptor requests against devices on the simulated USB bus: the device descriptor's
// length check, the language a string is read in, and strings that are always terminated.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdmsim/usbdevice.h>

#include <usb200.h>

#include "support_test_driver.h"
#include "usb_device_on_bus.h"

namespace {

using Bytes = std::vector<UCHAR>;

constexpr char16_t kText[] = u"Composite Device";

// A device whose string descriptor 0 is only its 2-byte header: a table without a language.
class EmptyLanguageTable : public wdmsim::UsbFirmware {
 public:
  using UsbFirmware::UsbFirmware;

 protected:
  wdmsim::UsbTransferResult OnStandardRequest(const wdmsim::UsbSetupPacket& setup, uint8_t* data) override {
    if (setup.bRequest == USB_REQUEST_GET_DESCRIPTOR && setup.wValue == USB_STRING_DESCRIPTOR_TYPE << 8) {
      const Bytes table = {2, USB_STRING_DESCRIPTOR_TYPE};
      const uint16_t length = setup.wLength < table.size() ? setup.wLength : table.size();
      std::copy(table.begin(), table.begin() + length, data);
      return wdmsim::UsbTransferResult::Done(length);
    }
    return UsbFirmware::OnStandardRequest(setup, data);
  }
};

// kText at index 1 and an empty string at index 2, in every language of the table.
wdmsim::UsbDeviceDescription Stick(const std::vector<uint16_t>& languages) {
  wdmsim::UsbDescriptionBuilder builder(0x4A9B, 0x0072);
  builder.DeviceClass(0xFF, 0, 0).Languages(languages).Product(kText).Manufacturer(u"-");
  builder.Configuration(1, 0x80, 100).Interface(0, 0, 0xFF, 0, 0);
  wdmsim::UsbDeviceDescription description = builder.Build();
  description.SetString(2, u"");
  return description;
}

class DescriptorRequests : public kntest::FrameworkTest {
 protected:
  void Plug(std::shared_ptr<wdmsim::UsbFirmware> firmware) {
    mDevice.reset();  // one bus at a time
    mDevice = std::make_unique<kntest::UsbDeviceOnBus>(std::move(firmware));
  }
  void TearDown() override { mDevice.reset(); }
  // The control requests the device processed since the last call.
  std::vector<wdmsim::UsbSetupPacket> TakeSetups() {
    std::vector<wdmsim::UsbSetupPacket> setups;
    for (const auto& record : mDevice->firmware().TakeControlLog()) setups.push_back(record.setup);
    return setups;
  }

  std::unique_ptr<kntest::UsbDeviceOnBus> mDevice;
};

TEST_F(DescriptorRequests, LanguageIsTheRequestedOneWhenListedElseTheFirst) {
  enum class Table { GermanAndEnglish, Empty, None };
  struct Case {
    const char* name;
    Table table;
    USHORT requested;
    USHORT used;
  } cases[] = {
      {"listed second", Table::GermanAndEnglish, 0x0407, 0x0407},
      {"listed first", Table::GermanAndEnglish, 0x0409, 0x0409},
      {"language 0: the first", Table::GermanAndEnglish, 0, 0x0409},
      {"not listed: the first", Table::GermanAndEnglish, 0x0411, 0x0409},
      {"a table without entries: language 0", Table::Empty, 0x0407, 0},
      {"no table at all (it stalls): language 0", Table::None, 0x0407, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    switch (c.table) {
      case Table::GermanAndEnglish:
        Plug(std::make_shared<wdmsim::UsbFirmware>(Stick({0x0409, 0x0407})));
        break;
      case Table::Empty:
        Plug(std::make_shared<EmptyLanguageTable>(Stick({0x0409})));
        break;
      case Table::None:
        Plug(std::make_shared<wdmsim::UsbFirmware>(Stick({})));
        break;
    }
    TakeSetups();
    Bytes buffer(64, 0xEE);
    ULONG received = 0;
    const NTSTATUS status = mDevice->lower.GetStringDescriptor(1, c.requested, buffer.data(), 64, &received, 2500);
    const auto setups = TakeSetups();
    ASSERT_EQ(2u, setups.size());
    EXPECT_EQ(USB_STRING_DESCRIPTOR_TYPE << 8, setups[0].wValue);  // the table first
    EXPECT_EQ(c.requested, setups[0].wIndex);
    EXPECT_EQ((USB_STRING_DESCRIPTOR_TYPE << 8) | 1, setups[1].wValue);
    EXPECT_EQ(c.used, setups[1].wIndex);
    EXPECT_EQ(64, setups[1].wLength);
    if (c.used == 0) {
      EXPECT_EQ(STATUS_UNSUCCESSFUL, status);  // the device has no strings in language 0
      continue;
    }
    EXPECT_EQ(STATUS_SUCCESS, status);
    EXPECT_EQ(2 + 2 * std::u16string(kText).size(), received);
    EXPECT_EQ('C', buffer[2]);
  }
}

TEST_F(DescriptorRequests, GetStringIsAlwaysTerminatedWithinTheDestination) {
  Plug(std::make_shared<wdmsim::UsbFirmware>(Stick({0x0409})));
  TakeSetups();
  WCHAR small[8];
  for (WCHAR& c : small) c = 0xAAAA;
  EXPECT_EQ(STATUS_SUCCESS, mDevice->lower.GetString(1, 0x0409, small, sizeof(small), 2500));
  EXPECT_EQ(std::u16string(u"Composi"), std::u16string(reinterpret_cast<char16_t*>(small)));
  EXPECT_EQ(0, small[7]);
  auto setups = TakeSetups();
  ASSERT_EQ(2u, setups.size());
  EXPECT_EQ(16, setups[1].wLength);

  WCHAR large[200];
  EXPECT_EQ(STATUS_SUCCESS, mDevice->lower.GetString(1, 0x0409, large, sizeof(large), 2500));
  EXPECT_EQ(std::u16string(kText), std::u16string(reinterpret_cast<char16_t*>(large)));
  setups = TakeSetups();
  ASSERT_EQ(2u, setups.size());
  EXPECT_EQ(255, setups[1].wLength);

  // Only the 2 header bytes: an empty string, and success.
  for (WCHAR& c : small) c = 0xAAAA;
  EXPECT_EQ(STATUS_SUCCESS, mDevice->lower.GetString(2, 0x0409, small, sizeof(small), 2500));
  for (WCHAR c : small) EXPECT_EQ(0, c);

  // A string the device lacks stalls: the caller hears of it and gets an empty string.
  for (WCHAR& c : small) c = 0xAAAA;
  TakeTrace();
  EXPECT_EQ(STATUS_UNSUCCESSFUL, mDevice->lower.GetString(0xEE, 0x0409, small, sizeof(small), 2500));
  EXPECT_NE(std::string::npos, TakeTrace().find("SubmitUrbAndWait: CallDriverAndWait failed"));
  for (WCHAR c : small) EXPECT_EQ(0, c);
}

TEST_F(DescriptorRequests, DeviceDescriptorMustBeExactlyEighteenBytes) {
  const Bytes device = Stick({0x0409}).device;
  const Bytes set = Stick({0x0409}).configurations[0];
  struct Case {
    size_t length;  // of the device descriptor the device holds
    NTSTATUS expected;
  } cases[] = {{17, STATUS_UNSUCCESSFUL}, {18, STATUS_SUCCESS}, {19, STATUS_SUCCESS}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.length);
    Bytes held = device;
    held.resize(c.length, 0x5A);
    Plug(std::make_shared<wdmsim::UsbFirmware>(wdmsim::UsbDescriptionFromRaw(held, {set})));
    TakeSetups();
    USB_DEVICE_DESCRIPTOR descriptor;
    EXPECT_EQ(c.expected, mDevice->lower.GetDeviceDescriptor(&descriptor, 2500));
    const auto setups = TakeSetups();
    ASSERT_EQ(1u, setups.size());
    EXPECT_EQ(USB_DEVICE_DESCRIPTOR_TYPE << 8, setups[0].wValue);
    EXPECT_EQ(18, setups[0].wLength);
    if (c.expected == STATUS_SUCCESS) {
      EXPECT_EQ(0x0072, descriptor.idProduct);
    }
  }
}

}  // namespace
