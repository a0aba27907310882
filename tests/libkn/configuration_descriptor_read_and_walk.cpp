// The configuration descriptor holder: the two-step read from a device on the simulated USB
// bus with its size checks (devices whose sets are malformed on purpose included), and walks
// that never look beyond the bytes held.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdmsim/pool.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

#include <usb200.h>

#include "knusbconfigurationdesc.h"
#include "support_test_driver.h"
#include "usb_device_on_bus.h"

namespace {

using Bytes = std::vector<UCHAR>;

constexpr ULONG kUsbcTag = 0x43425355;
constexpr ULONG kTestTag = 0x54736554;  // "TesT"
constexpr UCHAR kSentinelType = 0x77;

Bytes Interface(UCHAR number, UCHAR alternate, UCHAR cls, UCHAR sub, UCHAR protocol) {
  return {9, USB_INTERFACE_DESCRIPTOR_TYPE, number, alternate, 1, cls, sub, protocol, 0};
}

// A configuration descriptor announcing totalLength, followed by body.
Bytes ConfigurationSet(uint16_t totalLength, const Bytes& body) {
  Bytes set = {9, USB_CONFIGURATION_DESCRIPTOR_TYPE, UCHAR(totalLength), UCHAR(totalLength >> 8), 2, 1, 0, 0x80, 50};
  set.insert(set.end(), body.begin(), body.end());
  return set;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

// A device whose answer changes between reads: the 9-byte header comes as described, a
// longer read of a configuration set brings only fullReadBytes bytes, or stalls (negative).
class ChangingAnswerFirmware : public wdmsim::UsbFirmware {
 public:
  ChangingAnswerFirmware(wdmsim::UsbDeviceDescription description, int fullReadBytes)
      : UsbFirmware(std::move(description)), mFullReadBytes(fullReadBytes) {}

 protected:
  wdmsim::UsbTransferResult OnStandardRequest(const wdmsim::UsbSetupPacket& setup, uint8_t* data) override {
    const bool wholeSet = setup.bRequest == USB_REQUEST_GET_DESCRIPTOR &&
                          setup.wValue >> 8 == USB_CONFIGURATION_DESCRIPTOR_TYPE && setup.wLength > 9;
    if (!wholeSet) return UsbFirmware::OnStandardRequest(setup, data);
    if (mFullReadBytes < 0) return wdmsim::UsbTransferResult::Stall();
    const Bytes& set = Description().configurations[0];
    const size_t length = std::min<size_t>({set.size(), size_t(mFullReadBytes), setup.wLength});
    std::copy(set.begin(), set.begin() + length, data);
    return wdmsim::UsbTransferResult::Done(static_cast<uint32_t>(length));
  }

 private:
  const int mFullReadBytes;
};

class ConfigurationDescriptorTest : public kntest::FrameworkTest {
 protected:
  void Plug(std::shared_ptr<wdmsim::UsbFirmware> firmware) {
    mHolder.Release();
    mDevice.reset();  // one bus at a time
    mDevice = std::make_unique<kntest::UsbDeviceOnBus>(std::move(firmware));
    mHolder.SetLowerDevice(&mDevice->lower);
  }
  void Plug(const Bytes& set) { Plug(std::make_shared<wdmsim::UsbFirmware>(RawDevice(set))); }
  static wdmsim::UsbDeviceDescription RawDevice(const Bytes& set) {
    Bytes device = {18, 0x01, 0x00, 0x02, 0xFF, 0x00, 0x00, 64, 0x9B, 0x4A, 0x73, 0x00, 0x00, 0x01, 0, 0, 0, 1};
    return wdmsim::UsbDescriptionFromRaw(device, {set});
  }
  // A set in pool memory, for Attach.
  static PUSB_CONFIGURATION_DESCRIPTOR PoolCopy(const Bytes& set) {
    auto* copy = static_cast<PUSB_CONFIGURATION_DESCRIPTOR>(ExAllocatePoolWithTag(NonPagedPool, set.size(), kTestTag));
    std::copy(set.begin(), set.end(), reinterpret_cast<UCHAR*>(copy));
    return copy;
  }
  void TearDown() override {
    mHolder.Release();
    mDevice.reset();
  }

  std::unique_ptr<kntest::UsbDeviceOnBus> mDevice;
  KnUsbConfigurationDesc mHolder;
};

TEST_F(ConfigurationDescriptorTest, ReadsTheSetOfTheGivenIndexInTwoSteps) {
  Plug(wdmsim::MakeDemoCompositeFirmware());
  const Bytes& second = mDevice->firmware().Description().configurations[1];
  mDevice->firmware().TakeControlLog();
  ASSERT_EQ(STATUS_SUCCESS, mHolder.GetAndAllocate(1, 2500));
  ASSERT_EQ(second.size(), mHolder.GetLength());
  const auto* held = reinterpret_cast<const UCHAR*>(mHolder.GetDescriptor());
  EXPECT_EQ(second, Bytes(held, held + mHolder.GetLength()));
  EXPECT_EQ(1u, wdmsim::LivePoolBlockCount(kUsbcTag));
  const auto log = mDevice->firmware().TakeControlLog();
  ASSERT_EQ(2u, log.size());
  for (const auto& record : log) EXPECT_EQ((USB_CONFIGURATION_DESCRIPTOR_TYPE << 8) | 1, record.setup.wValue);
  EXPECT_EQ(9, log[0].setup.wLength);
  EXPECT_EQ(second.size(), log[1].setup.wLength);
}

TEST_F(ConfigurationDescriptorTest, SizeChecksAcceptFullSetsAndRejectShortOrOversizedOnes) {
  constexpr int kAsDescribed = 0x10000, kStalled = -1;
  struct Case {
    const char* name;
    Bytes set;
    int fullReadBytes;  // what the read of the whole set brings
    NTSTATUS expected;
    ULONG expectedLength;
    const char* trace;
  } cases[] = {
      {"4096 bytes", ConfigurationSet(4096, Bytes(4096 - 9, 0)), kAsDescribed, STATUS_SUCCESS, 4096, nullptr},
      {"4097 bytes", ConfigurationSet(4097, Bytes(4097 - 9, 0)), kAsDescribed, STATUS_UNSUCCESSFUL, 0,
       "KnUsbConfiguration::GetAndAllocate: Invalid configuration descriptor length 4097"},
      {"header of 8 bytes", Bytes{9, 2, 9, 0, 0, 1, 0, 0x80}, kAsDescribed, STATUS_UNSUCCESSFUL, 0,
       "KnUsbConfigurationDesc::GetAndAllocate: Invalid length 8"},
      {"wTotalLength 0", ConfigurationSet(0, {}), kAsDescribed, STATUS_UNSUCCESSFUL, 0, "shorter than the header"},
      {"wTotalLength 8", ConfigurationSet(8, {}), kAsDescribed, STATUS_UNSUCCESSFUL, 0, "shorter than the header"},
      {"wTotalLength 9", ConfigurationSet(9, {}), kAsDescribed, STATUS_SUCCESS, 9, nullptr},
      {"fewer bytes than announced", ConfigurationSet(27, Interface(0, 0, 2, 2, 1)), kAsDescribed, STATUS_SUCCESS, 18,
       "Device returned invalid descriptor"},
      {"whole set stalled", ConfigurationSet(18, Interface(0, 0, 2, 2, 1)), kStalled, STATUS_UNSUCCESSFUL, 0,
       "KnUsbConfigurationDesc::GetAndAllocate: Get Config Descriptor failed"},
      {"whole set shorter than the header", ConfigurationSet(18, Interface(0, 0, 2, 2, 1)), 5, STATUS_UNSUCCESSFUL, 0,
       "only 5 bytes received, shorter than the header"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Plug(std::make_shared<ChangingAnswerFirmware>(RawDevice(c.set), c.fullReadBytes));
    TakeTrace();
    EXPECT_EQ(c.expected, mHolder.GetAndAllocate(0, 2500));
    EXPECT_EQ(c.expectedLength, mHolder.GetLength());
    EXPECT_EQ(c.expected == STATUS_SUCCESS, mHolder.GetDescriptor() != nullptr);
    EXPECT_EQ(c.expected == STATUS_SUCCESS ? 1u : 0u, wdmsim::LivePoolBlockCount(kUsbcTag));
    std::string trace = TakeTrace();
    if (c.trace != nullptr) {
      EXPECT_NE(std::string::npos, trace.find(c.trace)) << trace;
    }
  }
}

TEST_F(ConfigurationDescriptorTest, FailedReadsLeaveTheHolderEmpty) {
  Plug(ConfigurationSet(18, Interface(0, 0, 2, 2, 1)));
  ASSERT_EQ(STATUS_SUCCESS, mHolder.GetAndAllocate(0, 2500));

  // The header read fails: what was held before is gone as well.
  mDevice->FailNext(URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, STATUS_DEVICE_NOT_CONNECTED, USBD_STATUS_DEVICE_GONE);
  TakeTrace();
  EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, mHolder.GetAndAllocate(0, 2500));
  EXPECT_EQ(1, wdmsim::UsbFaultHits(wdmsim::UsbFault::FailUrb));
  EXPECT_EQ(nullptr, mHolder.GetDescriptor());
  EXPECT_EQ(0u, mHolder.GetLength());
  EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(kUsbcTag));
  EXPECT_NE(std::string::npos,
            TakeTrace().find("KnUsbConfigurationDesc::SetConfiguration: Get Config Descriptor failed"));

  // No memory for the set: the whole set is never asked for.
  mDevice->firmware().TakeControlLog();
  wdmsim::FailPoolAllocationsWithTag(kUsbcTag);
  EXPECT_EQ(STATUS_NO_MEMORY, mHolder.GetAndAllocate(0, 2500));
  wdmsim::ClearPoolFaults();
  EXPECT_EQ(nullptr, mHolder.GetDescriptor());
  EXPECT_EQ(1u, mDevice->firmware().TakeControlLog().size());
  EXPECT_NE(std::string::npos,
            TakeTrace().find("KnUsbConfiguration::GetAndAllocate: Allocate Conf Descriptor failed: 18"));
}

TEST_F(ConfigurationDescriptorTest, WalksStopAtTheEndAtZeroLengthsAndAtDescriptorsThatDoNotFit) {
  // Received: configuration, interface 0, a sentinel, interface 1; announced longer still.
  Bytes body = Concat({Interface(0, 0, 2, 2, 1), Bytes{3, kSentinelType, 0}, Interface(1, 0, 0x0A, 0, 0)});
  Plug(ConfigurationSet(200, body));
  ASSERT_EQ(STATUS_SUCCESS, mHolder.GetAndAllocate(0, 2500));
  ASSERT_EQ(9 + body.size(), mHolder.GetLength());
  auto* base = reinterpret_cast<UCHAR*>(mHolder.GetDescriptor());

  // Start NULL never yields the configuration descriptor itself.
  EXPECT_EQ(nullptr, mHolder.FindNextDescriptor(NULL, USB_CONFIGURATION_DESCRIPTOR_TYPE));
  PUSB_COMMON_DESCRIPTOR first = mHolder.FindNextDescriptor(NULL, USB_INTERFACE_DESCRIPTOR_TYPE);
  EXPECT_EQ(base + 9, reinterpret_cast<UCHAR*>(first));
  PUSB_COMMON_DESCRIPTOR second = mHolder.FindNextDescriptor(first, USB_INTERFACE_DESCRIPTOR_TYPE);
  EXPECT_EQ(base + 21, reinterpret_cast<UCHAR*>(second));
  EXPECT_EQ(nullptr, mHolder.FindNextDescriptor(second, USB_INTERFACE_DESCRIPTOR_TYPE));
  EXPECT_EQ(base + 18, reinterpret_cast<UCHAR*>(mHolder.FindNextDescriptor(NULL, kSentinelType)));

  // A matching start is returned itself; -1 matches anything.
  auto* hit = mHolder.FindInterfaceDescriptor(first, 0, 0, 2, 2, 1);
  EXPECT_EQ(reinterpret_cast<void*>(first), reinterpret_cast<void*>(hit));
  EXPECT_EQ(reinterpret_cast<void*>(second), mHolder.FindInterfaceDescriptor(NULL, -1, -1, 0x0A, -1, -1));
  EXPECT_EQ(nullptr, mHolder.FindInterfaceDescriptor(NULL, 1, 1, -1, -1, -1));
  EXPECT_EQ(nullptr, mHolder.FindInterfaceDescriptor(base + 30, -1, -1, -1, -1, -1));
  mHolder.Release();

  struct WalkCase {
    const char* name;
    Bytes body;
    UCHAR type;  // searched for by FindNextDescriptor
    bool nextFound;
    bool interfaceFound;  // FindInterfaceDescriptor with every criterion -1
  } walks[] = {
      {"sentinel fits", Bytes{3, kSentinelType, 0}, kSentinelType, true, false},
      {"zero length ends the walk", Concat({Bytes{0, 4, 0}, Bytes{3, kSentinelType, 0}}), kSentinelType, false, false},
      {"descriptor longer than what is left", Bytes{4, kSentinelType, 0}, kSentinelType, false, false},
      {"sentinel header in the last two bytes", Concat({Bytes{3, 0x30, 0}, Bytes{2, kSentinelType}}), kSentinelType,
       false, false},
      {"interface descriptor without room for its fields", Bytes{5, USB_INTERFACE_DESCRIPTOR_TYPE, 0, 0, 0},
       USB_INTERFACE_DESCRIPTOR_TYPE, true, false},
      {"interface that fits exactly", Interface(0, 0, 2, 2, 1), USB_INTERFACE_DESCRIPTOR_TYPE, true, true},
  };
  for (const WalkCase& w : walks) {
    SCOPED_TRACE(w.name);
    Bytes set = ConfigurationSet(uint16_t(9 + w.body.size()), w.body);
    mHolder.Attach(PoolCopy(set));
    EXPECT_EQ(set.size(), mHolder.GetLength());
    EXPECT_EQ(w.nextFound, mHolder.FindNextDescriptor(NULL, w.type) != nullptr);
    EXPECT_EQ(w.interfaceFound, mHolder.FindInterfaceDescriptor(NULL, -1, -1, -1, -1, -1) != nullptr);
    mHolder.Release();
  }
}

}  // namespace
