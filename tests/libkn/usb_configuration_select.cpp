// KnUsbConfiguration on the simulated USB stack: selecting a configuration with non-contiguous
// interface numbers, switching alternate settings, unconfiguring, and the look-ups.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdmsim/pool.h>

#include "knusbconfiguration.h"
#include "knusbconfigurationdesc.h"
#include "knusbinterface.h"
#include "knusbpipe.h"
#include "support_test_driver.h"
#include "usb_device_on_bus.h"

namespace {

constexpr ULONG kUsbcTag = 0x43425355;

using kntest::ReadRecord;
constexpr auto OnRead = &ReadRecord::OnRead;

std::vector<UCHAR> CompositeSet(UCHAR numInterfaces) {
  std::vector<UCHAR> set = {
      9, 0x02, 0, 0, numInterfaces, 7, 0, 0x80, 50,
      9, 0x04, 0, 0, 2, 0xFF, 0x01, 0x02, 0,  // interface 0 alt 0: bulk IN, bulk OUT
      7, 0x05, 0x81, 0x02, 0x40, 0x00, 0,
      7, 0x05, 0x02, 0x02, 0x40, 0x00, 0,
      9, 0x04, 0, 1, 1, 0xFF, 0x01, 0x03, 0,  // interface 0 alt 1: interrupt IN
      7, 0x05, 0x83, 0x03, 0x08, 0x00, 10,
      9, 0x04, 1, 0, 0, 0x02, 0x02, 0x01, 0,  // interface 1: no endpoints
      9, 0x04, 1, 1, 0, 0x02, 0x02, 0x01, 0,  // interface 1 alt 1: still none
      9, 0x04, 3, 0, 2, 0x0A, 0x00, 0x00, 0,  // interface 3: bulk IN, interrupt IN
      7, 0x05, 0x84, 0x02, 0x40, 0x00, 0,
      7, 0x05, 0x85, 0x03, 0x10, 0x00, 4,
      9, 0x04, 3, 2, 0, 0x0A, 0x00, 0x00, 0,  // interface 3 alt 2: no endpoints (zero bandwidth)
  };
  set[2] = static_cast<UCHAR>(set.size());
  return set;
}

class UsbConfigurationTest : public kntest::FrameworkTest {
 protected:
  void Open(UCHAR numInterfaces) {
    mStack.reset(new kntest::UsbDeviceOnBus(CompositeSet(numInterfaces)));
    mConfiguration.mLowerDevice = &mStack->lower;
    mHolder.Attach(reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(const_cast<UCHAR*>(mStack->Set())));
  }
  void TearDown() override {
    if (mConfiguration.GetConfigurationValue() != 0) {
      mConfiguration.UnconfigureDevice(FALSE, 0);
    }
    mHolder.Detach();
    mStack.reset();
  }
  std::vector<UCHAR> Numbers() {
    std::vector<UCHAR> numbers;
    for (UCHAR n = 0; n < 8; ++n) {
      KnUsbInterface* found = mConfiguration.FindInterface(n, 0xFFFF, 0xFFFF, 0xFFFF);
      if (found != NULL) numbers.push_back(found->mInterfaceInformation.InterfaceNumber);
    }
    return numbers;
  }

  // The interface number of the oldest interface object.
  int Head() {
    KnUsbInterface* first = mConfiguration.FindInterface(0xFF, 0xFFFF, 0xFFFF, 0xFFFF);
    return first ? first->mInterfaceInformation.InterfaceNumber : -1;
  }

  std::unique_ptr<kntest::UsbDeviceOnBus> mStack;
  KnUsbConfiguration mConfiguration;
  KnUsbConfigurationDesc mHolder;
  ReadRecord mRead;
};

TEST_F(UsbConfigurationTest, NonContiguousInterfacesAreSelectedWithDistinctHandles) {
  Open(3);
  ASSERT_EQ(mConfiguration.SetConfiguration(&mHolder, 4096, 0), STATUS_SUCCESS);
  EXPECT_EQ(mStack->TakeFunctions(), std::vector<USHORT>{URB_FUNCTION_SELECT_CONFIGURATION});
  EXPECT_EQ(mConfiguration.GetConfigurationValue(), 7);
  EXPECT_NE(mConfiguration.GetConfigurationHandle(), nullptr);
  EXPECT_EQ(mConfiguration.GetConfigurationHandle(), mStack->ConfigurationHandle());
  EXPECT_EQ(Numbers(), (std::vector<UCHAR>{0, 1, 3}));

  KnUsbInterface* first = mConfiguration.FindInterface(0, 0xFFFF, 0xFFFF, 0xFFFF);
  KnUsbInterface* third = mConfiguration.FindInterface(3, 0xFFFF, 0xFFFF, 0xFFFF);
  ASSERT_TRUE(first && third);
  EXPECT_EQ(first->mInterfaceInformation.NumberOfPipes, 2u);
  EXPECT_EQ(first->mInterfaceDescriptor.bInterfaceClass, 0xFF);
  EXPECT_NE(first->mInterfaceInformation.InterfaceHandle, third->mInterfaceInformation.InterfaceHandle);
  std::vector<USBD_PIPE_HANDLE> handles;
  for (KnUsbInterface* i : {first, third}) {
    for (KnUsbPipe* p = i->FindPipe(NULL, 0xFFFFFFFF, 0xFFFFFFFF); p; p = i->FindPipe(p, 0xFFFFFFFF, 0xFFFFFFFF)) {
      EXPECT_NE(p->GetPipeHandle(), nullptr);
      EXPECT_TRUE(mStack->IsValidPipe(p->GetPipeHandle()));
      EXPECT_EQ(p->GetPipeInformation().MaximumTransferSize, 4096u);  // the caller's size reached the stack
      EXPECT_EQ(p->GetInterface(), i);
      PUSBD_PIPE_INFORMATION found = mConfiguration.FindPipeByHandle(p->GetPipeHandle());
      ASSERT_NE(found, nullptr);
      EXPECT_EQ(found->EndpointAddress, p->GetEndpointAddress());
      for (USBD_PIPE_HANDLE h : handles) EXPECT_NE(h, p->GetPipeHandle());
      handles.push_back(p->GetPipeHandle());
    }
  }
  EXPECT_EQ(handles.size(), 4u);
  EXPECT_EQ(mConfiguration.FindPipeByHandle(reinterpret_cast<USBD_PIPE_HANDLE>(0x1234)), nullptr);

  // Unconfiguring sends the request, forgets the interfaces and makes the old handles stale.
  EXPECT_EQ(mConfiguration.UnconfigureDevice(TRUE, 2500), STATUS_SUCCESS);
  EXPECT_EQ(mStack->TakeFunctions(), std::vector<USHORT>{URB_FUNCTION_SELECT_CONFIGURATION});
  EXPECT_EQ(mConfiguration.GetConfigurationValue(), 0);
  EXPECT_EQ(mConfiguration.FindInterface(0xFF, 0xFFFF, 0xFFFF, 0xFFFF), nullptr);
  EXPECT_EQ(mConfiguration.FindPipeByHandle(handles[0]), nullptr);
  EXPECT_FALSE(mStack->IsValidPipe(handles[0]));
  EXPECT_EQ(wdmsim::LivePoolBlockCount(kUsbcTag), 0u);
}

TEST_F(UsbConfigurationTest, InterfaceCountMismatchIsAnInvalidDescriptor) {
  struct Case {
    UCHAR numInterfaces;
    const char* trace;
  };
  const Case cases[] = {
      {4, "KnUsbConfiguration::SetConfiguration invalid configuration descriptor 2\n"},
      {2, "KnUsbConfiguration::SetConfiguration invalid configuration descriptor\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.numInterfaces);
    Open(c.numInterfaces);
    TakeTrace();
    EXPECT_EQ(mConfiguration.SetConfiguration(&mHolder, 4096, 0), STATUS_UNSUCCESSFUL);
    const std::string trace = TakeTrace();
    EXPECT_NE(trace.find(c.trace), std::string::npos) << trace;
    EXPECT_EQ(c.numInterfaces == 2, trace.find("descriptor 2") == std::string::npos);
    EXPECT_TRUE(mStack->TakeFunctions().empty());  // nothing was sent
    EXPECT_EQ(mConfiguration.GetConfigurationValue(), 0);
    EXPECT_EQ(mConfiguration.FindInterface(0xFF, 0xFFFF, 0xFFFF, 0xFFFF), nullptr);
    EXPECT_EQ(wdmsim::LivePoolBlockCount(kUsbcTag), 0u);
    mHolder.Detach();
    mStack.reset();
  }
}

TEST_F(UsbConfigurationTest, FailedSelectionLeavesNoInterfaces) {
  Open(3);
  mStack->FailNext(URB_FUNCTION_SELECT_CONFIGURATION, STATUS_DEVICE_DATA_ERROR, USBD_STATUS_DEV_NOT_RESPONDING);
  TakeTrace();
  EXPECT_EQ(mConfiguration.SetConfiguration(&mHolder, 4096, 0), STATUS_DEVICE_DATA_ERROR);
  EXPECT_NE(TakeTrace().find("SetConfiguration: SubmitUrbAndWait failed"), std::string::npos);
  EXPECT_EQ(mConfiguration.GetConfigurationValue(), 0);
  EXPECT_EQ(mConfiguration.FindInterface(0xFF, 0xFFFF, 0xFFFF, 0xFFFF), nullptr);

  // A pipe object that cannot be allocated fails the whole selection and frees what was built.
  wdmsim::FailNthPoolAllocation(5);  // list, URB, interface 0, its first pipe, its second pipe
  EXPECT_EQ(mConfiguration.SetConfiguration(&mHolder, 4096, 0), STATUS_NO_MEMORY);
  EXPECT_EQ(wdmsim::InjectedPoolFailures(), 1);
  const std::string trace = TakeTrace();
  EXPECT_NE(trace.find("KnUsbConfiguration::AddUsbInterface AddPipe failed"), std::string::npos) << trace;
  EXPECT_EQ(mConfiguration.GetConfigurationValue(), 0);
  EXPECT_EQ(mConfiguration.FindInterface(0xFF, 0xFFFF, 0xFFFF, 0xFFFF), nullptr);
  EXPECT_EQ(wdmsim::LivePoolBlockCount(kUsbcTag), 0u);
}

TEST_F(UsbConfigurationTest, AlternateSettingReplacesTheInterfaceObject) {
  Open(3);
  // Before any configuration: refused without a request.
  TakeTrace();
  EXPECT_EQ(mConfiguration.SetAlternateSetting(&mHolder, 0, 1, 4096, 2500), STATUS_UNSUCCESSFUL);
  EXPECT_NE(TakeTrace().find("SetAlternateSetting: Not configured"), std::string::npos);
  EXPECT_TRUE(mStack->TakeFunctions().empty());

  ASSERT_EQ(mConfiguration.SetConfiguration(&mHolder, 4096, 0), STATUS_SUCCESS);
  mStack->TakeFunctions();
  KnUsbPipe* oldBulk = mConfiguration.FindInterface(0, 0xFFFF, 0xFFFF, 0xFFFF)->FindPipe(NULL, 0x80, 2);
  ASSERT_NE(oldBulk, nullptr);
  const USBD_PIPE_HANDLE oldHandle = oldBulk->GetPipeHandle();

  ASSERT_EQ(mConfiguration.SetAlternateSetting(&mHolder, 0, 1, 512, 2500), STATUS_SUCCESS);
  EXPECT_EQ(mStack->TakeFunctions(), std::vector<USHORT>{URB_FUNCTION_SELECT_INTERFACE});
  EXPECT_EQ(mStack->firmware().AlternateSetting(0), 1);
  KnUsbInterface* switched = mConfiguration.FindInterface(0, 0xFFFF, 0xFFFF, 0xFFFF);
  ASSERT_NE(switched, nullptr);
  EXPECT_EQ(switched->mInterfaceInformation.AlternateSetting, 1);
  EXPECT_EQ(switched->mInterfaceDescriptor.bAlternateSetting, 1);
  EXPECT_EQ(switched->mInterfaceInformation.Protocol, 0x03);
  KnUsbPipe* interrupt = switched->FindPipe(NULL, 0x80, 3);
  ASSERT_NE(interrupt, nullptr);
  EXPECT_EQ(interrupt->GetPipeInformation().MaximumTransferSize, 512u);
  EXPECT_EQ(switched->FindPipe(interrupt, 0xFFFFFFFF, 0xFFFFFFFF), nullptr);
  EXPECT_EQ(mConfiguration.FindPipeByHandle(oldHandle), nullptr);
  EXPECT_FALSE(mStack->IsValidPipe(oldHandle));
  EXPECT_EQ(Numbers(), (std::vector<UCHAR>{0, 1, 3}));
  EXPECT_EQ(Head(), 1);  // the new object joined at the end
  // The new setting's pipe carries the device's data.
  UCHAR buffer[8] = {};
  EXPECT_EQ(interrupt->Read(buffer, sizeof(buffer), OnRead, &mRead, NULL), STATUS_PENDING);
  mStack->Send(0x83, {0xC0, 0xFF, 0xEE});
  EXPECT_EQ(mRead.calls, 1);
  EXPECT_EQ(mRead.status, static_cast<LONG>(USBD_STATUS_SUCCESS));
  EXPECT_EQ(mRead.length, 3u);
  EXPECT_EQ(buffer[2], 0xEE);
  mStack->TakeFunctions();

  // From a setting with two pipes to one without endpoints: the old pipes close on both sides.
  const USBD_PIPE_HANDLE oldThird =
      mConfiguration.FindInterface(3, 0xFFFF, 0xFFFF, 0xFFFF)->FindPipe(NULL, 0x80, 2)->GetPipeHandle();
  ASSERT_EQ(mConfiguration.SetAlternateSetting(&mHolder, 3, 2, 4096, 2500), STATUS_SUCCESS);
  EXPECT_EQ(mStack->TakeFunctions(), std::vector<USHORT>{URB_FUNCTION_SELECT_INTERFACE});
  EXPECT_EQ(mStack->firmware().AlternateSetting(3), 2);
  EXPECT_FALSE(mStack->firmware().IsEndpointActive(0x84));
  EXPECT_FALSE(mStack->IsValidPipe(oldThird));
  KnUsbInterface* empty = mConfiguration.FindInterface(3, 0xFFFF, 0xFFFF, 0xFFFF);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->mInterfaceInformation.AlternateSetting, 2);
  EXPECT_EQ(empty->mInterfaceInformation.NumberOfPipes, 0u);
  EXPECT_EQ(empty->FindPipe(NULL, 0xFFFFFFFF, 0xFFFFFFFF), nullptr);
  EXPECT_EQ(mConfiguration.FindPipeByHandle(oldThird), nullptr);

  // Unknown settings are refused before anything is removed.
  EXPECT_EQ(mConfiguration.SetAlternateSetting(&mHolder, 3, 1, 4096, 2500), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(mConfiguration.SetAlternateSetting(&mHolder, 2, 0, 4096, 2500), STATUS_INVALID_PARAMETER);
  EXPECT_TRUE(mStack->TakeFunctions().empty());
  EXPECT_EQ(Numbers(), (std::vector<UCHAR>{0, 1, 3}));
  EXPECT_EQ(Head(), 1);

  // A switch the stack refuses leaves the interface without an object.
  mStack->FailNext(URB_FUNCTION_SELECT_INTERFACE, STATUS_UNSUCCESSFUL, USBD_STATUS_INVALID_PARAMETER);
  EXPECT_EQ(mConfiguration.SetAlternateSetting(&mHolder, 3, 0, 4096, 2500), STATUS_UNSUCCESSFUL);
  EXPECT_EQ(mConfiguration.FindInterface(3, 0xFFFF, 0xFFFF, 0xFFFF), nullptr);
  EXPECT_EQ(Numbers(), (std::vector<UCHAR>{0, 1}));
  mStack->TakeFunctions();

  // Unconfiguring without sending clears the local state only.
  EXPECT_EQ(mConfiguration.UnconfigureDevice(FALSE, 2500), STATUS_SUCCESS);
  EXPECT_TRUE(mStack->TakeFunctions().empty());
  EXPECT_EQ(mConfiguration.GetConfigurationValue(), 0);
  EXPECT_EQ(Numbers(), std::vector<UCHAR>{});
}

TEST_F(UsbConfigurationTest, FindInterfaceMatchesEveryNonWildcardCriterion) {
  Open(3);
  ASSERT_EQ(mConfiguration.SetConfiguration(&mHolder, 4096, 0), STATUS_SUCCESS);
  struct Case {
    UCHAR number;
    USHORT cls, sub, proto;
    int expected;  // interface number, or -1 for none
  };
  const Case cases[] = {
      {0xFF, 0xFFFF, 0xFFFF, 0xFFFF, 0}, {0xFF, 0x0A, 0xFFFF, 0xFFFF, 3}, {0xFF, 0x02, 0x02, 0x01, 1},
      {0xFF, 0x02, 0x02, 0x02, -1},       {1, 0xFF, 0xFFFF, 0xFFFF, -1},   {0xFF, 0xFFFF, 0x01, 0xFFFF, 0},
      {0xFF, 0xFFFF, 0xFFFF, 0x00, 3},    {2, 0xFFFF, 0xFFFF, 0xFFFF, -1}, {0, 0xFF, 0x01, 0x02, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << int(c.number) << " " << c.cls << " " << c.sub << " " << c.proto);
    KnUsbInterface* found = mConfiguration.FindInterface(c.number, c.cls, c.sub, c.proto);
    if (c.expected < 0) {
      EXPECT_EQ(found, nullptr);
    } else {
      ASSERT_NE(found, nullptr);
      EXPECT_EQ(found->mInterfaceInformation.InterfaceNumber, c.expected);
    }
  }
  // FindPipe by direction and type on interface 3 (bulk IN, interrupt IN).
  KnUsbInterface* third = mConfiguration.FindInterface(3, 0xFFFF, 0xFFFF, 0xFFFF);
  KnUsbPipe* interrupt = third->FindPipe(NULL, 0x80, 3);
  ASSERT_NE(interrupt, nullptr);
  EXPECT_EQ(interrupt->GetEndpointAddress(), 0x85);
  EXPECT_EQ(interrupt->GetMaxPacketSize(), 0x10u);
  EXPECT_EQ(third->FindPipe(interrupt, 0x80, 3), nullptr);
  EXPECT_EQ(third->FindPipe(NULL, 0, 0xFFFFFFFF), nullptr);  // no OUT pipe
  KnUsbInterface* first = mConfiguration.FindInterface(0, 0xFFFF, 0xFFFF, 0xFFFF);
  KnUsbPipe* out = first->FindPipe(NULL, 0, 0xFFFFFFFF);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->GetEndpointAddress(), 0x02);
  EXPECT_EQ(first->FindPipeByHandle(out->GetPipeHandle()), out);
  EXPECT_EQ(first->FindPipeByHandle(interrupt->GetPipeHandle()), nullptr);
}

}  // namespace
