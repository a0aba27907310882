// The system error log: entries a driver writes are kept, byte for byte, for inspection.
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include <wdmsim/io.h>
#include <wdmsim/verifier.h>

#include "io/error_log_tracking.h"
#include "io/irql_rules.h"
#include "io/object_table.h"

namespace wdmsim {
namespace io {
namespace {

struct Allocation {
  const void* ioObject;
  UCHAR size;
};

struct ErrorLog {
  std::mutex lock;
  std::map<void*, Allocation> allocated;  // packet -> who it is for
  std::vector<ErrorLogEntry> written;
};

ErrorLog& log() {
  static ErrorLog* l = new ErrorLog;
  return *l;
}

bool IsDeviceOrDriver(const void* object) {
  ObjectTable& table = Objects();
  std::lock_guard<std::mutex> guard(table.lock);
  return table.devices.count(static_cast<const DEVICE_OBJECT*>(object)) != 0 ||
         table.drivers.count(static_cast<const DRIVER_OBJECT*>(object)) != 0;
}

// Takes an entry back from the driver; false (reported) when it is not an allocated one.
bool Take(void* packet, const char* service, Allocation* allocation) {
  {
    ErrorLog& l = log();
    std::lock_guard<std::mutex> guard(l.lock);
    auto it = l.allocated.find(packet);
    if (it != l.allocated.end()) {
      *allocation = it->second;
      l.allocated.erase(it);
      return true;
    }
  }
  ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", packet,
                  "%s(%p): not an entry from IoAllocateErrorLogEntry (written or freed twice?)", service, packet);
  return false;
}

}  // namespace

std::vector<UnwrittenErrorLogEntry> ForgetErrorLog() {
  ErrorLog& l = log();
  std::lock_guard<std::mutex> guard(l.lock);
  std::vector<UnwrittenErrorLogEntry> unwritten;
  for (const auto& [packet, allocation] : l.allocated) {
    unwritten.push_back({packet, allocation.ioObject});
    std::free(packet);
  }
  l.allocated.clear();
  l.written.clear();
  return unwritten;
}

}  // namespace io

const IO_ERROR_LOG_PACKET& ErrorLogEntry::Packet() const {
  static const IO_ERROR_LOG_PACKET empty = {};
  if (packet.size() < sizeof(IO_ERROR_LOG_PACKET)) return empty;
  return *reinterpret_cast<const IO_ERROR_LOG_PACKET*>(packet.data());
}

std::vector<std::u16string> ErrorLogEntry::Strings() const {
  std::vector<std::u16string> strings;
  if (packet.size() < offsetof(IO_ERROR_LOG_PACKET, ErrorCode)) return strings;
  USHORT count, offset;
  memcpy(&count, packet.data() + offsetof(IO_ERROR_LOG_PACKET, NumberOfStrings), sizeof count);
  memcpy(&offset, packet.data() + offsetof(IO_ERROR_LOG_PACKET, StringOffset), sizeof offset);
  size_t at = offset;
  for (USHORT i = 0; i < count && at + sizeof(char16_t) <= packet.size(); ++i) {
    std::u16string text;
    char16_t c;
    while (at + sizeof c <= packet.size()) {
      memcpy(&c, packet.data() + at, sizeof c);
      at += sizeof c;
      if (c == 0) break;
      text += c;
    }
    strings.push_back(text);
  }
  return strings;
}

std::vector<ErrorLogEntry> TakeErrorLogEntries() {
  io::ErrorLog& l = io::log();
  std::lock_guard<std::mutex> guard(l.lock);
  std::vector<ErrorLogEntry> out;
  out.swap(l.written);
  return out;
}

}  // namespace wdmsim

using wdmsim::ReportViolation;
using namespace wdmsim::io;

extern "C" PVOID IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize) {
  IrqlAtMost(DISPATCH_LEVEL, "IoAllocateErrorLogEntry", IoObject);
  if (IoObject == nullptr || EntrySize > ERROR_LOG_MAXIMUM_SIZE || !IsDeviceOrDriver(IoObject)) return nullptr;
  void* packet = std::calloc(1, EntrySize > 0 ? EntrySize : 1);
  ErrorLog& l = log();
  std::lock_guard<std::mutex> guard(l.lock);
  l.allocated[packet] = Allocation{IoObject, EntrySize};
  return packet;
}

extern "C" void IoWriteErrorLogEntry(PVOID ElEntry) {
  IrqlAtMost(DISPATCH_LEVEL, "IoWriteErrorLogEntry", ElEntry);
  Allocation allocation;
  if (!Take(ElEntry, "IoWriteErrorLogEntry", &allocation)) return;
  auto bytes = static_cast<const uint8_t*>(ElEntry);
  wdmsim::ErrorLogEntry entry{allocation.ioObject, std::vector<uint8_t>(bytes, bytes + allocation.size)};
  std::free(ElEntry);
  ErrorLog& l = log();
  std::lock_guard<std::mutex> guard(l.lock);
  l.written.push_back(std::move(entry));
}

extern "C" void IoFreeErrorLogEntry(PVOID ElEntry) {
  IrqlAtMost(DISPATCH_LEVEL, "IoFreeErrorLogEntry", ElEntry);
  Allocation allocation;
  if (Take(ElEntry, "IoFreeErrorLogEntry", &allocation)) std::free(ElEntry);
}
