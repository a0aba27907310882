// Device objects: IoCreateDevice, IoDeleteDevice and their deferred freeing.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <wdmsim/io.h>
#include <wdmsim/verifier.h>

#include "io/device_references.h"
#include "io/io_faults.h"
#include "io/irql_rules.h"
#include "io/object_table.h"
#include "io/remove_lock_tracking.h"

namespace wdmsim {
namespace io {
namespace {

constexpr size_t kExtensionAlignment = 16;

size_t AlignUp(size_t n) { return (n + kExtensionAlignment - 1) & ~(kExtensionAlignment - 1); }

// Object names compare case-insensitively, like the object manager's directory lookups.
bool SameName(const std::u16string& a, const std::u16string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char16_t x = a[i], y = b[i];
    if (x >= u'a' && x <= u'z') x = x - u'a' + u'A';
    if (y >= u'a' && y <= u'z') y = y - u'a' + u'A';
    if (x != y) return false;
  }
  return true;
}

std::u16string Utf16(const char* ascii) { return std::u16string(ascii, ascii + strlen(ascii)); }

void UnlinkFromDriver(PDEVICE_OBJECT device) {
  PDEVICE_OBJECT* link = &device->DriverObject->DeviceObject;
  while (*link != nullptr && *link != device) link = &(*link)->NextDevice;
  if (*link == device) *link = device->NextDevice;
  device->NextDevice = nullptr;
}

}  // namespace

ObjectTable& Objects() {
  static ObjectTable* table = new ObjectTable;  // outlives static destructors of test programs
  return *table;
}

DeviceRecord* FindDevice(ObjectTable& table, const DEVICE_OBJECT* device) {
  auto it = table.devices.find(device);
  return it == table.devices.end() ? nullptr : &it->second;
}

bool FreeDeviceIfUnused(ObjectTable& table, PDEVICE_OBJECT device) {
  DeviceRecord* record = FindDevice(table, device);
  if (record == nullptr || !record->deletePending || record->references > 0 || device->AttachedDevice != nullptr) {
    return false;
  }
  UnlinkFromDriver(device);
  // Deleted without IoDetachDevice (reported by IoDeleteDevice): the device below must not
  // keep pointing at freed memory. It cannot be gone itself while this one sits on it.
  PDEVICE_OBJECT below = record->attachedTo;
  if (below != nullptr && below->AttachedDevice == device) below->AttachedDevice = nullptr;
  ForgetRemoveLocksIn(record->block, record->blockSize);
  memset(record->block, 0xDD, record->blockSize);
  std::free(record->block);
  table.devices.erase(device);
  // A device below that was deleted while this one sat on it can go now too.
  if (below != nullptr) FreeDeviceIfUnused(table, below);
  return true;
}

bool ReferenceDeviceObject(const void* object) {
  ObjectTable& table = Objects();
  std::lock_guard<std::mutex> guard(table.lock);
  DeviceRecord* record = FindDevice(table, static_cast<const DEVICE_OBJECT*>(object));
  if (record == nullptr) return false;
  ++record->references;
  return true;
}

bool DereferenceDeviceObject(const void* object) {
  ObjectTable& table = Objects();
  bool negative = false;
  {
    std::lock_guard<std::mutex> guard(table.lock);
    auto device = static_cast<PDEVICE_OBJECT>(const_cast<void*>(object));
    DeviceRecord* record = FindDevice(table, device);
    if (record == nullptr) return false;
    if (record->references == 0) {
      negative = true;
    } else {
      --record->references;
      FreeDeviceIfUnused(table, device);
    }
  }
  if (negative) {
    ReportViolation("REFERENCE_BY_POINTER", object,
                    "ObDereferenceObject on device object %p, which holds no reference", object);
  }
  return true;
}

}  // namespace io

bool IsLiveDeviceObject(const DEVICE_OBJECT* device) {
  io::ObjectTable& table = io::Objects();
  std::lock_guard<std::mutex> guard(table.lock);
  return io::FindDevice(table, device) != nullptr;
}

bool IsDeletePending(const DEVICE_OBJECT* device) {
  io::ObjectTable& table = io::Objects();
  std::lock_guard<std::mutex> guard(table.lock);
  io::DeviceRecord* record = io::FindDevice(table, device);
  return record != nullptr && record->deletePending;
}

long DeviceObjectReferences(const DEVICE_OBJECT* device) {
  io::ObjectTable& table = io::Objects();
  std::lock_guard<std::mutex> guard(table.lock);
  io::DeviceRecord* record = io::FindDevice(table, device);
  return record == nullptr ? 0 : record->references;
}

PDEVICE_OBJECT AttachedToDevice(const DEVICE_OBJECT* device) {
  io::ObjectTable& table = io::Objects();
  std::lock_guard<std::mutex> guard(table.lock);
  io::DeviceRecord* record = io::FindDevice(table, device);
  return record == nullptr ? nullptr : record->attachedTo;
}

std::u16string DeviceObjectName(const DEVICE_OBJECT* device) {
  io::ObjectTable& table = io::Objects();
  std::lock_guard<std::mutex> guard(table.lock);
  io::DeviceRecord* record = io::FindDevice(table, device);
  return record == nullptr ? std::u16string() : record->name;
}

}  // namespace wdmsim

using wdmsim::ReportViolation;
using namespace wdmsim::io;

extern "C" NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                                   DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                                   PDEVICE_OBJECT* DeviceObject) {
  IrqlAtMost(PASSIVE_LEVEL, "IoCreateDevice", DriverObject);
  *DeviceObject = nullptr;
  if (ConsumeDeviceCreationFault()) return STATUS_INSUFFICIENT_RESOURCES;

  std::u16string name;
  if (DeviceName != nullptr && DeviceName->Length > 0) {
    name.assign(reinterpret_cast<const char16_t*>(DeviceName->Buffer), DeviceName->Length / sizeof(WCHAR));
  }
  size_t extensionOffset = AlignUp(sizeof(DEVICE_OBJECT));
  size_t blockSize = extensionOffset + AlignUp(DeviceExtensionSize);
  auto device = static_cast<PDEVICE_OBJECT>(std::calloc(1, blockSize));
  if (device == nullptr) return STATUS_INSUFFICIENT_RESOURCES;

  device->Type = IO_TYPE_DEVICE;
  device->Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT) + DeviceExtensionSize);
  device->DriverObject = DriverObject;
  device->DeviceExtension = DeviceExtensionSize ? reinterpret_cast<char*>(device) + extensionOffset : nullptr;
  device->DeviceType = DeviceType;
  device->Characteristics = DeviceCharacteristics;
  device->StackSize = 1;
  device->Flags = DO_DEVICE_INITIALIZING | (Exclusive ? DO_EXCLUSIVE : 0);
  InitializeListHead(&device->Queue.ListEntry);
  KeInitializeEvent(&device->DeviceLock, SynchronizationEvent, TRUE);

  enum { Created, UnknownDriver, Collision } outcome = Created;
  {
    ObjectTable& table = Objects();
    std::lock_guard<std::mutex> guard(table.lock);
    if (table.drivers.count(DriverObject) == 0) {
      outcome = UnknownDriver;
    } else {
      if (name.empty() && (DeviceCharacteristics & FILE_AUTOGENERATED_DEVICE_NAME)) {
        char text[32];
        snprintf(text, sizeof text, "\\Device\\%08lX", table.nextAutogeneratedName++);
        name = Utf16(text);
      }
      for (const auto& entry : table.devices) {
        if (!name.empty() && SameName(entry.second.name, name)) outcome = Collision;
      }
    }
    if (outcome == Created) {
      if (!name.empty()) device->Flags |= DO_DEVICE_HAS_NAME;
      device->NextDevice = DriverObject->DeviceObject;
      DriverObject->DeviceObject = device;
      DeviceRecord& record = table.devices[device];
      record.block = device;
      record.blockSize = blockSize;
      record.name = name;
    }
  }
  if (outcome != Created) {
    std::free(device);
    if (outcome == UnknownDriver) {
      ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", DriverObject,
                      "IoCreateDevice with %p, which is not a loaded driver object", (void*)DriverObject);
      return STATUS_INVALID_PARAMETER;
    }
    return STATUS_OBJECT_NAME_COLLISION;
  }
  *DeviceObject = device;
  return STATUS_SUCCESS;
}

extern "C" void IoDeleteDevice(PDEVICE_OBJECT DeviceObject) {
  IrqlAtMost(PASSIVE_LEVEL, "IoDeleteDevice", DeviceObject);
  enum { Deleted, Unknown, Twice } outcome = Deleted;
  PDEVICE_OBJECT stillAttachedTo = nullptr;
  std::string heldLock;
  {
    ObjectTable& table = Objects();
    std::lock_guard<std::mutex> guard(table.lock);
    DeviceRecord* record = FindDevice(table, DeviceObject);
    if (record == nullptr) {
      outcome = Unknown;
    } else if (record->deletePending) {
      outcome = Twice;
    } else {
      stillAttachedTo = record->attachedTo;
      heldLock = HeldRemoveLockIn(record->block, record->blockSize);
      record->deletePending = true;
      record->name.clear();  // the name is free for a new device object at once
      FreeDeviceIfUnused(table, DeviceObject);
    }
  }
  if (outcome == Unknown) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", DeviceObject,
                    "IoDeleteDevice on %p, which is not a device object", (void*)DeviceObject);
  } else if (outcome == Twice) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", DeviceObject,
                    "I/O error 0x240: IoDeleteDevice on device object %p, which was already deleted",
                    (void*)DeviceObject);
  }
  if (stillAttachedTo != nullptr) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", DeviceObject,
                    "I/O error 0x201: device object %p deleted while still attached to device %p "
                    "(IoDetachDevice missing)",
                    (void*)DeviceObject, (void*)stillAttachedTo);
  }
  if (!heldLock.empty()) {
    ReportViolation("DRIVER_VERIFIER_DETECTED_VIOLATION", DeviceObject,
                    "device object %p deleted while the remove lock in its extension is still held: %s",
                    (void*)DeviceObject, heldLock.c_str());
  }
}
