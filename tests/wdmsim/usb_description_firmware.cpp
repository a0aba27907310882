// The default firmware: what a host sees on the control pipe and the data endpoints, and
// what the simulated bus hears through the listener. Descriptor reads of every length are
// checked through the bus (usb_bus_transfers.cpp).
#include <gtest/gtest.h>

#include <wdmsim/usbdevice.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

namespace {

using wdmsim::UsbFirmware;
using wdmsim::UsbOutcome;
using wdmsim::UsbRequestAnswer;
using wdmsim::UsbSetupPacket;
using wdmsim::UsbTransferResult;

constexpr uint8_t kSentinel = 0xCC;
constexpr uint8_t kStandardDeviceIn = 0x80, kStandardDeviceOut = 0x00;
constexpr uint8_t kStandardInterfaceIn = 0x81, kStandardInterfaceOut = 0x01;
constexpr uint8_t kStandardEndpointIn = 0x82, kStandardEndpointOut = 0x02;

UsbSetupPacket Request(uint8_t type, uint8_t request, uint16_t value, uint16_t index, uint16_t length) {
  UsbSetupPacket s;
  s.bmRequestType = type;
  s.bRequest = request;
  s.wValue = value;
  s.wIndex = index;
  s.wLength = length;
  return s;
}

struct Reply {
  UsbTransferResult result;
  std::vector<uint8_t> data;
};

// An IN control transfer into a buffer with sentinels: nothing past the reported length
// may be written.
Reply In(UsbFirmware& fw, const UsbSetupPacket& setup) {
  std::vector<uint8_t> buffer(setup.wLength + 16u, kSentinel);
  Reply reply{fw.Control(setup, buffer.data()), {}};
  if (reply.result.outcome == UsbOutcome::Completed) {
    EXPECT_LE(reply.result.length, setup.wLength);
    reply.data.assign(buffer.begin(), buffer.begin() + reply.result.length);
    for (size_t i = reply.result.length; i < buffer.size(); ++i) {
      EXPECT_EQ(buffer[i], kSentinel) << "byte " << i << " written past the reply";
    }
  }
  return reply;
}

UsbOutcome Out(UsbFirmware& fw, uint8_t type, uint8_t request, uint16_t value, uint16_t index,
               std::vector<uint8_t> data = {}) {
  auto setup = Request(type, request, value, index, static_cast<uint16_t>(data.size()));
  return fw.Control(setup, data.empty() ? nullptr : data.data()).outcome;
}

Reply GetDescriptor(UsbFirmware& fw, uint8_t type, uint8_t index, uint16_t language, uint16_t length) {
  return In(fw, Request(kStandardDeviceIn, 0x06, static_cast<uint16_t>(type << 8 | index), language, length));
}

std::vector<uint8_t> Status(UsbFirmware& fw, uint8_t recipientType, uint16_t index) {
  auto reply = In(fw, Request(recipientType, 0x00, 0, index, 2));
  return reply.result.outcome == UsbOutcome::Completed ? reply.data : std::vector<uint8_t>{0xEE};
}

Reply Read(UsbFirmware& fw, uint8_t endpoint, uint32_t length) {
  std::vector<uint8_t> buffer(length + 8u, kSentinel);
  Reply reply{fw.Transfer(endpoint, buffer.data(), length), {}};
  reply.data.assign(buffer.begin(), buffer.begin() + reply.result.length);
  for (size_t i = reply.result.length; i < buffer.size(); ++i) {
    EXPECT_EQ(buffer[i], kSentinel);
  }
  return reply;
}

UsbTransferResult Write(UsbFirmware& fw, uint8_t endpoint, std::vector<uint8_t> data) {
  return fw.Transfer(endpoint, data.data(), static_cast<uint32_t>(data.size()));
}

class RecordingListener : public wdmsim::UsbFirmwareListener {
 public:
  void OnEndpointReady(uint8_t endpoint) override { Add("ready " + std::to_string(endpoint)); }
  void OnConnectionChanged(bool connected) override { Add(connected ? "connected" : "disconnected"); }
  void OnRemoteWakeup() override { Add("wake"); }
  std::vector<std::string> Take() {
    std::lock_guard<std::mutex> guard(mMutex);
    std::vector<std::string> out;
    out.swap(mEvents);
    return out;
  }

 private:
  void Add(std::string event) {
    std::lock_guard<std::mutex> guard(mMutex);
    mEvents.push_back(std::move(event));
  }
  std::mutex mMutex;
  std::vector<std::string> mEvents;
};

TEST(UsbDescriptionFirmware, StringsFollowTheLanguageTable) {
  auto d = wdmsim::DemoCompositeDevice();
  d.languages = {0x0409, 0x0407};
  d.strings[{1, 0x0409}] = u"Hello";
  d.strings[{1, 0x0407}] = u"Hallo";
  d.strings[{2, 0x0409}] = u"English only";
  d.strings[{40, 0x0409}] = std::u16string(300, u'x');
  UsbFirmware fw(d);

  EXPECT_EQ(GetDescriptor(fw, 3, 0, 0, 255).data, (std::vector<uint8_t>{6, 3, 0x09, 0x04, 0x07, 0x04}));
  EXPECT_EQ(GetDescriptor(fw, 3, 0, 0, 2).data, (std::vector<uint8_t>{6, 3}));
  EXPECT_EQ(GetDescriptor(fw, 3, 1, 0x0407, 255).data,
            (std::vector<uint8_t>{12, 3, 'H', 0, 'a', 0, 'l', 0, 'l', 0, 'o', 0}));
  EXPECT_EQ(GetDescriptor(fw, 3, 1, 0x0409, 255).data,
            (std::vector<uint8_t>{12, 3, 'H', 0, 'e', 0, 'l', 0, 'l', 0, 'o', 0}));
  // A short read keeps the descriptor's own bLength.
  EXPECT_EQ(GetDescriptor(fw, 3, 1, 0x0409, 2).data, (std::vector<uint8_t>{12, 3}));
  EXPECT_EQ(GetDescriptor(fw, 3, 1, 0x0409, 3).data, (std::vector<uint8_t>{12, 3, 'H'}));
  EXPECT_EQ(GetDescriptor(fw, 3, 2, 0x0407, 255).result.outcome, UsbOutcome::Stalled);  // not translated
  EXPECT_EQ(GetDescriptor(fw, 3, 1, 0x040C, 255).result.outcome, UsbOutcome::Stalled);  // not in the table
  EXPECT_EQ(GetDescriptor(fw, 3, 1, 0, 255).result.outcome, UsbOutcome::Stalled);       // language 0
  EXPECT_EQ(GetDescriptor(fw, 3, 99, 0x0409, 255).result.outcome, UsbOutcome::Stalled);
  // bLength is one byte: a long text is cut at 126 characters.
  auto longText = GetDescriptor(fw, 3, 40, 0x0409, 0xFFFF);
  EXPECT_EQ(longText.result.length, 254u);
  EXPECT_EQ(longText.data[0], 254);

  auto noStrings = wdmsim::DemoCompositeDevice();
  noStrings.languages.clear();
  UsbFirmware silent(noStrings);
  EXPECT_EQ(GetDescriptor(silent, 3, 0, 0, 255).result.outcome, UsbOutcome::Stalled);
  EXPECT_EQ(GetDescriptor(silent, 3, 1, 0x0409, 255).result.outcome, UsbOutcome::Stalled);
}

TEST(UsbDescriptionFirmware, StandardRequestsTrackConfigurationAndFeatures) {
  UsbFirmware fw(wdmsim::DemoCompositeDevice());
  EXPECT_EQ(In(fw, Request(kStandardDeviceIn, 0x08, 0, 0, 1)).data, (std::vector<uint8_t>{0}));
  EXPECT_EQ(Status(fw, kStandardDeviceIn, 0), (std::vector<uint8_t>{0, 0}));  // configuration 1 is bus-powered
  EXPECT_EQ(Out(fw, kStandardDeviceOut, 0x03, 1, 0), UsbOutcome::Stalled);     // wakeup needs a configuration
  EXPECT_EQ(Out(fw, kStandardDeviceOut, 0x09, 3, 0), UsbOutcome::Stalled);     // no configuration 3
  EXPECT_EQ(fw.Configuration(), 0);

  EXPECT_EQ(Out(fw, kStandardDeviceOut, 0x09, 2, 0), UsbOutcome::Completed);
  EXPECT_EQ(fw.Configuration(), 2);
  EXPECT_EQ(In(fw, Request(kStandardDeviceIn, 0x08, 0, 0, 1)).data, (std::vector<uint8_t>{2}));
  EXPECT_EQ(Status(fw, kStandardDeviceIn, 0), (std::vector<uint8_t>{1, 0}));  // self-powered
  EXPECT_EQ(Out(fw, kStandardDeviceOut, 0x03, 1, 0), UsbOutcome::Completed);
  EXPECT_TRUE(fw.IsRemoteWakeupArmed());
  EXPECT_EQ(Status(fw, kStandardDeviceIn, 0), (std::vector<uint8_t>{3, 0}));
  EXPECT_EQ(Out(fw, kStandardDeviceOut, 0x01, 1, 0), UsbOutcome::Completed);
  EXPECT_EQ(Status(fw, kStandardDeviceIn, 0), (std::vector<uint8_t>{1, 0}));
  EXPECT_EQ(Out(fw, kStandardDeviceOut, 0x03, 2, 0), UsbOutcome::Stalled);  // test mode
  // GET_DESCRIPTOR in the OUT direction or to an interface is no standard request.
  EXPECT_EQ(Out(fw, kStandardDeviceOut, 0x06, 0x0100, 0), UsbOutcome::Stalled);
  EXPECT_EQ(In(fw, Request(kStandardInterfaceIn, 0x06, 0x0100, 0, 18)).result.outcome, UsbOutcome::Stalled);

  for (uint8_t endpoint : {0x81, 0x82, 0x01, 0x83}) {
    EXPECT_TRUE(fw.IsEndpointActive(endpoint)) << int(endpoint);
  }
  EXPECT_FALSE(fw.IsEndpointActive(0x84));
  EXPECT_EQ(In(fw, Request(kStandardInterfaceIn, 0x0A, 0, 2, 1)).data, (std::vector<uint8_t>{0}));
  EXPECT_EQ(In(fw, Request(kStandardInterfaceIn, 0x0A, 0, 3, 1)).result.outcome, UsbOutcome::Stalled);
  EXPECT_EQ(Out(fw, kStandardInterfaceOut, 0x0B, 1, 0), UsbOutcome::Stalled);  // no alternate 1
  EXPECT_EQ(Status(fw, kStandardInterfaceIn, 2), (std::vector<uint8_t>{0, 0}));
  EXPECT_EQ(Status(fw, kStandardInterfaceIn, 3), (std::vector<uint8_t>{0xEE}));

  // Endpoint halt through the host's feature requests.
  EXPECT_EQ(Status(fw, kStandardEndpointIn, 0x82), (std::vector<uint8_t>{0, 0}));
  EXPECT_EQ(Out(fw, kStandardEndpointOut, 0x03, 0, 0x82), UsbOutcome::Completed);
  EXPECT_EQ(Status(fw, kStandardEndpointIn, 0x82), (std::vector<uint8_t>{1, 0}));
  EXPECT_EQ(Read(fw, 0x82, 64).result.outcome, UsbOutcome::Stalled);
  EXPECT_EQ(Out(fw, kStandardEndpointOut, 0x01, 0, 0x82), UsbOutcome::Completed);
  EXPECT_EQ(Read(fw, 0x82, 64).result.outcome, UsbOutcome::Pending);  // running, no data
  EXPECT_EQ(Status(fw, kStandardEndpointIn, 0x85), (std::vector<uint8_t>{0xEE}));  // not in configuration 2
  EXPECT_EQ(Out(fw, kStandardEndpointOut, 0x03, 0, 0x85), UsbOutcome::Stalled);
  EXPECT_EQ(Status(fw, kStandardEndpointIn, 0x00), (std::vector<uint8_t>{0, 0}));

  // A new configuration starts with every endpoint running.
  fw.SetHalted(0x82, true);
  EXPECT_EQ(Out(fw, kStandardDeviceOut, 0x09, 1, 0), UsbOutcome::Completed);
  EXPECT_FALSE(fw.IsHalted(0x82));
  EXPECT_TRUE(fw.IsEndpointActive(0x86));

  EXPECT_EQ(Out(fw, kStandardDeviceOut, 0x05, 7, 0), UsbOutcome::Completed);  // SET_ADDRESS
  EXPECT_EQ(In(fw, Request(kStandardEndpointIn, 0x0C, 0, 0x82, 2)).result.outcome, UsbOutcome::Stalled);
  EXPECT_EQ(Out(fw, kStandardDeviceOut, 0x07, 0x0100, 0), UsbOutcome::Stalled);

  EXPECT_EQ(Out(fw, kStandardDeviceOut, 0x09, 0, 0), UsbOutcome::Completed);
  EXPECT_EQ(fw.Configuration(), 0);
  EXPECT_EQ(Read(fw, 0x82, 64).result.outcome, UsbOutcome::NoResponse);
}

TEST(UsbDescriptionFirmware, AlternateSettingsChangeTheActiveEndpoints) {
  UsbFirmware fw(wdmsim::UsbDescriptionBuilder(0x4A9B, 0x0051)
                     .Configuration(1, 0x80, 100)
                     .Interface(0, 0, 0x02, 0x06, 0x00)
                     .InterruptIn(0x81, 16, 8)
                     .Interface(1, 0, 0x0A, 0x00, 0x00)
                     .Interface(1, 1, 0x0A, 0x00, 0x00)
                     .BulkIn(0x82)
                     .BulkOut(0x01)
                     .Build());
  EXPECT_EQ(Out(fw, kStandardInterfaceOut, 0x0B, 1, 1), UsbOutcome::Stalled);  // unconfigured
  ASSERT_EQ(Out(fw, kStandardDeviceOut, 0x09, 1, 0), UsbOutcome::Completed);
  EXPECT_TRUE(fw.IsEndpointActive(0x81));
  EXPECT_FALSE(fw.IsEndpointActive(0x82));
  EXPECT_EQ(Write(fw, 0x01, {1}).outcome, UsbOutcome::NoResponse);

  EXPECT_EQ(Out(fw, kStandardInterfaceOut, 0x0B, 1, 1), UsbOutcome::Completed);
  EXPECT_EQ(fw.AlternateSetting(1), 1);
  EXPECT_EQ(In(fw, Request(kStandardInterfaceIn, 0x0A, 0, 1, 1)).data, (std::vector<uint8_t>{1}));
  EXPECT_TRUE(fw.IsEndpointActive(0x82));
  EXPECT_TRUE(fw.IsEndpointActive(0x01));
  EXPECT_TRUE(fw.IsEndpointActive(0x81));  // the other interface is untouched
  EXPECT_EQ(Write(fw, 0x01, {1}).outcome, UsbOutcome::Completed);

  EXPECT_EQ(Out(fw, kStandardInterfaceOut, 0x0B, 2, 1), UsbOutcome::Stalled);
  EXPECT_EQ(fw.AlternateSetting(1), 1);
  EXPECT_EQ(Out(fw, kStandardInterfaceOut, 0x0B, 0, 1), UsbOutcome::Completed);
  EXPECT_FALSE(fw.IsEndpointActive(0x82));
}

TEST(UsbDescriptionFirmware, ClassAndVendorRequestsAnswerAsProgrammedAndAreLogged) {
  UsbFirmware fw(wdmsim::DemoCompositeDevice());
  EXPECT_EQ(In(fw, Request(0xC1, 0xF0, 0, 5, 4)).result.outcome, UsbOutcome::Stalled);  // not programmed
  fw.SetRequestAnswer(0xC1, 0xF0, UsbRequestAnswer::Reply({1, 2, 3, 4, 5}));
  EXPECT_EQ(In(fw, Request(0xC1, 0xF0, 0, 5, 4)).data, (std::vector<uint8_t>{1, 2, 3, 4}));
  EXPECT_EQ(In(fw, Request(0xC1, 0xF0, 1, 5, 8)).data, (std::vector<uint8_t>{1, 2, 3, 4, 5}));
  EXPECT_EQ(In(fw, Request(0xC0, 0xF0, 0, 0, 4)).result.outcome, UsbOutcome::Stalled);  // other recipient
  fw.SetRequestAnswer(0x21, 0x20, UsbRequestAnswer::Accept());
  EXPECT_EQ(Out(fw, 0x21, 0x20, 0, 2, {0x00, 0xC2, 0x01}), UsbOutcome::Completed);
  fw.SetRequestAnswer(0x21, 0x20, UsbRequestAnswer::Refuse());
  EXPECT_EQ(Out(fw, 0x21, 0x20, 0, 2, {9}), UsbOutcome::Stalled);
  EXPECT_EQ(Out(fw, 0x61, 0x01, 0, 0), UsbOutcome::Stalled);  // reserved request type

  // A held control pipe answers nothing and logs nothing until released.
  fw.SetHeld(0x00, true);
  EXPECT_EQ(Out(fw, 0x41, 0xF1, 0, 5), UsbOutcome::Pending);
  fw.SetHeld(0x00, false);

  auto log = fw.TakeControlLog();
  ASSERT_EQ(log.size(), 7u);
  EXPECT_EQ(log[0].setup, Request(0xC1, 0xF0, 0, 5, 4));
  EXPECT_EQ(log[0].outcome, UsbOutcome::Stalled);
  EXPECT_EQ(log[2].setup.wValue, 1);
  EXPECT_EQ(log[4].outData, (std::vector<uint8_t>{0x00, 0xC2, 0x01}));
  EXPECT_EQ(log[4].outcome, UsbOutcome::Completed);
  EXPECT_EQ(log[5].outData, (std::vector<uint8_t>{9}));
  EXPECT_EQ(log[5].outcome, UsbOutcome::Stalled);
  EXPECT_EQ(log[6].setup.bmRequestType, 0x61);
  EXPECT_TRUE(fw.TakeControlLog().empty());

  // A control pipe the test breaks stalls everything, also across a bus reset.
  fw.SetHalted(0x00, true);
  fw.BusReset();
  EXPECT_EQ(GetDescriptor(fw, 1, 0, 0, 18).result.outcome, UsbOutcome::Stalled);
  fw.SetHalted(0x00, false);
  EXPECT_EQ(GetDescriptor(fw, 1, 0, 0, 18).result.length, 18u);
}

TEST(UsbDescriptionFirmware, EndpointQueuesMoveDataInOrder) {
  UsbFirmware fw(wdmsim::DemoCompositeDevice());
  EXPECT_EQ(Read(fw, 0x82, 64).result.outcome, UsbOutcome::NoResponse);  // unconfigured
  ASSERT_EQ(Out(fw, kStandardDeviceOut, 0x09, 1, 0), UsbOutcome::Completed);

  fw.QueueInData(0x82, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
  fw.QueueInData(0x82, {});  // a zero-length packet
  fw.QueueInData(0x82, {0xA0, 0xA1});
  EXPECT_EQ(fw.QueuedInChunks(0x82), 3u);
  EXPECT_EQ(Read(fw, 0x81, 64).result.outcome, UsbOutcome::Pending);  // queues are per endpoint
  EXPECT_EQ(Read(fw, 0x82, 4).data, (std::vector<uint8_t>{0, 1, 2, 3}));
  EXPECT_EQ(Read(fw, 0x82, 4).data, (std::vector<uint8_t>{4, 5, 6, 7}));
  EXPECT_EQ(Read(fw, 0x82, 4).data, (std::vector<uint8_t>{8, 9}));
  auto zlp = Read(fw, 0x82, 4);
  EXPECT_EQ(zlp.result.outcome, UsbOutcome::Completed);
  EXPECT_EQ(zlp.result.length, 0u);
  EXPECT_EQ(Read(fw, 0x82, 0).result.length, 0u);  // a zero-length read takes nothing
  EXPECT_EQ(Read(fw, 0x82, 512).data, (std::vector<uint8_t>{0xA0, 0xA1}));
  EXPECT_EQ(Read(fw, 0x82, 512).result.outcome, UsbOutcome::Pending);

  EXPECT_EQ(Write(fw, 0x01, {0x11, 0x22, 0x33}).length, 3u);
  EXPECT_EQ(Write(fw, 0x01, {}).outcome, UsbOutcome::Completed);
  EXPECT_EQ(Write(fw, 0x02, {0x44}).length, 1u);
  EXPECT_EQ(fw.TakeOutData(0x01), (std::vector<std::vector<uint8_t>>{{0x11, 0x22, 0x33}, {}}));
  EXPECT_TRUE(fw.TakeOutData(0x01).empty());
  EXPECT_EQ(fw.TakeOutData(0x02), (std::vector<std::vector<uint8_t>>{{0x44}}));

  EXPECT_EQ(Read(fw, 0x87, 64).result.outcome, UsbOutcome::NoResponse);  // no such endpoint
  EXPECT_EQ(Read(fw, 0x80, 64).result.outcome, UsbOutcome::NoResponse);  // the control pipe
}

TEST(UsbDescriptionFirmware, HoldLatencyDisconnectAndWakeReachTheListener) {
  UsbFirmware fw(wdmsim::DemoCompositeDevice());
  RecordingListener listener;
  fw.SetListener(&listener);
  ASSERT_EQ(Out(fw, kStandardDeviceOut, 0x09, 1, 0), UsbOutcome::Completed);

  fw.SetHeld(0x82, true);
  fw.QueueInData(0x82, {7});
  EXPECT_EQ(Read(fw, 0x82, 64).result.outcome, UsbOutcome::Pending);
  EXPECT_EQ(fw.QueuedInChunks(0x82), 1u);
  fw.SetHeld(0x82, false);
  fw.SetHeld(0x82, false);  // not held: nothing to tell
  EXPECT_EQ(listener.Take(), (std::vector<std::string>{"ready 130", "ready 130"}));
  EXPECT_EQ(Read(fw, 0x82, 64).data, (std::vector<uint8_t>{7}));

  fw.SetLatency(0x82, 25);
  fw.QueueInData(0x82, {8});
  EXPECT_EQ(Read(fw, 0x82, 64).result.latencyMs, 25u);
  fw.SetHalted(0x82, true);
  auto stalled = Read(fw, 0x82, 64).result;
  EXPECT_EQ(stalled.outcome, UsbOutcome::Stalled);
  EXPECT_EQ(stalled.latencyMs, 25u);
  EXPECT_EQ(Read(fw, 0x81, 64).result.latencyMs, 0u);
  fw.SetLatency(0x00, 3);
  EXPECT_EQ(GetDescriptor(fw, 1, 0, 0, 18).result.latencyMs, 3u);
  listener.Take();

  fw.SetHeld(0x00, true);
  EXPECT_EQ(GetDescriptor(fw, 1, 0, 0, 18).result.outcome, UsbOutcome::Pending);
  fw.SetHeld(0x00, false);
  EXPECT_EQ(listener.Take(), (std::vector<std::string>{"ready 0"}));

  fw.Disconnect();
  fw.Disconnect();
  EXPECT_TRUE(fw.IsDisconnected());
  EXPECT_EQ(GetDescriptor(fw, 1, 0, 0, 18).result.outcome, UsbOutcome::NoResponse);
  EXPECT_EQ(Read(fw, 0x81, 64).result.outcome, UsbOutcome::NoResponse);
  fw.Reconnect();
  EXPECT_EQ(listener.Take(), (std::vector<std::string>{"disconnected", "connected"}));
  EXPECT_EQ(fw.Configuration(), 0);  // a fresh attach

  EXPECT_FALSE(fw.SignalRemoteWakeup());  // not suspended
  ASSERT_EQ(Out(fw, kStandardDeviceOut, 0x09, 1, 0), UsbOutcome::Completed);
  fw.Suspend();
  EXPECT_FALSE(fw.SignalRemoteWakeup());  // not armed
  ASSERT_EQ(Out(fw, kStandardDeviceOut, 0x03, 1, 0), UsbOutcome::Completed);
  EXPECT_TRUE(fw.SignalRemoteWakeup());
  fw.Resume();
  EXPECT_FALSE(fw.SignalRemoteWakeup());
  fw.Suspend();
  fw.BusReset();  // disarms and ends the suspend
  EXPECT_FALSE(fw.IsSuspended());
  EXPECT_FALSE(fw.IsRemoteWakeupArmed());
  EXPECT_EQ(listener.Take(), (std::vector<std::string>{"wake"}));

  fw.SetListener(nullptr);
  fw.QueueInData(0x82, {1});
  EXPECT_TRUE(listener.Take().empty());
}

// A firmware whose hook feeds data, and a listener that calls back into the firmware from
// the notification: neither may deadlock.
class LoopbackFirmware : public UsbFirmware {
 public:
  using UsbFirmware::UsbFirmware;

 protected:
  UsbTransferResult OnOutTransfer(uint8_t endpoint, const uint8_t* buffer, uint32_t length) override {
    QueueInData(0x82, std::vector<uint8_t>(buffer, buffer + length));
    return UsbTransferResult::Done(length);
  }
};

class CallingBackListener : public wdmsim::UsbFirmwareListener {
 public:
  explicit CallingBackListener(UsbFirmware& fw) : mFirmware(fw) {}
  void OnEndpointReady(uint8_t endpoint) override { mSeen.push_back(mFirmware.QueuedInChunks(endpoint)); }
  void OnConnectionChanged(bool) override {}
  void OnRemoteWakeup() override {}
  std::vector<size_t> mSeen;

 private:
  UsbFirmware& mFirmware;
};

TEST(UsbDescriptionFirmware, HooksMayFeedDataAndListenersMayCallBack) {
  LoopbackFirmware fw(wdmsim::DemoCompositeDevice());
  CallingBackListener listener(fw);
  fw.SetListener(&listener);
  ASSERT_EQ(Out(fw, kStandardDeviceOut, 0x09, 1, 0), UsbOutcome::Completed);
  EXPECT_EQ(Write(fw, 0x01, {0x5A, 0xA5}).length, 2u);
  EXPECT_EQ(listener.mSeen, (std::vector<size_t>{1}));
  EXPECT_EQ(Read(fw, 0x82, 64).data, (std::vector<uint8_t>{0x5A, 0xA5}));
  EXPECT_TRUE(fw.TakeOutData(0x01).empty());  // the override took the data
  fw.SetListener(nullptr);
}

TEST(UsbDescriptionFirmware, DemoFirmwareAnswersTheNotificationProtocolAndLineCoding) {
  auto fw = wdmsim::MakeDemoCompositeFirmware();
  EXPECT_EQ(fw->Description(), wdmsim::DemoCompositeDevice());
  EXPECT_EQ(In(*fw, Request(0xC1, 0xF0, 0, 5, 4)).data, (std::vector<uint8_t>{0, 0, 0, 0}));
  EXPECT_EQ(In(*fw, Request(0xC0, 0xF0, 1, 0, 4)).data, (std::vector<uint8_t>{0, 0, 0, 0}));
  EXPECT_EQ(Out(*fw, 0x41, 0xF1, 0, 5), UsbOutcome::Completed);
  EXPECT_EQ(Out(*fw, 0x40, 0xF1, 0, 0), UsbOutcome::Completed);
  EXPECT_EQ(In(*fw, Request(0xA1, 0x21, 0, 2, 7)).data, (std::vector<uint8_t>{0x00, 0xC2, 0x01, 0x00, 0, 0, 8}));
  EXPECT_EQ(Out(*fw, 0x21, 0x22, 3, 2), UsbOutcome::Completed);
  EXPECT_EQ(In(*fw, Request(0xA1, 0x01, 0, 0, 64)).result.outcome, UsbOutcome::Stalled);  // RNDIS: not modelled
}

// The bus and a test feeding the device from different threads: every chunk arrives once,
// in order, and every feed is announced.
TEST(UsbDescriptionFirmware, ThreadsFeederAndHostControllerMoveEveryChunkOnce) {
  UsbFirmware fw(wdmsim::DemoCompositeDevice());
  std::atomic<int> announced{0};
  class Counter : public wdmsim::UsbFirmwareListener {
   public:
    explicit Counter(std::atomic<int>& n) : mN(n) {}
    void OnEndpointReady(uint8_t) override { ++mN; }
    void OnConnectionChanged(bool) override {}
    void OnRemoteWakeup() override {}
    std::atomic<int>& mN;
  } counter(announced);
  fw.SetListener(&counter);
  ASSERT_EQ(Out(fw, kStandardDeviceOut, 0x09, 1, 0), UsbOutcome::Completed);

  constexpr int kChunks = 3000;
  std::thread feeder([&] {
    for (int i = 0; i < kChunks; ++i) {
      fw.QueueInData(0x82, {static_cast<uint8_t>(i), static_cast<uint8_t>(i >> 8), 0x5A});
    }
  });
  std::thread observer([&] {
    for (int i = 0; i < 500; ++i) {
      fw.TakeControlLog();
      fw.IsEndpointActive(0x82);
      fw.QueuedInChunks(0x82);
    }
  });
  std::vector<int> received;
  int spins = 0;
  while (static_cast<int>(received.size()) < kChunks && spins < 50000000) {
    uint8_t buffer[8];
    auto result = fw.Transfer(0x82, buffer, sizeof buffer);
    if (result.outcome == UsbOutcome::Pending) {
      ++spins;
      std::this_thread::yield();
      continue;
    }
    ASSERT_EQ(result.outcome, UsbOutcome::Completed);
    ASSERT_EQ(result.length, 3u);
    ASSERT_EQ(buffer[2], 0x5A);
    received.push_back(buffer[0] | buffer[1] << 8);
  }
  feeder.join();
  observer.join();
  ASSERT_EQ(received.size(), static_cast<size_t>(kChunks));
  for (int i = 0; i < kChunks; ++i) {
    ASSERT_EQ(received[i], i);
  }
  EXPECT_EQ(announced.load(), kChunks);
  EXPECT_EQ(fw.QueuedInChunks(0x82), 0u);
  fw.SetListener(nullptr);
}

}  // namespace
