#include "kernel/objects.h"

#include <mutex>
#include <unordered_map>

#include <wdmsim/verifier.h>

#include "io/device_references.h"
#include "kernel/handles.h"
#include "kernel/irql.h"
#include "kernel/threads.h"


namespace wdmsim {
namespace kernel {
namespace objects {
namespace {

struct Entry {
  LONG_PTR references;
  DeleteFunction onLastReference;
};

struct Table {
  std::mutex lock;  // a leaf: nothing else is taken while it is held
  std::unordered_map<const void*, Entry> entries;
};

Table& table() {
  static Table* t = new Table;
  return *t;
}

}  // namespace

void Track(void* object, LONG_PTR initialReferences, DeleteFunction onLastReference) {
  Table& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  t.entries[object] = Entry{initialReferences, onLastReference};
}

bool IsTracked(const void* object) {
  Table& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  return t.entries.count(object) != 0;
}

LONG_PTR ReferenceCount(const void* object) {
  Table& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  auto it = t.entries.find(object);
  return it == t.entries.end() ? 0 : it->second.references;
}

LONG_PTR Reference(void* object) {
  Table& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  auto it = t.entries.find(object);
  if (it == t.entries.end()) return -1;
  return ++it->second.references;
}

LONG_PTR Dereference(void* object) {
  Table& t = table();
  DeleteFunction deleter = nullptr;
  LONG_PTR count;
  {
    std::lock_guard<std::mutex> guard(t.lock);
    auto it = t.entries.find(object);
    if (it == t.entries.end()) return -1;
    count = --it->second.references;
    if (count == 0) {
      deleter = it->second.onLastReference;
      t.entries.erase(it);
    }
  }
  if (deleter) deleter(object);
  return count;
}

void Forget(void* object) {
  Table& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  t.entries.erase(object);
}

void Reset() {
  Table& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  t.entries.clear();
}

}  // namespace objects
}  // namespace kernel
}  // namespace wdmsim

using namespace wdmsim::kernel;

namespace {
_OBJECT_TYPE gThreadType = {"Thread"};
POBJECT_TYPE gThreadTypePointer = &gThreadType;

// NtCurrentThread(): the pseudo handle every thread may use for itself.
const HANDLE kCurrentThreadHandle = reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-2));
}  // namespace

POBJECT_TYPE* PsThreadType = &gThreadTypePointer;

extern "C" NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                              KPROCESSOR_MODE AccessMode, PVOID* Object,
                                              POBJECT_HANDLE_INFORMATION HandleInformation) {
  ThreadRecord* self = CurrentThread();
  RequireIrqlExactly(PASSIVE_LEVEL, "ObReferenceObjectByHandle", Handle);
  *Object = nullptr;
  if (ObjectType != nullptr && ObjectType != *PsThreadType) return STATUS_OBJECT_TYPE_MISMATCH;

  void* object = nullptr;
  ACCESS_MASK granted = THREAD_ALL_ACCESS;
  if (Handle == kCurrentThreadHandle) {
    object = self->object;
  } else if (!wdmsim::handles::Lookup(Handle, wdmsim::handles::Kind::Thread, &object, &granted)) {
    // A handle of another kind (a registry key) is not an object this kernel hands out.
    bool otherKind = wdmsim::handles::Lookup(Handle, wdmsim::handles::Kind::RegistryKey, nullptr, nullptr);
    return otherKind ? STATUS_OBJECT_TYPE_MISMATCH : STATUS_INVALID_HANDLE;
  }
  // Kernel-mode callers are trusted with any access; user-mode requests are checked.
  if (AccessMode != KernelMode && (DesiredAccess & ~granted) != 0) return STATUS_ACCESS_DENIED;

  if (objects::Reference(object) < 0) return STATUS_INVALID_HANDLE;
  *Object = object;
  if (HandleInformation != nullptr) {
    HandleInformation->HandleAttributes = 0;
    HandleInformation->GrantedAccess = granted;
  }
  return STATUS_SUCCESS;
}

extern "C" LONG_PTR FASTCALL ObfReferenceObject(PVOID Object) {
  CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, "ObfReferenceObject", Object);
  LONG_PTR count = objects::Reference(Object);
  if (count >= 0) return count;
  if (wdmsim::io::ReferenceDeviceObject(Object)) return 1;  // device objects are counted by the I/O manager
  wdmsim::ReportViolation("INVALID_OBJECT_REFERENCE", Object, "ObReferenceObject(%p): not a live kernel object",
                          Object);
  return 0;
}

extern "C" LONG_PTR FASTCALL ObfDereferenceObject(PVOID Object) {
  CurrentThread();
  RequireIrqlAtMost(DISPATCH_LEVEL, "ObfDereferenceObject", Object);
  LONG_PTR count = objects::Dereference(Object);
  if (count >= 0) return count;
  if (wdmsim::io::DereferenceDeviceObject(Object)) return 0;
  // More dereferences than references: the object is already gone.
  wdmsim::ReportViolation("REFERENCE_BY_POINTER", Object,
                          "ObDereferenceObject(%p): no reference left (object unknown or already deleted)", Object);
  return 0;
}
