// The USB lower device on a device PDO of the simulated hub: waiting for an IRP with and
// without a time-out (a time-out cancels and still waits for the IRP), the URB status left
// to the caller, the asynchronous path's completion routine called exactly once, allocation
// failures reported without a call; the port cycle, the identifier query, device
// properties; descriptor requests (the device descriptor's length, the language a string is
// read in, strings that are always terminated).
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdmsim/io.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

#include <usb200.h>
#include <usbdlib.h>

#include "support_test_driver.h"
#include "usb_device_on_bus.h"

namespace {

using Bytes = std::vector<UCHAR>;
using kntest::Has;

constexpr char16_t kText[] = u"Composite Device";

// kText as product (index 1) and an empty string at index 2, in every language of the table.
wdmsim::UsbDeviceDescription Stick(const std::vector<uint16_t>& languages = {0x0409}) {
  wdmsim::UsbDescriptionBuilder builder(0x4A9B, 0x0072);
  builder.DeviceClass(0xFF, 0, 0).Languages(languages).Product(kText).Manufacturer(u"-");
  builder.Configuration(1, 0x80, 100).Interface(0, 0, 0xFF, 0, 0);
  wdmsim::UsbDeviceDescription description = builder.Build();
  description.SetString(2, u"");
  return description;
}

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

void BuildDeviceDescriptorUrb(URB* urb, PVOID buffer, ULONG length = sizeof(USB_DEVICE_DESCRIPTOR), UCHAR type = 1) {
  RtlZeroMemory(urb, sizeof(*urb));
  UsbBuildGetDescriptorRequest(urb, sizeof(_URB_CONTROL_DESCRIPTOR_REQUEST), type, 0, 0, buffer, NULL, length, NULL);
}

class LowerDeviceOnBus : public kntest::FrameworkTest {
 protected:
  void SetUp() override { Plug(std::make_shared<wdmsim::UsbFirmware>(Stick())); }
  void TearDown() override { mDevice.reset(); }
  void Plug(std::shared_ptr<wdmsim::UsbFirmware> firmware) {
    mDevice.reset();  // one bus at a time
    mDevice = std::make_unique<kntest::UsbDeviceOnBus>(std::move(firmware));
  }
  uint32_t ElapsedMs(int64_t since) { return static_cast<uint32_t>((mKernel.SystemTime() - since) / 10000); }
  // The control requests the device processed since the last call.
  std::vector<wdmsim::UsbSetupPacket> TakeSetups() {
    std::vector<wdmsim::UsbSetupPacket> setups;
    for (const auto& record : mDevice->firmware().TakeControlLog()) setups.push_back(record.setup);
    return setups;
  }

  std::unique_ptr<kntest::UsbDeviceOnBus> mDevice;
};

class UrbSubmission : public LowerDeviceOnBus {};
class DescriptorRequests : public LowerDeviceOnBus {};

// Every request goes through SubmitUrbAndWait, which allocates the IRP: every row also shows
// that the IRP was freed exactly once (a leak is left live, a second free is a violation).
TEST_F(LowerDeviceOnBus, CallDriverAndWaitReturnsOnlyOnceTheIrpIsBack) {
  enum class Request { DeviceDescriptor, MissingDescriptor, FrameNumber, AbortUnknownPipe };
  struct Case {
    const char* name;
    Request request;
    uint32_t latencyMs;  // of the device's control pipe
    bool held;           // the control pipe NAKs until released
    bool completeAfterCancel;
    ULONG timeoutMs;
    NTSTATUS expected;
    USBD_STATUS urbStatus;
    uint32_t elapsedMs;
  } cases[] = {
      {"answered in the dispatch routine", Request::FrameNumber, 0, false, false, 1000, STATUS_SUCCESS,
       USBD_STATUS_SUCCESS, 0},
      {"refused in the dispatch routine", Request::AbortUnknownPipe, 0, false, false, 1000, STATUS_INVALID_PARAMETER,
       USBD_STATUS_INVALID_PIPE_HANDLE, 0},
      {"stalled by the device", Request::MissingDescriptor, 0, false, false, 0, STATUS_UNSUCCESSFUL,
       USBD_STATUS_STALL_PID, 0},
      {"no time-out waits as long as it takes", Request::DeviceDescriptor, 600000, false, false, 0, STATUS_SUCCESS,
       USBD_STATUS_SUCCESS, 600000},
      {"back a millisecond before the time-out", Request::DeviceDescriptor, 999, false, false, 1000, STATUS_SUCCESS,
       USBD_STATUS_SUCCESS, 999},
      {"a millisecond too late: cancelled", Request::DeviceDescriptor, 1001, false, false, 1000, STATUS_IO_TIMEOUT,
       USBD_STATUS_CANCELED, 1000},
      {"never answered: cancelled", Request::DeviceDescriptor, 0, true, false, 50, STATUS_IO_TIMEOUT,
       USBD_STATUS_CANCELED, 50},
      // The answer is on its way when the time-out strikes: the cancel comes too late, the
      // IRP finishes with success, and the caller still hears of the time-out once it is back.
      {"finished despite the cancel", Request::DeviceDescriptor, 300, false, true, 100, STATUS_IO_TIMEOUT,
       USBD_STATUS_SUCCESS, 300},
  };
  const Bytes& deviceDescriptor = mDevice->firmware().Description().device;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    wdmsim::ClearUsbFaults();
    mDevice->firmware().SetLatency(0x00, c.latencyMs);
    mDevice->firmware().SetHeld(0x00, c.held);
    if (c.completeAfterCancel) {
      wdmsim::UsbFaultPoint tooLate;
      tooLate.fault = wdmsim::UsbFault::CompleteAfterCancel;
      wdmsim::ArmUsbFault(tooLate);
    }
    URB urb;
    Bytes buffer(18, 0xEE);
    BuildDeviceDescriptorUrb(&urb, buffer.data(), 18, c.request == Request::MissingDescriptor ? 0x06 : 0x01);
    if (c.request == Request::FrameNumber) {
      urb.UrbHeader.Length = sizeof(_URB_GET_CURRENT_FRAME_NUMBER);
      urb.UrbHeader.Function = URB_FUNCTION_GET_CURRENT_FRAME_NUMBER;
    } else if (c.request == Request::AbortUnknownPipe) {
      RtlZeroMemory(&urb, sizeof(urb));
      urb.UrbHeader.Length = sizeof(_URB_PIPE_REQUEST);
      urb.UrbHeader.Function = URB_FUNCTION_ABORT_PIPE;
      urb.UrbPipeRequest.PipeHandle = reinterpret_cast<USBD_PIPE_HANDLE>(0x5A5A0);
    }
    const int64_t start = mKernel.SystemTime();
    EXPECT_EQ(c.expected, mDevice->lower.SubmitUrbAndWait(&urb, c.timeoutMs));
    EXPECT_EQ(c.elapsedMs, ElapsedMs(start));
    EXPECT_EQ(c.urbStatus, urb.UrbHeader.Status);
    EXPECT_EQ(c.completeAfterCancel ? 1 : 0, wdmsim::UsbFaultHits(wdmsim::UsbFault::CompleteAfterCancel));
    if (c.request == Request::DeviceDescriptor) {
      const bool delivered = c.urbStatus == USBD_STATUS_SUCCESS;
      EXPECT_EQ(delivered ? 18u : 0u, urb.UrbControlDescriptorRequest.TransferBufferLength);
      if (delivered) { EXPECT_EQ(deviceDescriptor, buffer); }
    }
    EXPECT_EQ(0u, wdmsim::LiveIrpCount());
    EXPECT_EQ(0u, mDevice->PendingTransfers());
  }
  mDevice->firmware().SetHeld(0x00, false);
}

TEST_F(UrbSubmission, SubmitUrbAndWaitLeavesTheUrbStatusToTheCaller) {
  URB urb;
  USB_DEVICE_DESCRIPTOR descriptor;
  BuildDeviceDescriptorUrb(&urb, &descriptor);
  // A bus error inside a successful IRP: the operation succeeds, the URB tells the story.
  mDevice->FailNext(URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, STATUS_SUCCESS, USBD_STATUS_STALL_PID);
  EXPECT_EQ(STATUS_SUCCESS, mDevice->lower.SubmitUrbAndWait(&urb, 0));
  EXPECT_EQ(1, wdmsim::UsbFaultHits(wdmsim::UsbFault::FailUrb));
  EXPECT_EQ(USBD_STATUS_STALL_PID, urb.UrbHeader.Status);

  // A failed IRP is the result, and the caller hears of it.
  BuildDeviceDescriptorUrb(&urb, &descriptor);
  mDevice->FailNext(URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, STATUS_DEVICE_DATA_ERROR, USBD_STATUS_DEV_NOT_RESPONDING);
  TakeTrace();
  EXPECT_EQ(STATUS_DEVICE_DATA_ERROR, mDevice->lower.SubmitUrbAndWait(&urb, 0));
  EXPECT_EQ(USBD_STATUS_DEV_NOT_RESPONDING, urb.UrbHeader.Status);
  EXPECT_TRUE(Has(TakeTrace(), "KnPnPLowerDeviceUsb::SubmitUrbAndWait: CallDriverAndWait failed"));

  BuildDeviceDescriptorUrb(&urb, &descriptor);
  EXPECT_EQ(STATUS_SUCCESS, mDevice->lower.SubmitUrbAndWait(&urb, 0));
  EXPECT_EQ(USBD_STATUS_SUCCESS, urb.UrbHeader.Status);
  EXPECT_EQ(sizeof(descriptor), urb.UrbControlDescriptorRequest.TransferBufferLength);
  EXPECT_EQ(0x4A9B, descriptor.idVendor);
}

struct Completion {
  std::atomic<int> calls{0};
  KIRQL irql = HIGH_LEVEL;
  NTSTATUS status = STATUS_PENDING;
  KEVENT done;
  Completion() { KeInitializeEvent(&done, NotificationEvent, FALSE); }

  static NTSTATUS OnSubmitted(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    auto* completion = static_cast<Completion*>(context);
    completion->irql = KeGetCurrentIrql();
    completion->status = irp->IoStatus.Status;
    IoFreeIrp(irp);
    ++completion->calls;
    KeSetEvent(&completion->done, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
  }
};

TEST_F(UrbSubmission, SubmitUrbCallsTheCompletionRoutineExactlyOncePerSentIrp) {
  enum class Answer { InDispatch, RefusedInDispatch, FromHostController };
  struct Case {
    const char* name;
    Answer answer;
    NTSTATUS returned;
    NTSTATUS completed;
    KIRQL irql;
  } cases[] = {
      // The current frame number needs no bus time: the stack answers at once.
      {"answered in the dispatch routine", Answer::InDispatch, STATUS_SUCCESS, STATUS_SUCCESS, PASSIVE_LEVEL},
      // A transfer on a pipe no selection handed out (the device is not even configured).
      {"refused in the dispatch routine", Answer::RefusedInDispatch, STATUS_INVALID_PARAMETER,
       STATUS_INVALID_PARAMETER, PASSIVE_LEVEL},
      {"answered by the host controller", Answer::FromHostController, STATUS_PENDING, STATUS_SUCCESS, DISPATCH_LEVEL},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    URB urb;
    USB_DEVICE_DESCRIPTOR descriptor;
    BuildDeviceDescriptorUrb(&urb, &descriptor);
    if (c.answer == Answer::InDispatch) {
      urb.UrbHeader.Length = sizeof(_URB_GET_CURRENT_FRAME_NUMBER);
      urb.UrbHeader.Function = URB_FUNCTION_GET_CURRENT_FRAME_NUMBER;
    }
    // The device answers after 10 ms of virtual time, which cannot pass while this thread runs:
    // whether the routine ran before SubmitUrb returned does not depend on the host's timing.
    mDevice->firmware().SetLatency(0x00, c.answer == Answer::FromHostController ? 10 : 0);
    if (c.answer == Answer::RefusedInDispatch) {
      RtlZeroMemory(&urb, sizeof(urb));
      UsbBuildInterruptOrBulkTransferRequest(&urb, sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER),
                                             reinterpret_cast<USBD_PIPE_HANDLE>(0x5A5A0), &descriptor, NULL,
                                             sizeof(descriptor), USBD_SHORT_TRANSFER_OK, NULL);
    }
    TakeTrace();
    Completion completion;
    BOOLEAN willComplete = FALSE;
    EXPECT_EQ(c.returned, mDevice->lower.SubmitUrb(&urb, Completion::OnSubmitted, &completion, &willComplete));
    EXPECT_TRUE(willComplete);
    EXPECT_EQ(c.answer == Answer::FromHostController ? 0 : 1, completion.calls.load());  // before returning?
    EXPECT_TRUE(
        kntest::HasIf(!NT_SUCCESS(c.returned), TakeTrace(), "KnPnPLowerDeviceUsb::SubmitUrb: CallDriver failed"));
    KeWaitForSingleObject(&completion.done, Executive, KernelMode, FALSE, NULL);
    mKernel.RunUntilIdle();
    EXPECT_EQ(1, completion.calls.load());
    EXPECT_EQ(c.completed, completion.status);
    EXPECT_EQ(c.irql, completion.irql);
    EXPECT_EQ(0u, wdmsim::LiveIrpCount());
  }
}

TEST_F(UrbSubmission, WithoutAnIrpNothingIsSentAndNoCompletionRoutineRuns) {
  URB urb;
  USB_DEVICE_DESCRIPTOR descriptor;
  BuildDeviceDescriptorUrb(&urb, &descriptor);
  Completion completion;
  BOOLEAN willComplete = TRUE;
  mDevice->TakeFunctions();
  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES,
            mDevice->lower.SubmitUrb(&urb, Completion::OnSubmitted, &completion, &willComplete));
  EXPECT_FALSE(willComplete);
  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mDevice->lower.SubmitUrb(&urb, Completion::OnSubmitted, &completion, NULL));
  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mDevice->lower.SubmitUrbAndWait(&urb, 0));
  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mDevice->lower.CylePort(0));
  mKernel.RunUntilIdle();
  EXPECT_EQ(0, completion.calls.load());
  EXPECT_TRUE(mDevice->TakeFunctions().empty());
  EXPECT_EQ(mDevice->Pdo(), mDevice->Port().pdo);  // the port was not cycled
  std::string trace = TakeTrace();
  EXPECT_TRUE(Has(trace, "KnPnPLowerDeviceUsb::SubmitUrb: FATAL! IoAllocateIrp failed."));
  EXPECT_TRUE(Has(trace, "KnPnPLowerDeviceUsb::SubmitUrbAndWait: FATAL! IoAllocateIrp failed."));
  EXPECT_TRUE(Has(trace, "KnPnPLowerDeviceUsb::CylePort: FATAL! IoAllocateIrp failed."));
  EXPECT_EQ(0u, wdmsim::LiveIrpCount());
}

TEST_F(LowerDeviceOnBus, CylePortMakesTheHubReplugTheDeviceUnderANewPdo) {
  const PDEVICE_OBJECT before = mDevice->Pdo();
  const int64_t start = mKernel.SystemTime();
  EXPECT_EQ(STATUS_SUCCESS, mDevice->lower.CylePort(2500));
  EXPECT_EQ(0u, ElapsedMs(start));
  EXPECT_EQ(0u, wdmsim::LiveIrpCount());
  const PDEVICE_OBJECT after = mDevice->Port().pdo;
  EXPECT_NE(nullptr, after);
  EXPECT_NE(before, after);

  // The PDO below us has left the bus: whatever is sent to it fails.
  TakeTrace();
  EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, mDevice->lower.CylePort(2500));
  EXPECT_TRUE(Has(TakeTrace(), "KnPnPLowerDeviceUsb::CylePort: CallDriverAndWait failed"));
  USB_DEVICE_DESCRIPTOR descriptor;
  EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, mDevice->lower.GetDeviceDescriptor(&descriptor, 2500));
  EXPECT_EQ(0u, wdmsim::LiveIrpCount());
}

TEST_F(LowerDeviceOnBus, QueryIdAndDevicePropertyHandOverTheHubsAnswers) {
  PWCHAR id = reinterpret_cast<PWCHAR>(static_cast<ULONG_PTR>(0x5A5A));
  // The stick has no container ID of its own: the hub's PDO leaves that query to the PnP manager.
  EXPECT_EQ(STATUS_NOT_SUPPORTED, mDevice->lower.QueryId(BusQueryContainerID, &id));
  EXPECT_EQ(nullptr, id);
  EXPECT_TRUE(Has(TakeTrace(), "KnTargetDevice::QueryId: IRP failed with status"));

  ASSERT_EQ(STATUS_SUCCESS, mDevice->lower.QueryId(BusQueryDeviceID, &id));
  ASSERT_NE(nullptr, id);
  EXPECT_EQ(std::u16string(u"USB\\VID_4A9B&PID_0072"), std::u16string(reinterpret_cast<char16_t*>(id)));
  ExFreePool(id);

  wdmsim::FailIrpAllocations(1);
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mDevice->lower.QueryId(BusQueryDeviceID, &id));
  EXPECT_EQ(nullptr, id);
  EXPECT_TRUE(Has(TakeTrace(), "KnTargetDevice::QueryId: IoBuildSynchronousFsdRequest failed"));
  EXPECT_EQ(0u, wdmsim::LiveIrpCount());

  // A buffer too small passes the platform's status on with the length needed.
  WCHAR small[2], large[64];
  ULONG needed = 0;
  EXPECT_EQ(STATUS_BUFFER_TOO_SMALL,
            mDevice->lower.GetDeviceProperty(DevicePropertyDeviceDescription, sizeof(small), small, &needed));
  EXPECT_EQ(sizeof(kText), needed);
  EXPECT_TRUE(Has(TakeTrace(), "KnPnPLowerDevice::GetDeviceProperty: IoGetDeviceProperty 0 failed"));
  EXPECT_EQ(STATUS_SUCCESS,
            mDevice->lower.GetDeviceProperty(DevicePropertyDeviceDescription, sizeof(large), large, &needed));
  EXPECT_EQ(std::u16string(kText), std::u16string(reinterpret_cast<char16_t*>(large)));
}

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
    if (c.table == Table::GermanAndEnglish) Plug(std::make_shared<wdmsim::UsbFirmware>(Stick({0x0409, 0x0407})));
    if (c.table == Table::Empty) Plug(std::make_shared<EmptyLanguageTable>(Stick()));
    if (c.table == Table::None) Plug(std::make_shared<wdmsim::UsbFirmware>(Stick({})));
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
    // The device has no strings in language 0.
    EXPECT_EQ(c.used == 0 ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS, status);
    if (c.used != 0) {
      EXPECT_EQ(2 + 2 * std::u16string(kText).size(), received);
      EXPECT_EQ('C', buffer[2]);
    }
  }
}

TEST_F(DescriptorRequests, GetStringIsAlwaysTerminatedWithinTheDestination) {
  struct Case {
    const char* name;
    UCHAR index;
    ULONG chars;  // of the destination
    NTSTATUS status;
    std::u16string text;
    USHORT asked;  // wLength of the string's request, 0 if not checked
  } cases[] = {
      {"cut to the destination", 1, 8, STATUS_SUCCESS, u"Composi", 16},
      {"whole", 1, 200, STATUS_SUCCESS, kText, 255},
      {"only the 2 header bytes: empty", 2, 8, STATUS_SUCCESS, u"", 16},
      // A string the device lacks stalls: the caller hears of it and gets an empty string.
      {"missing", 0xEE, 8, STATUS_UNSUCCESSFUL, u"", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TakeSetups();
    TakeTrace();
    std::vector<WCHAR> buffer(c.chars, 0xAAAA);
    EXPECT_EQ(c.status, mDevice->lower.GetString(c.index, 0x0409, buffer.data(), c.chars * 2, 2500));
    EXPECT_EQ(c.text, std::u16string(reinterpret_cast<char16_t*>(buffer.data())));
    if (c.chars == 8) {  // everything behind the text is cleared
      EXPECT_EQ(std::vector<WCHAR>(8 - c.text.size(), 0), std::vector<WCHAR>(buffer.begin() + c.text.size(), buffer.end()));
    }
    const auto setups = TakeSetups();
    ASSERT_EQ(2u, setups.size());
    if (c.asked != 0) { EXPECT_EQ(c.asked, setups[1].wLength); }
    EXPECT_TRUE(kntest::HasIf(c.status != STATUS_SUCCESS, TakeTrace(), "SubmitUrbAndWait: CallDriverAndWait failed"));
  }
}

TEST_F(DescriptorRequests, DeviceDescriptorMustBeExactlyEighteenBytes) {
  const Bytes device = Stick().device;
  const Bytes set = Stick().configurations[0];
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
    if (c.expected == STATUS_SUCCESS) { EXPECT_EQ(0x0072, descriptor.idProduct); }
  }
}

}  // namespace
