// ZwOpenKey and ZwCreateKey: from a path, absolute or relative to an open key, to a handle.
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <wdm.h>

#include "registry/key_handles.h"
#include "registry/registry_tree.h"

namespace {

using wdmsim::registry::Key;

// Where the object attributes point: the key the name starts from and the names below it.
NTSTATUS ResolveName(POBJECT_ATTRIBUTES attributes, std::shared_ptr<Key>* base,
                     std::vector<std::u16string>* names) {
  if (attributes == nullptr || attributes->ObjectName == nullptr) return STATUS_INVALID_PARAMETER;
  if ((attributes->ObjectName->Length & 1) != 0) return STATUS_OBJECT_NAME_INVALID;
  std::u16string path = wdmsim::registry::FromCounted(attributes->ObjectName);
  bool relative = attributes->RootDirectory != nullptr;
  if (relative) {
    // Opening below a key needs no right on that key.
    NTSTATUS status = wdmsim::registry::ReferenceKey(attributes->RootDirectory, 0, base);
    if (!NT_SUCCESS(status)) return status;
  }
  NTSTATUS status = wdmsim::registry::SplitPath(path, !relative, names);
  if (!NT_SUCCESS(status)) return status;
  if (!relative) {
    std::lock_guard<std::mutex> guard(wdmsim::registry::TreeLock());
    *base = wdmsim::registry::Root();
  }
  return STATUS_SUCCESS;
}

}  // namespace

extern "C" NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes) {
  using namespace wdmsim::registry;
  CheckPassiveLevel("ZwOpenKey");
  if (KeyHandle == nullptr) return STATUS_INVALID_PARAMETER;
  *KeyHandle = nullptr;
  std::shared_ptr<Key> base;
  std::vector<std::u16string> names;
  NTSTATUS status = ResolveName(ObjectAttributes, &base, &names);
  if (!NT_SUCCESS(status)) return status;

  std::shared_ptr<Key> key;
  {
    std::lock_guard<std::mutex> guard(TreeLock());
    key = FindKey(base, names, names.size());
  }
  if (!key) return STATUS_OBJECT_NAME_NOT_FOUND;
  *KeyHandle = OpenKeyHandle(std::move(key), MapKeyAccess(DesiredAccess));
  return STATUS_SUCCESS;
}

// Only the last key of the path is created: its parent must exist.
extern "C" NTSTATUS NTAPI ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                      ULONG TitleIndex, PUNICODE_STRING Class, ULONG CreateOptions,
                                      PULONG Disposition) {
  using namespace wdmsim::registry;
  CheckPassiveLevel("ZwCreateKey");
  if (KeyHandle == nullptr) return STATUS_INVALID_PARAMETER;
  *KeyHandle = nullptr;
  std::shared_ptr<Key> base;
  std::vector<std::u16string> names;
  NTSTATUS status = ResolveName(ObjectAttributes, &base, &names);
  if (!NT_SUCCESS(status)) return status;

  std::shared_ptr<Key> key;
  bool created = false;
  {
    std::lock_guard<std::mutex> guard(TreeLock());
    if (names.empty()) {
      key = base;
    } else {
      std::shared_ptr<Key> parent = FindKey(base, names, names.size() - 1);
      if (parent) key = CreateSubkey(parent, names.back(), &created);
    }
  }
  if (!key) return STATUS_OBJECT_NAME_NOT_FOUND;
  if (Disposition != nullptr) *Disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
  *KeyHandle = OpenKeyHandle(std::move(key), MapKeyAccess(DesiredAccess));
  return STATUS_SUCCESS;
}
