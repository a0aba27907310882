// UsbFirmware: a device's side of the bus. The public entry points take the state lock only
// to decide and to update; hooks and the listener run without it, so that a hook may feed
// data and a listener may call back in.
#include <wdmsim/usbdevice.h>

#include <algorithm>
#include <cstring>

#include "usb/descriptor_walk.h"

#include <usb200.h>

namespace wdmsim {

namespace {

constexpr uint8_t kControlPipe = 0x00;
constexpr uint8_t kRecipientDevice = 0;
constexpr uint8_t kRecipientInterface = 1;
constexpr uint8_t kRecipientEndpoint = 2;
constexpr uint8_t kTypeStandard = 0;
constexpr uint8_t kTypeClass = 1;
constexpr uint8_t kTypeVendor = 2;
constexpr size_t kMaxStringCharacters = 126;  // bLength is one byte: 2 + 2 * 126 = 254

bool IsControlPipe(uint8_t endpointAddress) { return (endpointAddress & 0x0F) == 0; }

// Copies an answer into an IN data stage: a short read when the host asked for less.
UsbTransferResult Answer(const std::vector<uint8_t>& bytes, const UsbSetupPacket& setup, uint8_t* data) {
  const size_t length = std::min<size_t>(bytes.size(), setup.wLength);
  if (length > 0) {
    std::memcpy(data, bytes.data(), length);
  }
  return UsbTransferResult::Done(static_cast<uint32_t>(length));
}

std::vector<uint8_t> StringDescriptor(const std::u16string& text) {
  const size_t characters = std::min(text.size(), kMaxStringCharacters);
  std::vector<uint8_t> bytes{static_cast<uint8_t>(2 + 2 * characters), USB_STRING_DESCRIPTOR_TYPE};
  for (size_t i = 0; i < characters; ++i) {
    bytes.push_back(static_cast<uint8_t>(text[i]));
    bytes.push_back(static_cast<uint8_t>(text[i] >> 8));
  }
  return bytes;
}

// Calls visit(interface descriptor, endpoint descriptor or null) for every descriptor of a
// set that belongs to an interface, tolerating a set that does not frame.
template <typename F>
void ForEachInterfaceDescriptor(const std::vector<uint8_t>& set, F&& visit) {
  const uint8_t* currentInterface = nullptr;
  usb::WalkConfigurationSet(set.data(), set.size(), [&](const usb::DescriptorView& d) {
    if (d.type() == USB_INTERFACE_DESCRIPTOR_TYPE && d.length() >= 9) {
      currentInterface = d.bytes;
      visit(currentInterface, static_cast<const uint8_t*>(nullptr));
    } else if (d.type() == USB_ENDPOINT_DESCRIPTOR_TYPE && d.length() >= 7 && currentInterface != nullptr) {
      visit(currentInterface, d.bytes);
    }
  });
}

}  // namespace

UsbFirmware::UsbFirmware(UsbDeviceDescription description) : mDescription(std::move(description)) {}

UsbFirmware::~UsbFirmware() = default;

template <typename F>
void UsbFirmware::Notify(F&& call) {
  std::lock_guard<std::recursive_mutex> guard(mListenerMutex);
  if (mListener != nullptr) {
    call(*mListener);
  }
}

void UsbFirmware::SetListener(UsbFirmwareListener* listener) {
  std::lock_guard<std::recursive_mutex> guard(mListenerMutex);
  mListener = listener;
}

void UsbFirmware::NotifyEndpointReady(uint8_t endpointAddress) {
  Notify([&](UsbFirmwareListener& l) { l.OnEndpointReady(endpointAddress); });
}

// ---- The simulated bus ---------------------------------------------------------------

UsbTransferResult UsbFirmware::Control(const UsbSetupPacket& setup, uint8_t* data) {
  uint32_t latency = 0;
  {
    std::lock_guard<std::mutex> guard(mMutex);
    if (mDisconnected) {
      return UsbTransferResult::NoResponse();
    }
    if (mHeld.count(kControlPipe)) {
      return UsbTransferResult::Nak();
    }
    auto it = mLatency.find(kControlPipe);
    latency = it == mLatency.end() ? 0 : it->second;
  }
  UsbTransferResult result;
  if (IsHalted(kControlPipe)) {
    result = UsbTransferResult::Stall();
  } else if (setup.Type() == kTypeStandard) {
    result = OnStandardRequest(setup, data);
  } else if (setup.Type() == kTypeClass || setup.Type() == kTypeVendor) {
    result = OnClassOrVendorRequest(setup, data);
  } else {
    result = UsbTransferResult::Stall();
  }
  if (result.outcome == UsbOutcome::Completed) {
    result.length = setup.IsIn() ? std::min<uint32_t>(result.length, setup.wLength) : setup.wLength;
  }
  if (result.outcome != UsbOutcome::Pending) {
    UsbControlRecord record{setup, {}, result.outcome};
    if (!setup.IsIn() && setup.wLength > 0 && data != nullptr) {
      record.outData.assign(data, data + setup.wLength);
    }
    std::lock_guard<std::mutex> guard(mMutex);
    mControlLog.push_back(std::move(record));
  }
  result.latencyMs += latency;
  return result;
}

UsbTransferResult UsbFirmware::Transfer(uint8_t endpointAddress, uint8_t* buffer, uint32_t length) {
  uint32_t latency = 0;
  {
    std::lock_guard<std::mutex> guard(mMutex);
    if (mDisconnected || !mActiveEndpoints.count(endpointAddress)) {
      return UsbTransferResult::NoResponse();
    }
    auto it = mLatency.find(endpointAddress);
    latency = it == mLatency.end() ? 0 : it->second;
    if (mHalted.count(endpointAddress)) {
      UsbTransferResult stall = UsbTransferResult::Stall();
      stall.latencyMs = latency;
      return stall;
    }
    if (mHeld.count(endpointAddress)) {
      return UsbTransferResult::Nak();
    }
  }
  UsbTransferResult result = USB_ENDPOINT_DIRECTION_IN(endpointAddress)
                                 ? OnInTransfer(endpointAddress, buffer, length)
                                 : OnOutTransfer(endpointAddress, buffer, length);
  result.length = std::min(result.length, length);
  result.latencyMs += latency;
  return result;
}

void UsbFirmware::ResetLocked() {
  mConfiguration = 0;
  mAlternateSettings.clear();
  mActiveEndpoints.clear();
  mHalted.erase(mHalted.upper_bound(kControlPipe), mHalted.end());  // a broken control pipe stays broken
  mRemoteWakeupArmed = false;
  mSuspended = false;
}

void UsbFirmware::BusReset() {
  std::lock_guard<std::mutex> guard(mMutex);
  ResetLocked();
}

void UsbFirmware::Suspend() {
  std::lock_guard<std::mutex> guard(mMutex);
  mSuspended = true;
}

void UsbFirmware::Resume() {
  std::lock_guard<std::mutex> guard(mMutex);
  mSuspended = false;
}

// ---- State ---------------------------------------------------------------------------

uint8_t UsbFirmware::Configuration() const {
  std::lock_guard<std::mutex> guard(mMutex);
  return mConfiguration;
}

uint8_t UsbFirmware::AlternateSetting(uint8_t interfaceNumber) const {
  std::lock_guard<std::mutex> guard(mMutex);
  auto it = mAlternateSettings.find(interfaceNumber);
  return it == mAlternateSettings.end() ? 0 : it->second;
}

bool UsbFirmware::IsEndpointActive(uint8_t endpointAddress) const {
  std::lock_guard<std::mutex> guard(mMutex);
  return mActiveEndpoints.count(endpointAddress) != 0;
}

bool UsbFirmware::IsSuspended() const {
  std::lock_guard<std::mutex> guard(mMutex);
  return mSuspended;
}

bool UsbFirmware::IsRemoteWakeupArmed() const {
  std::lock_guard<std::mutex> guard(mMutex);
  return mRemoteWakeupArmed;
}

bool UsbFirmware::IsDisconnected() const {
  std::lock_guard<std::mutex> guard(mMutex);
  return mDisconnected;
}

// ---- Test controls -------------------------------------------------------------------

void UsbFirmware::QueueInData(uint8_t endpointAddress, std::vector<uint8_t> chunk) {
  {
    std::lock_guard<std::mutex> guard(mMutex);
    mInQueues[endpointAddress].push_back(std::move(chunk));
  }
  NotifyEndpointReady(endpointAddress);
}

size_t UsbFirmware::QueuedInChunks(uint8_t endpointAddress) const {
  std::lock_guard<std::mutex> guard(mMutex);
  auto it = mInQueues.find(endpointAddress);
  return it == mInQueues.end() ? 0 : it->second.size();
}

std::vector<std::vector<uint8_t>> UsbFirmware::TakeOutData(uint8_t endpointAddress) {
  std::lock_guard<std::mutex> guard(mMutex);
  std::vector<std::vector<uint8_t>> taken;
  taken.swap(mOutData[endpointAddress]);
  return taken;
}

void UsbFirmware::SetLatency(uint8_t endpointAddress, uint32_t ms) {
  std::lock_guard<std::mutex> guard(mMutex);
  mLatency[endpointAddress] = ms;
}

void UsbFirmware::SetHalted(uint8_t endpointAddress, bool halted) {
  std::lock_guard<std::mutex> guard(mMutex);
  if (halted) {
    mHalted.insert(endpointAddress);
  } else {
    mHalted.erase(endpointAddress);
  }
}

bool UsbFirmware::IsHalted(uint8_t endpointAddress) const {
  std::lock_guard<std::mutex> guard(mMutex);
  return mHalted.count(endpointAddress) != 0;
}

void UsbFirmware::SetHeld(uint8_t endpointAddress, bool held) {
  bool released;
  {
    std::lock_guard<std::mutex> guard(mMutex);
    released = !held && mHeld.erase(endpointAddress) != 0;
    if (held) {
      mHeld.insert(endpointAddress);
    }
  }
  if (released) {
    NotifyEndpointReady(endpointAddress);
  }
}

void UsbFirmware::Disconnect() {
  {
    std::lock_guard<std::mutex> guard(mMutex);
    if (mDisconnected) {
      return;
    }
    mDisconnected = true;
  }
  Notify([](UsbFirmwareListener& l) { l.OnConnectionChanged(false); });
}

void UsbFirmware::Reconnect() {
  {
    std::lock_guard<std::mutex> guard(mMutex);
    if (!mDisconnected) {
      return;
    }
    mDisconnected = false;
    ResetLocked();
  }
  Notify([](UsbFirmwareListener& l) { l.OnConnectionChanged(true); });
}

bool UsbFirmware::SignalRemoteWakeup() {
  {
    std::lock_guard<std::mutex> guard(mMutex);
    if (mDisconnected || !mSuspended || !mRemoteWakeupArmed) {
      return false;
    }
  }
  Notify([](UsbFirmwareListener& l) { l.OnRemoteWakeup(); });
  return true;
}

void UsbFirmware::SetRequestAnswer(uint8_t bmRequestType, uint8_t bRequest, UsbRequestAnswer answer) {
  std::lock_guard<std::mutex> guard(mMutex);
  mAnswers[{bmRequestType, bRequest}] = std::move(answer);
}

std::vector<UsbControlRecord> UsbFirmware::TakeControlLog() {
  std::lock_guard<std::mutex> guard(mMutex);
  std::vector<UsbControlRecord> taken;
  taken.swap(mControlLog);
  return taken;
}

// ---- Default hooks -------------------------------------------------------------------

UsbTransferResult UsbFirmware::OnStandardRequest(const UsbSetupPacket& setup, uint8_t* data) {
  const bool in = setup.IsIn();
  switch (setup.bRequest) {
    case USB_REQUEST_GET_DESCRIPTOR:
      return in && setup.Recipient() == kRecipientDevice ? GetDescriptor(setup, data) : UsbTransferResult::Stall();
    case USB_REQUEST_GET_STATUS:
      return in ? GetStatus(setup, data) : UsbTransferResult::Stall();
    case USB_REQUEST_SET_FEATURE:
    case USB_REQUEST_CLEAR_FEATURE:
      return in ? UsbTransferResult::Stall() : Feature(setup, setup.bRequest == USB_REQUEST_SET_FEATURE);
    case USB_REQUEST_SET_ADDRESS:
      return in ? UsbTransferResult::Stall() : UsbTransferResult::Done(0);
    case USB_REQUEST_GET_CONFIGURATION: {
      if (!in) {
        return UsbTransferResult::Stall();
      }
      return Answer({Configuration()}, setup, data);
    }
    case USB_REQUEST_SET_CONFIGURATION:
      return in ? UsbTransferResult::Stall() : SetConfiguration(static_cast<uint8_t>(setup.wValue));
    case USB_REQUEST_GET_INTERFACE: {
      const uint8_t number = static_cast<uint8_t>(setup.wIndex);
      if (!in || setup.Recipient() != kRecipientInterface) {
        return UsbTransferResult::Stall();
      }
      std::lock_guard<std::mutex> guard(mMutex);
      auto it = mAlternateSettings.find(number);
      if (it == mAlternateSettings.end()) {  // unconfigured, or no such interface
        return UsbTransferResult::Stall();
      }
      return Answer({it->second}, setup, data);
    }
    case USB_REQUEST_SET_INTERFACE:
      return in || setup.Recipient() != kRecipientInterface
                 ? UsbTransferResult::Stall()
                 : SetInterface(static_cast<uint8_t>(setup.wIndex), static_cast<uint8_t>(setup.wValue));
    default:  // SET_DESCRIPTOR, SYNCH_FRAME and anything unknown: not supported
      return UsbTransferResult::Stall();
  }
}

UsbTransferResult UsbFirmware::GetDescriptor(const UsbSetupPacket& setup, uint8_t* data) {
  const uint8_t type = static_cast<uint8_t>(setup.wValue >> 8);
  const uint8_t index = static_cast<uint8_t>(setup.wValue);
  switch (type) {
    case USB_DEVICE_DESCRIPTOR_TYPE:
      return Answer(mDescription.device, setup, data);
    case USB_CONFIGURATION_DESCRIPTOR_TYPE:
      if (index >= mDescription.configurations.size()) {
        return UsbTransferResult::Stall();
      }
      return Answer(mDescription.configurations[index], setup, data);
    case USB_STRING_DESCRIPTOR_TYPE: {
      if (mDescription.languages.empty()) {
        return UsbTransferResult::Stall();  // a device without strings
      }
      if (index == 0) {
        std::vector<uint8_t> table{static_cast<uint8_t>(2 + 2 * mDescription.languages.size()),
                                   USB_STRING_DESCRIPTOR_TYPE};
        for (uint16_t language : mDescription.languages) {
          table.push_back(static_cast<uint8_t>(language));
          table.push_back(static_cast<uint8_t>(language >> 8));
        }
        return Answer(table, setup, data);
      }
      // The language must be one the table offers; a string missing in it stalls.
      const std::u16string* text = mDescription.FindString(index, setup.wIndex);
      if (text == nullptr) {
        return UsbTransferResult::Stall();
      }
      return Answer(StringDescriptor(*text), setup, data);
    }
    default:  // no device qualifier: the device presents itself as it is, at one speed
      return UsbTransferResult::Stall();
  }
}

UsbTransferResult UsbFirmware::GetStatus(const UsbSetupPacket& setup, uint8_t* data) {
  std::vector<uint8_t> status{0, 0};
  std::lock_guard<std::mutex> guard(mMutex);
  switch (setup.Recipient()) {
    case kRecipientDevice: {
      // Self-powered reports the power source of the current configuration (of the first
      // one while unconfigured).
      auto index = mConfiguration != 0 ? mDescription.ConfigurationIndex(mConfiguration) : std::optional<size_t>(0);
      status[0] = static_cast<uint8_t>((index && mDescription.SelfPowered(*index) ? 0x01 : 0) |
                                       (mRemoteWakeupArmed ? 0x02 : 0));
      break;
    }
    case kRecipientInterface:
      if (!mAlternateSettings.count(static_cast<uint8_t>(setup.wIndex))) {
        return UsbTransferResult::Stall();
      }
      break;
    case kRecipientEndpoint: {
      const uint8_t endpoint = static_cast<uint8_t>(setup.wIndex);
      if (!IsControlPipe(endpoint) && !mActiveEndpoints.count(endpoint)) {
        return UsbTransferResult::Stall();
      }
      status[0] = mHalted.count(endpoint) ? 0x01 : 0;
      break;
    }
    default:
      return UsbTransferResult::Stall();
  }
  return Answer(status, setup, data);
}

UsbTransferResult UsbFirmware::Feature(const UsbSetupPacket& setup, bool set) {
  std::lock_guard<std::mutex> guard(mMutex);
  if (setup.Recipient() == kRecipientDevice && setup.wValue == USB_FEATURE_REMOTE_WAKEUP) {
    // Only a configuration that declares remote wakeup may be armed for it.
    auto index = mDescription.ConfigurationIndex(mConfiguration);
    if (mConfiguration == 0 || !index || !mDescription.SupportsRemoteWakeup(*index)) {
      return UsbTransferResult::Stall();
    }
    mRemoteWakeupArmed = set;
    return UsbTransferResult::Done(0);
  }
  if (setup.Recipient() == kRecipientEndpoint && setup.wValue == USB_FEATURE_ENDPOINT_STALL) {
    const uint8_t endpoint = static_cast<uint8_t>(setup.wIndex);
    if (IsControlPipe(endpoint)) {
      return UsbTransferResult::Done(0);  // the control pipe clears itself at the next setup
    }
    if (!mActiveEndpoints.count(endpoint)) {
      return UsbTransferResult::Stall();
    }
    if (set) {
      mHalted.insert(endpoint);
    } else {
      mHalted.erase(endpoint);
    }
    return UsbTransferResult::Done(0);
  }
  return UsbTransferResult::Stall();  // test mode, interface features: not supported
}

UsbTransferResult UsbFirmware::SetConfiguration(uint8_t value) {
  std::lock_guard<std::mutex> guard(mMutex);
  if (value != 0 && !mDescription.ConfigurationIndex(value)) {
    return UsbTransferResult::Stall();
  }
  mConfiguration = value;
  mAlternateSettings.clear();
  if (value != 0) {
    ForEachInterfaceDescriptor(mDescription.configurations[*mDescription.ConfigurationIndex(value)],
                               [&](const uint8_t* interface, const uint8_t*) { mAlternateSettings[interface[2]] = 0; });
  }
  // A configuration starts with every endpoint running (USB 2.0 9.4.7).
  mHalted.erase(mHalted.upper_bound(kControlPipe), mHalted.end());
  RecomputeActiveEndpointsLocked();
  return UsbTransferResult::Done(0);
}

UsbTransferResult UsbFirmware::SetInterface(uint8_t interfaceNumber, uint8_t alternate) {
  std::lock_guard<std::mutex> guard(mMutex);
  if (mConfiguration == 0) {
    return UsbTransferResult::Stall();
  }
  bool exists = false;
  ForEachInterfaceDescriptor(mDescription.configurations[*mDescription.ConfigurationIndex(mConfiguration)],
                             [&](const uint8_t* interface, const uint8_t* endpoint) {
                               exists = exists || (!endpoint && interface[2] == interfaceNumber &&
                                                   interface[3] == alternate);
                             });
  if (!exists) {
    return UsbTransferResult::Stall();
  }
  mAlternateSettings[interfaceNumber] = alternate;
  RecomputeActiveEndpointsLocked();
  return UsbTransferResult::Done(0);
}

void UsbFirmware::RecomputeActiveEndpointsLocked() {
  mActiveEndpoints.clear();
  auto index = mDescription.ConfigurationIndex(mConfiguration);
  if (mConfiguration == 0 || !index) {
    return;
  }
  ForEachInterfaceDescriptor(mDescription.configurations[*index], [&](const uint8_t* interface, const uint8_t* endpoint) {
    auto it = mAlternateSettings.find(interface[2]);
    if (endpoint != nullptr && it != mAlternateSettings.end() && it->second == interface[3]) {
      mActiveEndpoints.insert(endpoint[2]);
    }
  });
}

UsbTransferResult UsbFirmware::OnClassOrVendorRequest(const UsbSetupPacket& setup, uint8_t* data) {
  std::lock_guard<std::mutex> guard(mMutex);
  auto it = mAnswers.find({setup.bmRequestType, setup.bRequest});
  if (it == mAnswers.end() || it->second.stall) {
    return UsbTransferResult::Stall();
  }
  return setup.IsIn() ? Answer(it->second.data, setup, data) : UsbTransferResult::Done(setup.wLength);
}

UsbTransferResult UsbFirmware::OnInTransfer(uint8_t endpointAddress, uint8_t* buffer, uint32_t length) {
  std::lock_guard<std::mutex> guard(mMutex);
  auto& queue = mInQueues[endpointAddress];
  if (queue.empty()) {
    return UsbTransferResult::Nak();
  }
  auto& chunk = queue.front();
  const size_t moved = std::min<size_t>(chunk.size(), length);
  if (moved > 0) {
    std::memcpy(buffer, chunk.data(), moved);
  }
  if (moved == chunk.size()) {
    queue.pop_front();
  } else {
    chunk.erase(chunk.begin(), chunk.begin() + moved);
  }
  return UsbTransferResult::Done(static_cast<uint32_t>(moved));
}

UsbTransferResult UsbFirmware::OnOutTransfer(uint8_t endpointAddress, const uint8_t* buffer, uint32_t length) {
  std::lock_guard<std::mutex> guard(mMutex);
  mOutData[endpointAddress].emplace_back(buffer, buffer + length);
  return UsbTransferResult::Done(length);
}

}  // namespace wdmsim
