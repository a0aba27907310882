// Control URBs translated into device requests as USB 2.0 chapter 9 lays them out. The
// transfer-shaped control URBs share TransferFlags, TransferBufferLength, TransferBuffer
// and TransferBufferMDL at the same offsets, so one reader serves them all.
#include "usb/urb_control_requests.h"

#include <algorithm>

#include <usb200.h>

namespace wdmsim {
namespace usb {
namespace {

constexpr uint8_t kIn = 0x80;
constexpr uint8_t kClass = 1 << 5;
constexpr uint8_t kVendor = 2 << 5;
constexpr uint8_t kDevice = 0, kInterface = 1, kEndpoint = 2, kOther = 3;

enum class Layout { Descriptor, Status, Feature, VendorOrClass, Fixed, Raw };

struct Shape {
  USHORT function;
  Layout layout;
  USHORT minimumLength;
  uint8_t requestType;  // direction (where fixed), type and recipient
  uint8_t request;      // bRequest, where the function fixes it
};

constexpr USHORT kDescriptorSize = sizeof(_URB_CONTROL_DESCRIPTOR_REQUEST);
constexpr USHORT kStatusSize = sizeof(_URB_CONTROL_GET_STATUS_REQUEST);
constexpr USHORT kFeatureSize = sizeof(_URB_CONTROL_FEATURE_REQUEST);
constexpr USHORT kVendorSize = sizeof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST);
constexpr uint8_t kGet = USB_REQUEST_GET_DESCRIPTOR, kSetDescriptor = USB_REQUEST_SET_DESCRIPTOR;
constexpr uint8_t kSet = USB_REQUEST_SET_FEATURE, kClear = USB_REQUEST_CLEAR_FEATURE;

const Shape kShapes[] = {
    {URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, Layout::Descriptor, kDescriptorSize, kIn | kDevice, kGet},
    {URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE, Layout::Descriptor, kDescriptorSize, kIn | kInterface, kGet},
    {URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT, Layout::Descriptor, kDescriptorSize, kIn | kEndpoint, kGet},
    {URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE, Layout::Descriptor, kDescriptorSize, kDevice, kSetDescriptor},
    {URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE, Layout::Descriptor, kDescriptorSize, kInterface, kSetDescriptor},
    {URB_FUNCTION_SET_DESCRIPTOR_TO_ENDPOINT, Layout::Descriptor, kDescriptorSize, kEndpoint, kSetDescriptor},
    {URB_FUNCTION_GET_STATUS_FROM_DEVICE, Layout::Status, kStatusSize, kIn | kDevice, USB_REQUEST_GET_STATUS},
    {URB_FUNCTION_GET_STATUS_FROM_INTERFACE, Layout::Status, kStatusSize, kIn | kInterface, USB_REQUEST_GET_STATUS},
    {URB_FUNCTION_GET_STATUS_FROM_ENDPOINT, Layout::Status, kStatusSize, kIn | kEndpoint, USB_REQUEST_GET_STATUS},
    {URB_FUNCTION_GET_STATUS_FROM_OTHER, Layout::Status, kStatusSize, kIn | kOther, USB_REQUEST_GET_STATUS},
    {URB_FUNCTION_SET_FEATURE_TO_DEVICE, Layout::Feature, kFeatureSize, kDevice, kSet},
    {URB_FUNCTION_SET_FEATURE_TO_INTERFACE, Layout::Feature, kFeatureSize, kInterface, kSet},
    {URB_FUNCTION_SET_FEATURE_TO_ENDPOINT, Layout::Feature, kFeatureSize, kEndpoint, kSet},
    {URB_FUNCTION_SET_FEATURE_TO_OTHER, Layout::Feature, kFeatureSize, kOther, kSet},
    {URB_FUNCTION_CLEAR_FEATURE_TO_DEVICE, Layout::Feature, kFeatureSize, kDevice, kClear},
    {URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE, Layout::Feature, kFeatureSize, kInterface, kClear},
    {URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT, Layout::Feature, kFeatureSize, kEndpoint, kClear},
    {URB_FUNCTION_CLEAR_FEATURE_TO_OTHER, Layout::Feature, kFeatureSize, kOther, kClear},
    {URB_FUNCTION_VENDOR_DEVICE, Layout::VendorOrClass, kVendorSize, kVendor | kDevice, 0},
    {URB_FUNCTION_VENDOR_INTERFACE, Layout::VendorOrClass, kVendorSize, kVendor | kInterface, 0},
    {URB_FUNCTION_VENDOR_ENDPOINT, Layout::VendorOrClass, kVendorSize, kVendor | kEndpoint, 0},
    {URB_FUNCTION_VENDOR_OTHER, Layout::VendorOrClass, kVendorSize, kVendor | kOther, 0},
    {URB_FUNCTION_CLASS_DEVICE, Layout::VendorOrClass, kVendorSize, kClass | kDevice, 0},
    {URB_FUNCTION_CLASS_INTERFACE, Layout::VendorOrClass, kVendorSize, kClass | kInterface, 0},
    {URB_FUNCTION_CLASS_ENDPOINT, Layout::VendorOrClass, kVendorSize, kClass | kEndpoint, 0},
    {URB_FUNCTION_CLASS_OTHER, Layout::VendorOrClass, kVendorSize, kClass | kOther, 0},
    {URB_FUNCTION_GET_CONFIGURATION, Layout::Fixed, sizeof(_URB_CONTROL_GET_CONFIGURATION_REQUEST), kIn | kDevice,
     USB_REQUEST_GET_CONFIGURATION},
    {URB_FUNCTION_GET_INTERFACE, Layout::Fixed, sizeof(_URB_CONTROL_GET_INTERFACE_REQUEST), kIn | kInterface,
     USB_REQUEST_GET_INTERFACE},
    {URB_FUNCTION_CONTROL_TRANSFER, Layout::Raw, sizeof(_URB_CONTROL_TRANSFER), 0, 0},
};

// The request fields each URB shape carries.
void FillSetup(PURB urb, const Shape& shape, UsbSetupPacket& setup) {
  setup.bmRequestType = shape.requestType;
  setup.bRequest = shape.request;
  switch (shape.layout) {
    case Layout::Descriptor: {
      const auto& r = urb->UrbControlDescriptorRequest;
      setup.wValue = static_cast<uint16_t>(r.DescriptorType << 8 | r.Index);
      setup.wIndex = r.LanguageId;
      break;
    }
    case Layout::Status:
      setup.wIndex = urb->UrbControlGetStatusRequest.Index;
      break;
    case Layout::Feature:
      setup.wValue = urb->UrbControlFeatureRequest.FeatureSelector;
      setup.wIndex = urb->UrbControlFeatureRequest.Index;
      break;
    case Layout::VendorOrClass: {
      const auto& r = urb->UrbControlVendorClassRequest;
      setup.bmRequestType = static_cast<uint8_t>(shape.requestType | r.RequestTypeReservedBits |
                                                 ((r.TransferFlags & USBD_TRANSFER_DIRECTION_IN) ? kIn : 0));
      setup.bRequest = r.Request;
      setup.wValue = r.Value;
      setup.wIndex = r.Index;
      break;
    }
    case Layout::Fixed:
      if (shape.function == URB_FUNCTION_GET_INTERFACE) setup.wIndex = urb->UrbControlGetInterfaceRequest.Interface;
      break;
    case Layout::Raw: {
      const UCHAR* raw = urb->UrbControlTransfer.SetupPacket;
      setup.bmRequestType = raw[0];
      setup.bRequest = raw[1];
      setup.wValue = static_cast<uint16_t>(raw[2] | raw[3] << 8);
      setup.wIndex = static_cast<uint16_t>(raw[4] | raw[5] << 8);
      break;
    }
  }
}

}  // namespace

uint8_t* TransferBufferOf(PVOID buffer, PMDL mdl) {
  if (buffer != nullptr) return static_cast<uint8_t*>(buffer);
  if (mdl != nullptr) return static_cast<uint8_t*>(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority));
  return nullptr;
}

USBD_STATUS ControlRequestFor(PURB urb, ControlRequest* request) {
  const USHORT function = urb->UrbHeader.Function;
  const Shape* shape = std::find_if(std::begin(kShapes), std::end(kShapes),
                                    [function](const Shape& s) { return s.function == function; });
  if (shape == std::end(kShapes)) return USBD_STATUS_INVALID_URB_FUNCTION;
  if (urb->UrbHeader.Length < shape->minimumLength) return USBD_STATUS_INVALID_PARAMETER;
  if (function == URB_FUNCTION_CONTROL_TRANSFER && urb->UrbControlTransfer.PipeHandle != nullptr &&
      !(urb->UrbControlTransfer.TransferFlags & USBD_DEFAULT_PIPE_TRANSFER)) {
    return USBD_STATUS_INVALID_PIPE_HANDLE;  // only the default pipe carries control transfers here
  }
  *request = ControlRequest();
  FillSetup(urb, *shape, request->setup);
  if (shape->layout != Layout::Feature) {
    const auto& t = urb->UrbControlTransfer;  // the common transfer fields
    request->length = std::min<ULONG>(t.TransferBufferLength, 0xFFFF);
    request->buffer = TransferBufferOf(t.TransferBuffer, t.TransferBufferMDL);
    if (request->length > 0 && request->buffer == nullptr) return USBD_STATUS_INVALID_PARAMETER;
  }
  request->setup.wLength = static_cast<uint16_t>(request->length);
  return USBD_STATUS_SUCCESS;
}

}  // namespace usb
}  // namespace wdmsim
