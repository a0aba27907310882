#include <mutex>
#include <unordered_set>

#include "registry/key_handles.h"

#include <wdmsim/verifier.h>

#include "kernel/handles.h"

namespace wdmsim {
namespace registry {
namespace {

struct OpenKey {
  std::shared_ptr<Key> key;
  ACCESS_MASK granted;
};

struct OpenKeys {
  std::mutex lock;
  std::unordered_set<OpenKey*> live;
};

OpenKeys& openKeys() {
  static OpenKeys* o = new OpenKeys;
  return *o;
}

NTSTATUS CloseOpenKey(void* object) {
  OpenKey* open = static_cast<OpenKey*>(object);
  OpenKeys& o = openKeys();
  {
    std::lock_guard<std::mutex> guard(o.lock);
    if (o.live.erase(open) == 0) return STATUS_SUCCESS;  // already forgotten at the end of a run
  }
  delete open;
  return STATUS_SUCCESS;
}

}  // namespace

ACCESS_MASK MapKeyAccess(ACCESS_MASK desired) {
  ACCESS_MASK granted = desired & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL | MAXIMUM_ALLOWED);
  if (desired & GENERIC_READ) granted |= KEY_READ;
  if (desired & GENERIC_WRITE) granted |= KEY_WRITE;
  if (desired & GENERIC_EXECUTE) granted |= KEY_EXECUTE;
  // A kernel-mode caller passes every access check.
  if (desired & (GENERIC_ALL | MAXIMUM_ALLOWED)) granted |= KEY_ALL_ACCESS;
  return granted;
}

HANDLE OpenKeyHandle(std::shared_ptr<Key> key, ACCESS_MASK granted) {
  handles::RegisterCloser(handles::Kind::RegistryKey, CloseOpenKey);
  OpenKey* open = new OpenKey{std::move(key), granted};
  {
    OpenKeys& o = openKeys();
    std::lock_guard<std::mutex> guard(o.lock);
    o.live.insert(open);
  }
  return handles::Create(handles::Kind::RegistryKey, open, granted);
}

NTSTATUS ReferenceKey(HANDLE handle, ACCESS_MASK needed, std::shared_ptr<Key>* key, ACCESS_MASK* granted) {
  void* object = nullptr;
  ACCESS_MASK access = 0;
  if (!handles::Lookup(handle, handles::Kind::RegistryKey, &object, &access)) {
    return handles::Lookup(handle, handles::Kind::Thread, nullptr, nullptr) ? STATUS_OBJECT_TYPE_MISMATCH
                                                                             : STATUS_INVALID_HANDLE;
  }
  if ((access & needed) != needed) return STATUS_ACCESS_DENIED;
  OpenKeys& o = openKeys();
  std::lock_guard<std::mutex> guard(o.lock);
  OpenKey* open = static_cast<OpenKey*>(object);
  if (o.live.count(open) == 0) return STATUS_INVALID_HANDLE;  // closed meanwhile
  *key = open->key;
  if (granted) *granted = access;
  return STATUS_SUCCESS;
}

void ForgetOpenKeys() {
  OpenKeys& o = openKeys();
  std::unordered_set<OpenKey*> left;
  {
    std::lock_guard<std::mutex> guard(o.lock);
    left.swap(o.live);
  }
  for (OpenKey* open : left) delete open;
}

void CheckPassiveLevel(const char* service) {
  KIRQL irql = KeGetCurrentIrql();
  if (irql != PASSIVE_LEVEL) {
    ReportViolation("IRQL_NOT_LESS_OR_EQUAL", nullptr, "%s called at IRQL %u; the registry needs PASSIVE_LEVEL",
                    service, irql);
  }
}

}  // namespace registry
}  // namespace wdmsim
