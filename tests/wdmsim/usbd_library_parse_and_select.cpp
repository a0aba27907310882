// USBD library services: descriptor search within a configuration set, interface search with
// wildcards, and the layout of the select-configuration URB built from an interface list.
#include <cstddef>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include <wdm.h>
#include <usbdlib.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pool.h>

namespace {

constexpr uint32_t kUsbdTag = 0x44425355;  // "USBD"

// Configuration 1 with interfaces 0 (two alternate settings), 1 (no endpoints, a class-specific
// descriptor) and 3: non-contiguous numbers, as composite devices have them.
std::vector<UCHAR> CompositeSet() {
  std::vector<UCHAR> set = {
      9, 0x02, 0, 0, 3, 1, 0, 0x80, 50,                // configuration, wTotalLength patched below
      9, 0x04, 0, 0, 2, 0xFF, 0x01, 0x02, 0,           // interface 0 alt 0, 2 endpoints
      7, 0x05, 0x81, 0x02, 0x40, 0x00, 0,              // bulk IN
      7, 0x05, 0x02, 0x02, 0x40, 0x00, 0,              // bulk OUT
      9, 0x04, 0, 1, 1, 0xFF, 0x01, 0x03, 0,           // interface 0 alt 1, 1 endpoint
      7, 0x05, 0x83, 0x03, 0x08, 0x00, 10,             // interrupt IN
      9, 0x04, 1, 0, 0, 0x02, 0x02, 0x01, 0,           // interface 1 alt 0, no endpoints
      5, 0x24, 0x00, 0x10, 0x01,                       // class-specific header
      9, 0x04, 3, 0, 1, 0x0A, 0x00, 0x00, 0,           // interface 3 alt 0, 1 endpoint
      7, 0x05, 0x84, 0x03, 0x10, 0x00, 4,              // interrupt IN
  };
  set[2] = static_cast<UCHAR>(set.size());
  set[3] = static_cast<UCHAR>(set.size() >> 8);
  return set;
}

class UsbdLibrary : public testing::Test {
 protected:
  PUSB_CONFIGURATION_DESCRIPTOR Configuration() {
    return reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(mSet.data());
  }
  size_t OffsetOf(const void* p) const { return static_cast<const UCHAR*>(p) - mSet.data(); }
  PUSB_INTERFACE_DESCRIPTOR Find(LONG number, LONG alternate, LONG cls = -1, LONG sub = -1, LONG proto = -1,
                                 PVOID start = nullptr) {
    return USBD_ParseConfigurationDescriptorEx(Configuration(), start ? start : mSet.data(), number, alternate, cls,
                                               sub, proto);
  }

  wdmsim::Kernel mKernel;
  std::vector<UCHAR> mSet = CompositeSet();
};

TEST_F(UsbdLibrary, ParseDescriptorsFindsTypeFromStartAndStopsAtBadFraming) {
  const ULONG total = static_cast<ULONG>(mSet.size());
  PUSB_COMMON_DESCRIPTOR first = USBD_ParseDescriptors(mSet.data(), total, mSet.data(), USB_ENDPOINT_DESCRIPTOR_TYPE);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(OffsetOf(first), 18u);
  // The start position itself is a candidate.
  EXPECT_EQ(USBD_ParseDescriptors(mSet.data(), total, first, USB_ENDPOINT_DESCRIPTOR_TYPE), first);
  PUSB_COMMON_DESCRIPTOR classSpecific = USBD_ParseDescriptors(mSet.data(), total, mSet.data(), 0x24);
  ASSERT_NE(classSpecific, nullptr);
  EXPECT_EQ(classSpecific->bLength, 5);
  EXPECT_EQ(USBD_ParseDescriptors(mSet.data(), total, mSet.data(), 0x21), nullptr);

  // A length that ends inside the last descriptor hides it.
  UCHAR* const interface3 = mSet.data() + 62;
  EXPECT_EQ(OffsetOf(USBD_ParseDescriptors(mSet.data(), total, interface3, USB_ENDPOINT_DESCRIPTOR_TYPE)), 71u);
  EXPECT_EQ(USBD_ParseDescriptors(mSet.data(), total - 1, interface3, USB_ENDPOINT_DESCRIPTOR_TYPE), nullptr);
  // A zero bLength ends the walk instead of looping on it.
  mSet[18] = 0;
  EXPECT_EQ(USBD_ParseDescriptors(mSet.data(), total, mSet.data(), USB_ENDPOINT_DESCRIPTOR_TYPE), nullptr);
}

TEST_F(UsbdLibrary, ParseConfigurationDescriptorMatchesEveryCriterionOrWildcard) {
  struct Case {
    LONG number, alternate, cls, sub, proto;
    ptrdiff_t expectedOffset;  // -1: not found
  };
  const Case cases[] = {
      {0, 0, -1, -1, -1, 9},        {0, 1, -1, -1, -1, 32},          {1, 0, -1, -1, -1, 48},
      {3, 0, -1, -1, -1, 62},       {2, 0, -1, -1, -1, -1},          {3, 1, -1, -1, -1, -1},
      {-1, 1, -1, -1, -1, 32},      {-1, -1, 0x0A, -1, -1, 62},      {-1, -1, 0xFF, 0x01, 0x03, 32},
      {0, 0, 0xFF, 0x01, 0x03, -1}, {-1, -1, 0x02, 0x02, 0x01, 48}, {1, 0, 0x02, 0x02, 0x02, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "number " << c.number << " alt " << c.alternate << " class " << c.cls);
    PUSB_INTERFACE_DESCRIPTOR found = Find(c.number, c.alternate, c.cls, c.sub, c.proto);
    if (c.expectedOffset < 0) {
      EXPECT_EQ(found, nullptr);
    } else {
      ASSERT_NE(found, nullptr);
      EXPECT_EQ(static_cast<ptrdiff_t>(OffsetOf(found)), c.expectedOffset);
    }
  }
  // Iterating from just after a hit finds the next one; the search never leaves wTotalLength.
  PUSB_INTERFACE_DESCRIPTOR alt0 = Find(-1, 0);
  ASSERT_NE(alt0, nullptr);
  PUSB_INTERFACE_DESCRIPTOR next = Find(-1, 0, -1, -1, -1, reinterpret_cast<UCHAR*>(alt0) + alt0->bLength);
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(next->bInterfaceNumber, 1);
  Configuration()->wTotalLength = 64;  // interface 3 now lies beyond the set
  EXPECT_EQ(Find(3, 0), nullptr);
}

TEST_F(UsbdLibrary, SelectConfigurationRequestIsOnePackedBlockTheListPointsInto) {
  USBD_INTERFACE_LIST_ENTRY list[4] = {};
  list[0].InterfaceDescriptor = Find(0, 0);
  list[1].InterfaceDescriptor = Find(1, 0);
  list[2].InterfaceDescriptor = Find(3, 0);
  const size_t expectedSize = GET_SELECT_CONFIGURATION_REQUEST_SIZE(3, 3);
  const size_t blocksBefore = wdmsim::LivePoolBlockCount(kUsbdTag);

  PURB urb = USBD_CreateConfigurationRequestEx(Configuration(), list);
  ASSERT_NE(urb, nullptr);
  EXPECT_EQ(wdmsim::LivePoolBlockCount(kUsbdTag), blocksBefore + 1);
  EXPECT_EQ(urb->UrbHeader.Length, expectedSize);
  EXPECT_EQ(urb->UrbHeader.Function, URB_FUNCTION_SELECT_CONFIGURATION);
  EXPECT_EQ(urb->UrbHeader.Status, 0);
  EXPECT_EQ(urb->UrbSelectConfiguration.ConfigurationDescriptor, Configuration());
  EXPECT_EQ(urb->UrbSelectConfiguration.ConfigurationHandle, nullptr);

  const UCHAR* base = reinterpret_cast<const UCHAR*>(urb);
  const size_t firstOffset = offsetof(struct _URB_SELECT_CONFIGURATION, Interface);
  const size_t expectedOffsets[3] = {firstOffset, firstOffset + GET_USBD_INTERFACE_SIZE(2),
                                     firstOffset + GET_USBD_INTERFACE_SIZE(2) + GET_USBD_INTERFACE_SIZE(0)};
  const UCHAR numbers[3] = {0, 1, 3};
  const ULONG pipes[3] = {2, 0, 1};
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    PUSBD_INTERFACE_INFORMATION information = list[i].Interface;
    ASSERT_NE(information, nullptr);
    EXPECT_EQ(reinterpret_cast<const UCHAR*>(information) - base, static_cast<ptrdiff_t>(expectedOffsets[i]));
    EXPECT_EQ(information->Length, GET_USBD_INTERFACE_SIZE(pipes[i]));
    EXPECT_EQ(information->InterfaceNumber, numbers[i]);
    EXPECT_EQ(information->AlternateSetting, 0);
    EXPECT_EQ(information->NumberOfPipes, pipes[i]);
    EXPECT_EQ(information->InterfaceHandle, nullptr);
    for (ULONG p = 0; p < pipes[i]; ++p) {
      EXPECT_EQ(information->Pipes[p].MaximumTransferSize, USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE);
      EXPECT_EQ(information->Pipes[p].PipeHandle, nullptr);
      EXPECT_EQ(information->Pipes[p].PipeFlags, 0u);
    }
  }
  // The last interface ends exactly at the end of the request.
  EXPECT_EQ(expectedOffsets[2] + GET_USBD_INTERFACE_SIZE(1), expectedSize);
  EXPECT_EQ(list[3].Interface, nullptr);  // the terminator is left alone

  ExFreePool(urb);
  EXPECT_EQ(wdmsim::LivePoolBlockCount(kUsbdTag), blocksBefore);
}

TEST_F(UsbdLibrary, SelectConfigurationRequestForAnAlternateSettingAndOnAllocationFailure) {
  USBD_INTERFACE_LIST_ENTRY list[2] = {};
  list[0].InterfaceDescriptor = Find(0, 1);
  PURB urb = USBD_CreateConfigurationRequestEx(Configuration(), list);
  ASSERT_NE(urb, nullptr);
  EXPECT_EQ(urb->UrbHeader.Length, GET_SELECT_CONFIGURATION_REQUEST_SIZE(1, 1));
  ASSERT_EQ(list[0].Interface, &urb->UrbSelectConfiguration.Interface);
  EXPECT_EQ(list[0].Interface->AlternateSetting, 1);
  EXPECT_EQ(list[0].Interface->NumberOfPipes, 1u);
  ExFreePool(urb);

  list[0].Interface = nullptr;
  wdmsim::FailNthPoolAllocation(1);
  EXPECT_EQ(USBD_CreateConfigurationRequestEx(Configuration(), list), nullptr);
  EXPECT_EQ(list[0].Interface, nullptr);
}

}  // namespace
