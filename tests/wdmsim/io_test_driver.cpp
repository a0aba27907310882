#include "io_test_driver.h"

#include <gtest/gtest.h>

#include "kernel_test_helpers.h"

namespace iotest {
namespace {

struct DeviceState {
  Dispatch dispatch;
};

// The driver's own part of every extension, in front of the test's part.
struct ExtensionHeader {
  DeviceState* state;
  void* padding;  // keeps the test's part 16-byte aligned
};

NTSTATUS NTAPI DispatchToTest(PDEVICE_OBJECT device, PIRP irp) {
  auto header = static_cast<ExtensionHeader*>(device->DeviceExtension);
  return header->state->dispatch(device, irp);
}

NTSTATUS NTAPI TestDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
  for (PDRIVER_DISPATCH& dispatch : driver->MajorFunction) dispatch = DispatchToTest;
  return STATUS_SUCCESS;
}

}  // namespace

TestDriver::TestDriver(const std::u16string& serviceName) {
  NTSTATUS status = STATUS_UNSUCCESSFUL;
  mDriver = wdmsim::LoadDriver(serviceName, TestDriverEntry, &status);
  EXPECT_EQ(status, STATUS_SUCCESS);
}

TestDriver::~TestDriver() {
  while (!mDevices.empty()) RemoveDevice(mDevices.back());
  if (mDriver != nullptr) wdmsim::UnloadDriver(mDriver);
}

PDEVICE_OBJECT TestDriver::AddDevice(Dispatch dispatch, PDEVICE_OBJECT below, ULONG extensionSize) {
  PDEVICE_OBJECT device = nullptr;
  NTSTATUS status = IoCreateDevice(mDriver, sizeof(ExtensionHeader) + extensionSize, nullptr, FILE_DEVICE_UNKNOWN,
                                   0, FALSE, &device);
  EXPECT_EQ(status, STATUS_SUCCESS);
  if (device == nullptr) return nullptr;
  static_cast<ExtensionHeader*>(device->DeviceExtension)->state = new DeviceState{std::move(dispatch)};
  if (below != nullptr) {
    EXPECT_NE(IoAttachDeviceToDeviceStack(device, below), nullptr);
  }
  device->Flags &= ~DO_DEVICE_INITIALIZING;
  mDevices.push_back(device);
  return device;
}

void* TestDriver::Extension(PDEVICE_OBJECT device) {
  return static_cast<ExtensionHeader*>(device->DeviceExtension) + 1;
}

void TestDriver::RemoveDevice(PDEVICE_OBJECT device) {
  for (auto it = mDevices.begin(); it != mDevices.end(); ++it) {
    if (*it != device) continue;
    mDevices.erase(it);
    if (wdmsim::AttachedToDevice(device) != nullptr) IoDetachDevice(wdmsim::AttachedToDevice(device));
    delete static_cast<ExtensionHeader*>(device->DeviceExtension)->state;
    IoDeleteDevice(device);
    return;
  }
}

Dispatch CompleteWith(NTSTATUS status, ULONG_PTR information) {
  return [status, information](PDEVICE_OBJECT, PIRP irp) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
  };
}

Dispatch SkipTo(PDEVICE_OBJECT lower) {
  return [lower](PDEVICE_OBJECT, PIRP irp) {
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(lower, irp);
  };
}

namespace {

NTSTATUS NTAPI CountTakeBack(PDEVICE_OBJECT, PIRP, PVOID context) {
  ++*static_cast<std::atomic<int>*>(context);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

}  // namespace

PIRP IoTest::OwnIrp(PDEVICE_OBJECT top, PIO_COMPLETION_ROUTINE routine, PVOID context) {
  PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
  IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
  if (routine == nullptr) {
    routine = CountTakeBack;
    context = &takeBacks;
  }
  IoSetCompletionRoutine(irp, routine, context, TRUE, TRUE, TRUE);
  return irp;
}

SystemThread::SystemThread(std::function<void()> body) : mBody(std::move(body)) {
  mThread = kernel_test::StartSystemThread(Start, this);
  EXPECT_NE(mThread, nullptr);
}

SystemThread::~SystemThread() { Join(); }

void SystemThread::Join() {
  if (mThread != nullptr) kernel_test::JoinSystemThread(mThread);
  mThread = nullptr;
}

void NTAPI SystemThread::Start(PVOID context) { static_cast<SystemThread*>(context)->mBody(); }

namespace {

std::vector<std::u16string> TakeStrings(ULONG_PTR information, bool multi) {
  std::vector<std::u16string> strings;
  auto at = reinterpret_cast<const char16_t*>(information);
  if (at == nullptr) return strings;
  do {
    std::u16string text(at);
    at += text.size() + 1;
    if (text.empty() && multi) break;
    strings.push_back(text);
  } while (multi);
  ExFreePool(reinterpret_cast<PVOID>(information));
  return strings;
}

}  // namespace

std::vector<std::u16string> QueryIds(PDEVICE_OBJECT device, BUS_QUERY_ID_TYPE type) {
  IO_STATUS_BLOCK result = wdmsim::SendPnpIrp(
      device, IRP_MN_QUERY_ID, [type](IO_STACK_LOCATION& stack) { stack.Parameters.QueryId.IdType = type; });
  if (!NT_SUCCESS(result.Status)) return {};
  return TakeStrings(result.Information, type == BusQueryHardwareIDs || type == BusQueryCompatibleIDs);
}

std::u16string QueryText(PDEVICE_OBJECT device, DEVICE_TEXT_TYPE type) {
  IO_STATUS_BLOCK result = wdmsim::SendPnpIrp(device, IRP_MN_QUERY_DEVICE_TEXT, [type](IO_STACK_LOCATION& stack) {
    stack.Parameters.QueryDeviceText.DeviceTextType = type;
  });
  if (!NT_SUCCESS(result.Status)) return u"";
  std::vector<std::u16string> strings = TakeStrings(result.Information, false);
  return strings.empty() ? u"" : strings[0];
}

int CountViolations(const std::vector<wdmsim::Violation>& violations, const std::string& bugcheck,
                    const std::string& text) {
  int n = 0;
  for (const auto& v : violations) {
    n += v.bugcheck == bugcheck && v.message.find(text) != std::string::npos;
  }
  return n;
}

}  // namespace iotest
