#include "usb_select_double.h"

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

#include <usbdlib.h>
#include <usbioctl.h>
#include <wdmsim/io.h>

#include "support_test_driver.h"

namespace kntest {

namespace {

void Complete(PIRP irp, NTSTATUS status) {
  irp->IoStatus.Status = status;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
}

}  // namespace

UsbSelectDouble::UsbSelectDouble(std::vector<UCHAR> configurationSet) : mSet(std::move(configurationSet)) {
  mDriver = LoadTestDriver();
  EXPECT_NE(mDriver, nullptr);
  wdmsim::RawPdoOptions options;
  options.hook = [this](PDEVICE_OBJECT, PIRP irp, NTSTATUS* status) { return Dispatch(irp, status); };
  mPdo = wdmsim::CreateRawPdo(options);
  EXPECT_EQ(IoCreateDevice(mDriver, 0, NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, &mDevice), STATUS_SUCCESS);
  EXPECT_EQ(lower.AttachToPnpDeviceStack(mDevice, mPdo), STATUS_SUCCESS);
}

UsbSelectDouble::~UsbSelectDouble() {
  EXPECT_EQ(PendingReads(), 0u) << "a read was left with the stack";
  lower.DetachFromPnpDeviceStack();
  IoDeleteDevice(mDevice);
  wdmsim::DeleteRawPdo(mPdo);
  EXPECT_TRUE(wdmsim::UnloadDriver(mDriver));
}

std::vector<USHORT> UsbSelectDouble::TakeFunctions() {
  std::lock_guard<std::mutex> guard(mMutex);
  std::vector<USHORT> taken;
  taken.swap(mFunctions);
  return taken;
}

void UsbSelectDouble::FailNext(USHORT function, NTSTATUS irpStatus, USBD_STATUS urbStatus) {
  std::lock_guard<std::mutex> guard(mMutex);
  mFailures[function] = Failure{irpStatus, urbStatus};
}

size_t UsbSelectDouble::PendingReads() {
  std::lock_guard<std::mutex> guard(mMutex);
  return mReads.size();
}

bool UsbSelectDouble::IsValidPipe(USBD_PIPE_HANDLE handle) {
  std::lock_guard<std::mutex> guard(mMutex);
  return mPipes.count(handle) != 0;
}

USBD_CONFIGURATION_HANDLE UsbSelectDouble::ConfigurationHandle() {
  std::lock_guard<std::mutex> guard(mMutex);
  return mConfiguration;
}

void UsbSelectDouble::CompleteRead(const std::vector<UCHAR>& data) {
  PIRP irp = nullptr;
  {
    std::lock_guard<std::mutex> guard(mMutex);
    ASSERT_FALSE(mReads.empty());
    irp = mReads.front();
    mReads.pop_front();
  }
  PURB urb = static_cast<PURB>(IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1);
  auto& transfer = urb->UrbBulkOrInterruptTransfer;
  const ULONG length = std::min<ULONG>(transfer.TransferBufferLength, static_cast<ULONG>(data.size()));
  std::memcpy(transfer.TransferBuffer, data.data(), length);
  transfer.TransferBufferLength = length;
  urb->UrbHeader.Status = USBD_STATUS_SUCCESS;
  Complete(irp, STATUS_SUCCESS);
}

bool UsbSelectDouble::Select(PUSBD_INTERFACE_INFORMATION information) {
  auto* configuration = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(mSet.data());
  PUSB_INTERFACE_DESCRIPTOR descriptor = USBD_ParseConfigurationDescriptorEx(
      configuration, configuration, information->InterfaceNumber, information->AlternateSetting, -1, -1, -1);
  if (descriptor == nullptr ||
      information->Length < GET_USBD_INTERFACE_SIZE(descriptor->bNumEndpoints)) {
    return false;
  }
  for (auto it = mPipes.begin(); it != mPipes.end();) {
    it = (it->second == information->InterfaceNumber) ? mPipes.erase(it) : std::next(it);
  }
  information->Class = descriptor->bInterfaceClass;
  information->SubClass = descriptor->bInterfaceSubClass;
  information->Protocol = descriptor->bInterfaceProtocol;
  information->InterfaceHandle = NewHandle();
  information->NumberOfPipes = descriptor->bNumEndpoints;
  PVOID position = descriptor;
  for (ULONG i = 0; i < descriptor->bNumEndpoints; ++i) {
    auto* endpoint = reinterpret_cast<PUSB_ENDPOINT_DESCRIPTOR>(USBD_ParseDescriptors(
        mSet.data(), configuration->wTotalLength, position, USB_ENDPOINT_DESCRIPTOR_TYPE));
    if (endpoint == nullptr) {
      return false;
    }
    USBD_PIPE_INFORMATION& pipe = information->Pipes[i];
    pipe.MaximumPacketSize = endpoint->wMaxPacketSize;
    pipe.EndpointAddress = endpoint->bEndpointAddress;
    pipe.Interval = endpoint->bInterval;
    pipe.PipeType = static_cast<USBD_PIPE_TYPE>(endpoint->bmAttributes & 0x03);
    pipe.PipeHandle = NewHandle();
    mPipes[pipe.PipeHandle] = information->InterfaceNumber;
    position = reinterpret_cast<UCHAR*>(endpoint) + endpoint->bLength;
  }
  return true;
}

bool UsbSelectDouble::Dispatch(PIRP irp, NTSTATUS* dispatchStatus) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  if (stack->MajorFunction != IRP_MJ_INTERNAL_DEVICE_CONTROL ||
      stack->Parameters.DeviceIoControl.IoControlCode != IOCTL_INTERNAL_USB_SUBMIT_URB) {
    return false;
  }
  PURB urb = static_cast<PURB>(stack->Parameters.Others.Argument1);
  std::vector<PIRP> aborted;
  USBD_STATUS urbStatus = USBD_STATUS_SUCCESS;
  {
    std::lock_guard<std::mutex> guard(mMutex);
    const USHORT function = urb->UrbHeader.Function;
    mFunctions.push_back(function);
    auto failure = mFailures.find(function);
    if (failure != mFailures.end()) {
      urb->UrbHeader.Status = failure->second.urbStatus;
      const NTSTATUS status = failure->second.irpStatus;
      mFailures.erase(failure);
      Complete(irp, status);
      *dispatchStatus = status;
      return true;
    }
    switch (function) {
      case URB_FUNCTION_SELECT_CONFIGURATION: {
        mPipes.clear();
        mConfiguration = nullptr;
        auto& select = urb->UrbSelectConfiguration;
        if (select.ConfigurationDescriptor == nullptr) {
          break;  // unconfigured
        }
        auto* position = reinterpret_cast<UCHAR*>(&select.Interface);
        auto* end = reinterpret_cast<UCHAR*>(urb) + urb->UrbHeader.Length;
        while (position < end && urbStatus == USBD_STATUS_SUCCESS) {
          auto* information = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(position);
          if (information->Length == 0 || !Select(information)) {
            urbStatus = USBD_STATUS_INVALID_PARAMETER;
          }
          position += information->Length;
        }
        if (urbStatus == USBD_STATUS_SUCCESS) {
          mConfiguration = select.ConfigurationHandle = NewHandle();
        } else {
          mPipes.clear();
        }
        break;
      }
      case URB_FUNCTION_SELECT_INTERFACE:
        if (mConfiguration == nullptr || urb->UrbSelectInterface.ConfigurationHandle != mConfiguration ||
            !Select(&urb->UrbSelectInterface.Interface)) {
          urbStatus = USBD_STATUS_INVALID_PARAMETER;
        }
        break;
      case URB_FUNCTION_RESET_PIPE:
      case URB_FUNCTION_ABORT_PIPE:
        if (mPipes.count(urb->UrbPipeRequest.PipeHandle) == 0) {
          urbStatus = USBD_STATUS_INVALID_PIPE_HANDLE;
        } else if (function == URB_FUNCTION_ABORT_PIPE) {
          for (auto it = mReads.begin(); it != mReads.end();) {
            PURB read = static_cast<PURB>(IoGetCurrentIrpStackLocation(*it)->Parameters.Others.Argument1);
            if (read->UrbBulkOrInterruptTransfer.PipeHandle == urb->UrbPipeRequest.PipeHandle) {
              aborted.push_back(*it);
              it = mReads.erase(it);
            } else {
              ++it;
            }
          }
        }
        break;
      case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
        if (mPipes.count(urb->UrbBulkOrInterruptTransfer.PipeHandle) == 0) {
          urbStatus = USBD_STATUS_INVALID_PIPE_HANDLE;
          break;
        }
        urb->UrbHeader.Status = USBD_STATUS_PENDING;
        IoMarkIrpPending(irp);
        mReads.push_back(irp);
        *dispatchStatus = STATUS_PENDING;
        return true;
      default:
        urbStatus = USBD_STATUS_INVALID_URB_FUNCTION;
        break;
    }
  }
  for (PIRP read : aborted) {
    static_cast<PURB>(IoGetCurrentIrpStackLocation(read)->Parameters.Others.Argument1)->UrbHeader.Status =
        USBD_STATUS_CANCELED;
    static_cast<PURB>(IoGetCurrentIrpStackLocation(read)->Parameters.Others.Argument1)
        ->UrbBulkOrInterruptTransfer.TransferBufferLength = 0;
    Complete(read, STATUS_CANCELLED);
  }
  urb->UrbHeader.Status = urbStatus;
  const NTSTATUS status = USBD_SUCCESS(urbStatus) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
  Complete(irp, status);
  *dispatchStatus = status;
  return true;
}

}  // namespace kntest
