// The configuration descriptor holder: two-step read with its size checks, and walks that
// never look beyond the bytes held. Also the string descriptor requests it sits beside.
#include <vector>

#include <wdmsim/pool.h>

#include "knusbconfigurationdesc.h"
#include "usb_stack_double.h"

namespace {

using kntest::LowerDeviceTest;
using Bytes = std::vector<uint8_t>;

const uint8_t kSentinelType = 0x77;

Bytes Interface(uint8_t number, uint8_t alternate, uint8_t cls, uint8_t sub, uint8_t protocol) {
  return {9, USB_INTERFACE_DESCRIPTOR_TYPE, number, alternate, 1, cls, sub, protocol, 0};
}

// A configuration descriptor announcing wTotalLength, followed by body.
Bytes ConfigurationSet(uint16_t totalLength, const Bytes& body) {
  Bytes set = {9, USB_CONFIGURATION_DESCRIPTOR_TYPE, uint8_t(totalLength), uint8_t(totalLength >> 8), 2, 1, 0, 0x80,
               50};
  set.insert(set.end(), body.begin(), body.end());
  return set;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

class ConfigurationDescriptorTest : public LowerDeviceTest {
 protected:
  void SetUp() override {
    LowerDeviceTest::SetUp();
    mHolder.SetLowerDevice(&mLower);
  }
  void TearDown() override {
    mHolder.Release();
    LowerDeviceTest::TearDown();
  }
  // The device answers configuration requests with set (clipped to the request).
  void Serve(const Bytes& set) {
    mStack->SetDescriptorSource([set](uint8_t type, uint8_t, uint16_t) {
      return type == USB_CONFIGURATION_DESCRIPTOR_TYPE ? set : Bytes();
    });
  }
  KnUsbConfigurationDesc mHolder;
};

TEST_F(ConfigurationDescriptorTest, ReadsTheDemoDeviceSetInTwoSteps) {
  ASSERT_EQ(STATUS_SUCCESS, mHolder.GetAndAllocate(0, 0));
  ASSERT_NE(nullptr, mHolder.GetDescriptor());
  EXPECT_EQ(mHolder.GetDescriptor()->wTotalLength, mHolder.GetLength());
  auto seen = mStack->TakeRequests();
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ(9u, seen[0].bufferLength);
  EXPECT_EQ(mHolder.GetLength(), seen[1].bufferLength);
  EXPECT_NE(nullptr, mHolder.FindInterfaceDescriptor(NULL, 0, 0, -1, -1, -1));
}

TEST_F(ConfigurationDescriptorTest, SizeChecksAcceptFullSetsAndRejectShortOrOversizedOnes) {
  struct Case {
    const char* name;
    Bytes served;
    NTSTATUS expected;
    ULONG expectedLength;
    const char* trace;
  } cases[] = {
      {"4096 bytes", ConfigurationSet(4096, Bytes(4096 - 9, 0)), STATUS_SUCCESS, 4096, nullptr},
      {"4097 bytes", ConfigurationSet(4097, Bytes(4097 - 9, 0)), STATUS_UNSUCCESSFUL, 0,
       "KnUsbConfiguration::GetAndAllocate: Invalid configuration descriptor length 4097"},
      {"header of 8 bytes", Bytes{9, 2, 9, 0, 0, 1, 0, 0x80}, STATUS_UNSUCCESSFUL, 0,
       "KnUsbConfigurationDesc::GetAndAllocate: Invalid length 8"},
      {"wTotalLength 0", ConfigurationSet(0, {}), STATUS_UNSUCCESSFUL, 0, "shorter than the header"},
      {"wTotalLength 8", ConfigurationSet(8, {}), STATUS_UNSUCCESSFUL, 0, "shorter than the header"},
      {"wTotalLength 9", ConfigurationSet(9, {}), STATUS_SUCCESS, 9, nullptr},
      {"fewer bytes than announced", ConfigurationSet(27, Interface(0, 0, 2, 2, 1)), STATUS_SUCCESS, 18,
       "Device returned invalid descriptor"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Serve(c.served);
    EXPECT_EQ(c.expected, mHolder.GetAndAllocate(0, 0));
    EXPECT_EQ(c.expectedLength, mHolder.GetLength());
    EXPECT_EQ(c.expected == STATUS_SUCCESS, mHolder.GetDescriptor() != nullptr);
    std::string trace = TakeTrace();
    if (c.trace != nullptr) EXPECT_NE(std::string::npos, trace.find(c.trace)) << trace;
    mHolder.Release();
  }
}

TEST_F(ConfigurationDescriptorTest, FailedReadsLeaveTheHolderEmpty) {
  Serve(ConfigurationSet(18, Interface(0, 0, 2, 2, 1)));
  ASSERT_EQ(STATUS_SUCCESS, mHolder.GetAndAllocate(0, 0));
  mStack->SetMode(kntest::UsbStackDouble::Mode::Fail, STATUS_DEVICE_NOT_CONNECTED);
  EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, mHolder.GetAndAllocate(0, 0));
  EXPECT_EQ(nullptr, mHolder.GetDescriptor());
  EXPECT_EQ(0u, mHolder.GetLength());
  EXPECT_NE(std::string::npos,
            TakeTrace().find("KnUsbConfigurationDesc::SetConfiguration: Get Config Descriptor failed"));
}

TEST_F(ConfigurationDescriptorTest, WalksStopAtTheEndAtZeroLengthsAndAtDescriptorsThatDoNotFit) {
  // Received: configuration, interface 0, a sentinel, interface 1; announced longer still.
  Bytes body = Concat({Interface(0, 0, 2, 2, 1), Bytes{3, kSentinelType, 0}, Interface(1, 0, 0x0A, 0, 0)});
  Serve(ConfigurationSet(200, body));
  ASSERT_EQ(STATUS_SUCCESS, mHolder.GetAndAllocate(0, 0));
  auto* base = reinterpret_cast<uint8_t*>(mHolder.GetDescriptor());

  // Start NULL never yields the configuration descriptor itself.
  EXPECT_EQ(nullptr, mHolder.FindNextDescriptor(NULL, USB_CONFIGURATION_DESCRIPTOR_TYPE));
  PUSB_COMMON_DESCRIPTOR first = mHolder.FindNextDescriptor(NULL, USB_INTERFACE_DESCRIPTOR_TYPE);
  EXPECT_EQ(base + 9, reinterpret_cast<uint8_t*>(first));
  PUSB_COMMON_DESCRIPTOR second = mHolder.FindNextDescriptor(first, USB_INTERFACE_DESCRIPTOR_TYPE);
  EXPECT_EQ(base + 21, reinterpret_cast<uint8_t*>(second));
  EXPECT_EQ(nullptr, mHolder.FindNextDescriptor(second, USB_INTERFACE_DESCRIPTOR_TYPE));
  EXPECT_EQ(base + 18, reinterpret_cast<uint8_t*>(mHolder.FindNextDescriptor(NULL, kSentinelType)));

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
    bool sentinelFound;
  } walks[] = {
      {"sentinel fits", Bytes{3, kSentinelType, 0}, true},
      {"zero length ends the walk", Concat({Bytes{0, 4, 0}, Bytes{3, kSentinelType, 0}}), false},
      {"descriptor longer than what is left", Bytes{4, kSentinelType, 0}, false},
      {"sentinel header in the last two bytes", Concat({Bytes{3, 0x30, 0}, Bytes{2, kSentinelType}}), false},
  };
  for (const WalkCase& w : walks) {
    SCOPED_TRACE(w.name);
    Bytes set = ConfigurationSet(uint16_t(9 + w.body.size()), w.body);
    auto* copy = static_cast<PUSB_CONFIGURATION_DESCRIPTOR>(ExAllocatePoolWithTag(NonPagedPool, set.size(), 'tseT'));
    memcpy(copy, set.data(), set.size());
    mHolder.Attach(copy);
    EXPECT_EQ(set.size(), mHolder.GetLength());
    EXPECT_EQ(w.sentinelFound, mHolder.FindNextDescriptor(NULL, kSentinelType) != nullptr);
    EXPECT_EQ(nullptr, mHolder.FindInterfaceDescriptor(NULL, -1, -1, -1, -1, -1));
    mHolder.Release();
  }
}

TEST_F(ConfigurationDescriptorTest, DetachForgetsAForeignSetWithoutFreeingIt) {
  Bytes set = ConfigurationSet(18, Interface(3, 0, 2, 2, 1));
  auto* copy = static_cast<PUSB_CONFIGURATION_DESCRIPTOR>(ExAllocatePoolWithTag(NonPagedPool, set.size(), 'tseT'));
  memcpy(copy, set.data(), set.size());
  mHolder.Attach(copy);
  EXPECT_NE(nullptr, mHolder.FindInterfaceDescriptor(NULL, 3, -1, -1, -1, -1));
  mHolder.Detach();
  EXPECT_EQ(nullptr, mHolder.GetDescriptor());
  EXPECT_EQ(18, copy->wTotalLength);  // still ours: Detach freed nothing
  ExFreePool(copy);
}

}  // namespace
