// Descriptor requests: device descriptor length check, language selection, terminated strings.
#include <vector>

#include "usb_stack_double.h"

namespace {

using kntest::LowerDeviceTest;
using Bytes = std::vector<uint8_t>;

const Bytes kLanguages = {6, USB_STRING_DESCRIPTOR_TYPE, 0x09, 0x04, 0x07, 0x04};  // 0x0409, 0x0407

Bytes StringDescriptor(const std::u16string& text) {
  Bytes d = {uint8_t(2 + 2 * text.size()), USB_STRING_DESCRIPTOR_TYPE};
  for (char16_t c : text) {
    d.push_back(uint8_t(c));
    d.push_back(uint8_t(c >> 8));
  }
  return d;
}

class StringDescriptorTest : public LowerDeviceTest {
 protected:
  void Serve(Bytes languages, Bytes string) {
    mStack->SetDescriptorSource([languages, string](uint8_t type, uint8_t index, uint16_t) {
      if (type != USB_STRING_DESCRIPTOR_TYPE) return Bytes();
      return index == 0 ? languages : string;
    });
  }
};

TEST_F(StringDescriptorTest, LanguageIsTheRequestedOneWhenListedElseTheFirst) {
  struct Case {
    Bytes languages;
    USHORT requested;
    USHORT used;
  } cases[] = {
      {kLanguages, 0x0407, 0x0407}, {kLanguages, 0x0409, 0x0409}, {kLanguages, 0, 0x0409},
      {kLanguages, 0x0411, 0x0409}, {Bytes{2, 3}, 0x0407, 0},  // empty table: language 0
      {Bytes{}, 0x0407, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.requested);
    Serve(c.languages, StringDescriptor(u"x"));
    UCHAR buffer[32];
    ULONG received = 0;
    EXPECT_EQ(STATUS_SUCCESS, mLower.GetStringDescriptor(5, c.requested, buffer, sizeof(buffer), &received, 0));
    EXPECT_EQ(4u, received);
    auto seen = mStack->TakeRequests();
    ASSERT_EQ(2u, seen.size());
    EXPECT_EQ(0, seen[0].index);
    EXPECT_EQ(c.requested, seen[0].languageId);
    EXPECT_EQ(5, seen[1].index);
    EXPECT_EQ(c.used, seen[1].languageId);
  }
}

TEST_F(StringDescriptorTest, GetStringIsAlwaysTerminatedWithinTheDestination) {
  Serve(kLanguages, StringDescriptor(u"Composite Device"));
  WCHAR destination[8];
  for (WCHAR& c : destination) c = 0xAAAA;
  EXPECT_EQ(STATUS_SUCCESS, mLower.GetString(2, 0x0409, destination, sizeof(destination), 0));
  EXPECT_EQ(std::u16string(u"Composi"), std::u16string(reinterpret_cast<char16_t*>(destination)));
  EXPECT_EQ(0, destination[7]);
  auto seen = mStack->TakeRequests();
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ(16u, seen[1].bufferLength);

  WCHAR large[200];
  EXPECT_EQ(STATUS_SUCCESS, mLower.GetString(2, 0x0409, large, sizeof(large), 0));
  EXPECT_EQ(std::u16string(u"Composite Device"), std::u16string(reinterpret_cast<char16_t*>(large)));
  EXPECT_EQ(255u, mStack->TakeRequests()[1].bufferLength);

  Serve(kLanguages, Bytes{2, USB_STRING_DESCRIPTOR_TYPE});
  for (WCHAR& c : destination) c = 0xAAAA;
  EXPECT_EQ(STATUS_SUCCESS, mLower.GetString(2, 0x0409, destination, sizeof(destination), 0));
  for (WCHAR c : destination) EXPECT_EQ(0, c);
}

TEST_F(StringDescriptorTest, DeviceDescriptorMustBeExactlyEighteenBytes) {
  USB_DEVICE_DESCRIPTOR descriptor;
  mStack->SetDescriptorSource([](uint8_t, uint8_t, uint16_t) { return Bytes(18, 0x12); });
  EXPECT_EQ(STATUS_SUCCESS, mLower.GetDeviceDescriptor(&descriptor, 0));
  mStack->SetDescriptorSource([](uint8_t, uint8_t, uint16_t) { return Bytes(17, 0x12); });
  EXPECT_EQ(STATUS_UNSUCCESSFUL, mLower.GetDeviceDescriptor(&descriptor, 0));
  auto seen = mStack->TakeRequests();
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ(USB_DEVICE_DESCRIPTOR_TYPE, seen[1].descriptorType);
  EXPECT_EQ(18u, seen[1].bufferLength);
}

}  // namespace
