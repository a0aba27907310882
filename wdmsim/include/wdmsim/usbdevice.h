// wdmsim host API: simulated USB devices. A device is a description (its descriptors and
// strings, built in code or read from a file) plus a firmware object that answers the host:
// control requests, endpoint data, latency, stalls, transfers that never end, disconnection.
// Nothing here needs a running wdmsim::Kernel.
#pragma once
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace wdmsim {

// ---------------------------------------------------------------------------------------
// Description
// ---------------------------------------------------------------------------------------

struct UsbStringKey {
  uint8_t index;
  uint16_t language;
  bool operator<(const UsbStringKey& o) const {
    return index != o.index ? index < o.index : language < o.language;
  }
  bool operator==(const UsbStringKey& o) const { return index == o.index && language == o.language; }
};

// Everything a device answers to GET_DESCRIPTOR, byte for byte. The vectors are kept as
// given: a description may be malformed on purpose (see UsbDescriptionFromRaw), so readers
// must check that a descriptor fits before reading its fields.
struct UsbDeviceDescription {
  std::string name;                                  // where it came from; for messages only
  std::vector<uint8_t> device;                       // device descriptor, normally 18 bytes
  std::vector<std::vector<uint8_t>> configurations;  // whole configuration sets, by index
  std::vector<uint16_t> languages;                   // string descriptor 0; empty: no strings
  std::map<UsbStringKey, std::u16string> strings;    // string descriptors by (index, language)

  // Device descriptor fields; 0 when the descriptor is too short to hold the field.
  uint16_t VendorId() const;
  uint16_t ProductId() const;
  uint8_t NumConfigurations() const;
  uint8_t SerialNumberIndex() const;

  // The text of iSerialNumber in the first language of the table; none when the device
  // has no serial number index or no such string.
  std::optional<std::u16string> SerialNumber() const;
  const std::u16string* FindString(uint8_t index, uint16_t language) const;
  // Sets the text of a string index in every language of the table.
  void SetString(uint8_t index, const std::u16string& text);

  // Configuration header fields of the set at `index`; 0/false when it is too short.
  uint8_t ConfigurationValue(size_t index) const;
  uint32_t MaxPowerMilliamps(size_t index) const;  // bMaxPower counts 2 mA units
  bool SelfPowered(size_t index) const;
  bool SupportsRemoteWakeup(size_t index) const;
  // Index of the set whose bConfigurationValue is `value`.
  std::optional<size_t> ConfigurationIndex(uint8_t value) const;

  // The first framing defect (device descriptor not 18 bytes of type 1, a set that is not
  // wTotalLength bytes, a descriptor that does not fit, set count != bNumConfigurations),
  // described in words; none when the bytes are well framed.
  std::optional<std::string> FramingError() const;

  // The Linux sysfs `descriptors` layout: device descriptor, then every set back to back.
  std::vector<uint8_t> ToSysfsBytes() const;
  // The hex text format read by ParseHexDescription; "!raw" is added when the description
  // would not pass the format's consistency checks.
  std::string ToHexText() const;

  bool operator==(const UsbDeviceDescription& o) const;  // everything but `name`
  bool operator!=(const UsbDeviceDescription& o) const { return !(*this == o); }
};

// A description taken as given, without any check: for tests of the driver's defences.
UsbDeviceDescription UsbDescriptionFromRaw(std::vector<uint8_t> device,
                                           std::vector<std::vector<uint8_t>> configurations,
                                           const std::string& name = "raw");

// ---------------------------------------------------------------------------------------
// Builder: compose real-world layouts concisely. wTotalLength, bNumInterfaces (distinct
// interface numbers), bNumEndpoints (endpoint descriptors up to the next interface) and
// bNumConfigurations are computed by Build(). Every text gets a string index in order of
// first use (the same text shares one index) and exists in every language of the table.
// ---------------------------------------------------------------------------------------

constexpr uint8_t kUsbEndpointControl = 0x00;
constexpr uint8_t kUsbEndpointIsochronous = 0x01;
constexpr uint8_t kUsbEndpointBulk = 0x02;
constexpr uint8_t kUsbEndpointInterrupt = 0x03;

class UsbDescriptionBuilder {
 public:
  // Defaults: USB 2.0, class EF/02/01 (composite with IADs), 64-byte EP0, bcdDevice 0x0100,
  // language table 0x0409.
  UsbDescriptionBuilder(uint16_t vendorId, uint16_t productId);

  UsbDescriptionBuilder& Name(const std::string& name);
  UsbDescriptionBuilder& DeviceClass(uint8_t cls, uint8_t subClass, uint8_t protocol);
  UsbDescriptionBuilder& UsbVersion(uint16_t bcdUsb);
  UsbDescriptionBuilder& DeviceRelease(uint16_t bcdDevice);
  UsbDescriptionBuilder& MaxPacketSize0(uint8_t size);
  UsbDescriptionBuilder& Manufacturer(const std::u16string& text);
  UsbDescriptionBuilder& Product(const std::u16string& text);
  UsbDescriptionBuilder& SerialNumber(const std::u16string& text);
  UsbDescriptionBuilder& Languages(const std::vector<uint16_t>& languages);

  // Starts a new configuration set; the following descriptors belong to it.
  UsbDescriptionBuilder& Configuration(uint8_t value, uint8_t attributes, uint32_t maxPowerMilliamps,
                                       const std::u16string& text = u"");
  UsbDescriptionBuilder& Iad(uint8_t firstInterface, uint8_t count, uint8_t cls, uint8_t subClass,
                             uint8_t protocol, const std::u16string& text = u"");
  UsbDescriptionBuilder& Interface(uint8_t number, uint8_t alternate, uint8_t cls, uint8_t subClass,
                                   uint8_t protocol, const std::u16string& text = u"");
  UsbDescriptionBuilder& Endpoint(uint8_t address, uint8_t attributes, uint16_t maxPacketSize,
                                  uint8_t interval);
  UsbDescriptionBuilder& BulkIn(uint8_t address, uint16_t maxPacketSize = 512);
  UsbDescriptionBuilder& BulkOut(uint8_t address, uint16_t maxPacketSize = 512);
  UsbDescriptionBuilder& InterruptIn(uint8_t address, uint16_t maxPacketSize, uint8_t interval);
  // Any descriptor (class-specific, audio endpoints, deliberately odd ones), bytes as given.
  UsbDescriptionBuilder& Descriptor(const std::vector<uint8_t>& bytes);

  // CDC functional descriptors (CS_INTERFACE, 0x24).
  UsbDescriptionBuilder& CdcHeader(uint16_t bcdCdc = 0x0110);
  UsbDescriptionBuilder& CdcCallManagement(uint8_t capabilities, uint8_t dataInterface);
  UsbDescriptionBuilder& CdcAcm(uint8_t capabilities);
  UsbDescriptionBuilder& CdcUnion(uint8_t controlInterface, const std::vector<uint8_t>& subordinates);
  UsbDescriptionBuilder& CdcEthernet(const std::u16string& macAddress, uint16_t maxSegmentSize = 1514);

  // The string index of a text (allocated on first use), for hand-written descriptors.
  uint8_t StringIndex(const std::u16string& text);

  UsbDeviceDescription Build() const;

 private:
  std::string mName = "built";
  std::vector<uint8_t> mDevice;
  std::vector<std::vector<uint8_t>> mConfigurations;
  std::vector<uint16_t> mLanguages;
  std::vector<std::u16string> mTexts;  // index i + 1 holds mTexts[i]
  std::vector<uint8_t>& CurrentSet();
};

// CDC functional descriptor bytes, for descriptions written by hand.
std::vector<uint8_t> CdcHeaderDescriptor(uint16_t bcdCdc = 0x0110);
std::vector<uint8_t> CdcCallManagementDescriptor(uint8_t capabilities, uint8_t dataInterface);
std::vector<uint8_t> CdcAcmDescriptor(uint8_t capabilities);
std::vector<uint8_t> CdcUnionDescriptor(uint8_t controlInterface, const std::vector<uint8_t>& subordinates);

// ---------------------------------------------------------------------------------------
// Files. A parse yields a description or exactly one error naming the file and the place.
// ---------------------------------------------------------------------------------------

struct UsbDescriptionError {
  enum class Where { File, ByteOffset, Line };
  std::string file;
  Where where = Where::File;
  uint64_t position = 0;  // byte offset from the file's start, or 1-based line number
  std::string what;
  // "file: byte 42: what", "file:7: what" or "file: what".
  std::string Message() const;
};

struct UsbDescriptionResult {
  std::optional<UsbDeviceDescription> description;
  UsbDescriptionError error;  // meaningful only when there is no description
  explicit operator bool() const { return description.has_value(); }
};

// The binary `descriptors` file of Linux sysfs. Only the framing is checked (what would
// make the bytes unreadable); what the descriptors say is the device's business.
UsbDescriptionResult ParseSysfsDescriptors(const std::vector<uint8_t>& bytes, const std::string& file);
// Hex text, one descriptor per line; grammar in wdmsim/usb/hex_description.cpp and
// tests/devices/README.md.
UsbDescriptionResult ParseHexDescription(const std::string& text, const std::string& file);
// Reads a file in either format: hex text when every byte is printable ASCII or white
// space, the sysfs layout otherwise.
UsbDescriptionResult LoadUsbDescription(const std::string& path);

// ---------------------------------------------------------------------------------------
// The built-in demo composite device. 0x4A9B/0x0042 is a fictitious vendor/product pair
// chosen for this simulator; it stands for no real product.
//   configuration 1 (index 0, 500 mA, bus-powered, remote wakeup):
//     IAD 0-1 EF/04/01  RNDIS: interface 0 02/02/FF (CDC functional descriptors, interrupt
//                       IN 0x81), interface 1 0A/00/00 (bulk IN 0x82, OUT 0x01)
//     IAD 2-3 02/02/01  CDC ACM: interface 2 02/02/01 (header, call management, ACM, union,
//                       interrupt IN 0x83), interface 3 0A/00/00 (bulk IN 0x84, OUT 0x02)
//     interface 4 FF/FF/00 vendor function (bulk IN 0x85, OUT 0x03)
//     interface 5 FF/01/00 device notification (interrupt IN 0x86, 4 bytes)
//   configuration 2 (index 1, 100 mA, self-powered, remote wakeup):
//     IAD 0-1 02/02/01 CDC ACM (interrupt IN 0x81, bulk IN 0x82, OUT 0x01),
//     interface 2 FF/01/00 device notification (interrupt IN 0x83, 4 bytes)
// ---------------------------------------------------------------------------------------

constexpr uint16_t kDemoVendorId = 0x4A9B;
constexpr uint16_t kDemoProductId = 0x0042;

UsbDeviceDescription DemoCompositeDevice();

// ---------------------------------------------------------------------------------------
// Firmware
// ---------------------------------------------------------------------------------------

struct UsbSetupPacket {
  uint8_t bmRequestType = 0;
  uint8_t bRequest = 0;
  uint16_t wValue = 0;
  uint16_t wIndex = 0;
  uint16_t wLength = 0;

  bool IsIn() const { return (bmRequestType & 0x80) != 0; }
  uint8_t Type() const { return (bmRequestType >> 5) & 0x03; }  // 0 standard, 1 class, 2 vendor
  uint8_t Recipient() const { return bmRequestType & 0x1F; }     // 0 device, 1 interface, 2 endpoint
  bool operator==(const UsbSetupPacket& o) const {
    return bmRequestType == o.bmRequestType && bRequest == o.bRequest && wValue == o.wValue &&
           wIndex == o.wIndex && wLength == o.wLength;
  }
};

enum class UsbOutcome {
  Completed,   // ACK: `length` bytes moved
  Stalled,     // STALL handshake
  Pending,     // NAK: nothing now; retry when the listener hears OnEndpointReady
  NoResponse,  // the device does not answer: disconnected, or an endpoint not configured
};

struct UsbTransferResult {
  UsbOutcome outcome = UsbOutcome::Completed;
  uint32_t length = 0;     // bytes moved (IN: written to the buffer; OUT: taken)
  uint32_t latencyMs = 0;  // virtual time until the host sees the outcome

  static UsbTransferResult Done(uint32_t length) { return {UsbOutcome::Completed, length, 0}; }
  static UsbTransferResult Stall() { return {UsbOutcome::Stalled, 0, 0}; }
  static UsbTransferResult Nak() { return {UsbOutcome::Pending, 0, 0}; }
  static UsbTransferResult NoResponse() { return {UsbOutcome::NoResponse, 0, 0}; }
};

// What the simulated bus learns from the device between its own calls. Called without the
// firmware's state lock, from whichever thread changed the firmware (a test, or a firmware
// hook inside Control/Transfer): an implementation should only schedule work. Calls are
// serialised with SetListener, so after SetListener(nullptr) returns none is running.
class UsbFirmwareListener {
 public:
  virtual void OnEndpointReady(uint8_t endpointAddress) = 0;  // pending transfers may now proceed
  virtual void OnConnectionChanged(bool connected) = 0;
  virtual void OnRemoteWakeup() = 0;                          // resume signalling while suspended

 protected:
  ~UsbFirmwareListener() = default;
};

// A programmed answer to a class or vendor request.
struct UsbRequestAnswer {
  bool stall = false;
  std::vector<uint8_t> data;  // IN: the reply (clipped to wLength); OUT: unused

  static UsbRequestAnswer Reply(std::vector<uint8_t> bytes) { return {false, std::move(bytes)}; }
  static UsbRequestAnswer Accept() { return {false, {}}; }
  static UsbRequestAnswer Refuse() { return {true, {}}; }
};

// One control request as the device processed it (requests held pending are not logged
// until they are processed).
struct UsbControlRecord {
  UsbSetupPacket setup;
  std::vector<uint8_t> outData;  // the data stage of an OUT request
  UsbOutcome outcome;
};

// The behaviour of a device. The default answers the standard requests from the
// description, class and vendor requests from a programmed table (unprogrammed requests
// stall, as USB 2.0 9.2.7 asks of a request the device does not support), and serves the
// data endpoints from queues the test fills and reads. Subclasses override the hooks.
//
// Thread safety: every public member may be called from any thread, also by the host
// controller context at DISPATCH_LEVEL; the state lock is held only briefly and nothing
// waits under it. Hooks run without the state lock.
//
// Endpoints are named by address (0x81 = IN 1, 0x01 = OUT 1); 0x00 is the control pipe.
class UsbFirmware {
 public:
  explicit UsbFirmware(UsbDeviceDescription description);
  virtual ~UsbFirmware();
  UsbFirmware(const UsbFirmware&) = delete;
  UsbFirmware& operator=(const UsbFirmware&) = delete;

  const UsbDeviceDescription& Description() const { return mDescription; }

  // --- The simulated bus -------------------------------------------------------------
  // A control transfer. `data` holds wLength bytes: filled for an IN request, the data
  // stage for an OUT request (may be null when wLength is 0). IN answers are short reads:
  // at most wLength bytes, fewer when the device has fewer.
  UsbTransferResult Control(const UsbSetupPacket& setup, uint8_t* data);
  // A bulk or interrupt transfer on an endpoint of the current configuration.
  UsbTransferResult Transfer(uint8_t endpointAddress, uint8_t* buffer, uint32_t length);
  // Port reset (also at re-plug): unconfigured, alternate settings 0, halts cleared, remote
  // wakeup disarmed, not suspended. Queued data and test settings stay.
  void BusReset();
  void Suspend();
  void Resume();
  void SetListener(UsbFirmwareListener* listener);

  // --- State ---------------------------------------------------------------------------
  uint8_t Configuration() const;  // bConfigurationValue, 0 when unconfigured
  uint8_t AlternateSetting(uint8_t interfaceNumber) const;
  bool IsEndpointActive(uint8_t endpointAddress) const;
  bool IsSuspended() const;
  bool IsRemoteWakeupArmed() const;
  bool IsDisconnected() const;

  // --- Test controls -------------------------------------------------------------------
  // One chunk answers one IN transfer: a chunk longer than the transfer's buffer leaves
  // its rest for the next transfer; an empty chunk is a zero-length packet.
  void QueueInData(uint8_t endpointAddress, std::vector<uint8_t> chunk);
  size_t QueuedInChunks(uint8_t endpointAddress) const;
  // OUT transfers received on the endpoint since the last call, one chunk per transfer.
  std::vector<std::vector<uint8_t>> TakeOutData(uint8_t endpointAddress);
  // Virtual milliseconds between a request and its outcome (0 by default).
  void SetLatency(uint8_t endpointAddress, uint32_t ms);
  // A halted endpoint stalls every transfer until CLEAR_FEATURE(ENDPOINT_HALT) or
  // SetHalted(false); SET_CONFIGURATION clears every halt. A halted control pipe stalls
  // every control request until the test clears it.
  void SetHalted(uint8_t endpointAddress, bool halted);
  bool IsHalted(uint8_t endpointAddress) const;
  // A held endpoint NAKs (Pending) forever; releasing it tells the listener.
  void SetHeld(uint8_t endpointAddress, bool held);
  void Disconnect();
  void Reconnect();  // as a fresh attach: BusReset, then the listener hears of it
  // Signals resume if the device is suspended and the host armed remote wakeup.
  bool SignalRemoteWakeup();
  // Answer to class/vendor requests with this bmRequestType and bRequest (any wValue/wIndex).
  void SetRequestAnswer(uint8_t bmRequestType, uint8_t bRequest, UsbRequestAnswer answer);
  std::vector<UsbControlRecord> TakeControlLog();

 protected:
  // Hooks, called without the state lock. Control results are clipped to wLength and
  // completed OUT requests take their whole data stage.
  virtual UsbTransferResult OnStandardRequest(const UsbSetupPacket& setup, uint8_t* data);
  virtual UsbTransferResult OnClassOrVendorRequest(const UsbSetupPacket& setup, uint8_t* data);
  virtual UsbTransferResult OnInTransfer(uint8_t endpointAddress, uint8_t* buffer, uint32_t length);
  virtual UsbTransferResult OnOutTransfer(uint8_t endpointAddress, const uint8_t* buffer, uint32_t length);

  void NotifyEndpointReady(uint8_t endpointAddress);

 private:
  UsbTransferResult GetDescriptor(const UsbSetupPacket& setup, uint8_t* data);
  UsbTransferResult GetStatus(const UsbSetupPacket& setup, uint8_t* data);
  UsbTransferResult Feature(const UsbSetupPacket& setup, bool set);
  UsbTransferResult SetConfiguration(uint8_t value);
  UsbTransferResult SetInterface(uint8_t interfaceNumber, uint8_t alternate);
  void RecomputeActiveEndpointsLocked();
  void ResetLocked();
  template <typename F>
  void Notify(F&& call);

  const UsbDeviceDescription mDescription;

  mutable std::mutex mMutex;  // guards everything below
  uint8_t mConfiguration = 0;
  std::map<uint8_t, uint8_t> mAlternateSettings;  // interface number -> alternate setting
  std::set<uint8_t> mActiveEndpoints;
  bool mRemoteWakeupArmed = false;
  bool mSuspended = false;
  bool mDisconnected = false;
  std::set<uint8_t> mHalted;
  std::set<uint8_t> mHeld;
  std::map<uint8_t, uint32_t> mLatency;
  std::map<uint8_t, std::deque<std::vector<uint8_t>>> mInQueues;
  std::map<uint8_t, std::vector<std::vector<uint8_t>>> mOutData;
  std::map<std::pair<uint8_t, uint8_t>, UsbRequestAnswer> mAnswers;
  std::vector<UsbControlRecord> mControlLog;

  std::recursive_mutex mListenerMutex;  // held while the listener is called
  UsbFirmwareListener* mListener = nullptr;
};

// The demo device's firmware: the description of DemoCompositeDevice, the notification
// interface's vendor requests answered (suspend query 0xF0: "idle", 00 00 00 00; continue
// notice 0xF1: accepted, for recipient interface and device) and the CDC ACM class requests
// SET_LINE_CODING, GET_LINE_CODING (115200 8N1) and SET_CONTROL_LINE_STATE accepted.
std::unique_ptr<UsbFirmware> MakeDemoCompositeFirmware();

}  // namespace wdmsim
