// RtlQueryRegistryValues: walks a query table over a key and hands each value to the
// entry's query routine (or, with RTL_QUERY_REGISTRY_DIRECT, stores it).
//
// Per value, as Windows does: a missing value (or one of type REG_NONE, or an empty one of
// the entry's default type) takes the entry's default, or is skipped when there is none,
// or ends the query with STATUS_OBJECT_NAME_NOT_FOUND under RTL_QUERY_REGISTRY_REQUIRED.
// Unless RTL_QUERY_REGISTRY_NOEXPAND is set, a REG_MULTI_SZ value reaches the routine as
// one REG_SZ call per string, and a REG_EXPAND_SZ value that holds a '%' arrives expanded
// as REG_SZ (one without '%' arrives unchanged). A routine's failure ends the query and is
// returned, except STATUS_BUFFER_TOO_SMALL, which is ignored.
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <wdm.h>

#include "registry/environment.h"
#include "registry/key_handles.h"
#include "registry/registry_tree.h"
#include "rtl/string_pool.h"

namespace {

using wdmsim::registry::Key;
using wdmsim::registry::Value;

const char16_t* const kRelativeRoots[RTL_REGISTRY_MAXIMUM] = {
    u"",
    u"\\Registry\\Machine\\System\\CurrentControlSet\\Services",
    u"\\Registry\\Machine\\System\\CurrentControlSet\\Control",
    u"\\Registry\\Machine\\Software\\Microsoft\\Windows NT\\CurrentVersion",
    u"\\Registry\\Machine\\Hardware\\DeviceMap",
    u"\\Registry\\User\\.Default",  // the current user of a system thread
};

constexpr ULONG kMaxCountedBytes = 0xFFFF;

struct OpenedKey {
  std::shared_ptr<Key> key;
  ACCESS_MASK granted = 0;
};

NTSTATUS OpenRoot(ULONG relativeTo, PCWSTR path, OpenedKey* opened) {
  if (relativeTo & RTL_REGISTRY_HANDLE) {
    return wdmsim::registry::ReferenceKey(reinterpret_cast<HANDLE>(const_cast<PWSTR>(path)), 0, &opened->key,
                                          &opened->granted);
  }
  // An optional key is only a hint to the caller's own error handling here.
  relativeTo &= ~static_cast<ULONG>(RTL_REGISTRY_OPTIONAL);
  if (relativeTo >= RTL_REGISTRY_MAXIMUM) return STATUS_INVALID_PARAMETER;
  std::u16string full = kRelativeRoots[relativeTo];
  std::u16string rest = wdmsim::registry::FromWide(path);
  if (relativeTo != RTL_REGISTRY_ABSOLUTE && !rest.empty()) {
    if (rest[0] != u'\\') full += u'\\';
    full += rest;
  } else {
    full += rest;
  }
  std::vector<std::u16string> names;
  NTSTATUS status = wdmsim::registry::SplitPath(full, true, &names);
  if (!NT_SUCCESS(status)) return status;
  std::lock_guard<std::mutex> guard(wdmsim::registry::TreeLock());
  opened->key = wdmsim::registry::FindKey(wdmsim::registry::Root(), names, names.size());
  if (!opened->key) return STATUS_OBJECT_NAME_NOT_FOUND;
  opened->granted = KEY_ALL_ACCESS;  // the kernel opens it for itself
  return STATUS_SUCCESS;
}

std::vector<WCHAR> TerminatedName(const std::u16string& name) {
  std::vector<WCHAR> text(name.begin(), name.end());
  text.push_back(0);
  return text;
}

// Byte size of a default string given without a length, terminators included.
ULONG MeasureDefault(ULONG type, const void* data) {
  const WCHAR* p = static_cast<const WCHAR*>(data);
  if (p == nullptr) return 0;
  if (type == REG_SZ || type == REG_EXPAND_SZ) return static_cast<ULONG>((wcslen(p) + 1) * sizeof(WCHAR));
  if (type == REG_MULTI_SZ) {
    const WCHAR* s = p;
    while (*s != 0) s += wcslen(s) + 1;
    return static_cast<ULONG>((s - p + 1) * sizeof(WCHAR));
  }
  return 0;
}

// What RTL_QUERY_REGISTRY_DIRECT stores at the entry's EntryContext.
NTSTATUS StoreDirect(ULONG type, const void* data, ULONG length, void* target) {
  if (type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ) {
    auto* string = static_cast<PUNICODE_STRING>(target);
    USHORT bytes = static_cast<USHORT>(length > kMaxCountedBytes ? kMaxCountedBytes : length);
    if (string->Buffer == nullptr) {
      USHORT size = bytes < sizeof(WCHAR) ? sizeof(WCHAR) : bytes;
      string->Buffer = static_cast<PWSTR>(wdmsim::rtl::AllocateStringBuffer(size));
      if (string->Buffer == nullptr) return STATUS_NO_MEMORY;
      string->Buffer[0] = 0;
      string->MaximumLength = size;
    } else if (bytes > string->MaximumLength) {
      return STATUS_BUFFER_TOO_SMALL;
    }
    memcpy(string->Buffer, data, bytes);
    string->Length = bytes >= sizeof(WCHAR) ? static_cast<USHORT>(bytes - sizeof(WCHAR)) : 0;
    return STATUS_SUCCESS;
  }
  if (length <= sizeof(ULONG)) {
    memcpy(target, data, length);
    return STATUS_SUCCESS;
  }
  // Larger data: the buffer starts with its size. Negative: data only; otherwise the
  // length and type come first.
  LONG size = *static_cast<LONG*>(target);
  if (size < 0) {
    if (static_cast<ULONG>(-static_cast<int64_t>(size)) < length) return STATUS_BUFFER_TOO_SMALL;
    memcpy(target, data, length);
    return STATUS_SUCCESS;
  }
  if (static_cast<ULONG>(size) < 2 * sizeof(ULONG) + length) return STATUS_BUFFER_TOO_SMALL;
  ULONG* header = static_cast<ULONG*>(target);
  header[0] = length;
  header[1] = type;
  memcpy(header + 2, data, length);
  return STATUS_SUCCESS;
}

class TableQuery {
 public:
  TableQuery(PVOID context, PVOID environment)
      : mContext(context), mEnvironment(static_cast<const WCHAR*>(environment)) {}

  NTSTATUS Run(const OpenedKey& top, PRTL_QUERY_REGISTRY_TABLE table) {
    OpenedKey current = top;
    for (PRTL_QUERY_REGISTRY_TABLE entry = table;
         entry->QueryRoutine != nullptr || (entry->Flags & (RTL_QUERY_REGISTRY_SUBKEY | RTL_QUERY_REGISTRY_DIRECT));
         ++entry) {
      NTSTATUS status = RunEntry(top, &current, *entry);
      if (!NT_SUCCESS(status)) return status;
    }
    return STATUS_SUCCESS;
  }

 private:
  NTSTATUS RunEntry(const OpenedKey& top, OpenedKey* current, RTL_QUERY_REGISTRY_TABLE& entry) {
    if ((entry.Flags & RTL_QUERY_REGISTRY_DIRECT) &&
        (entry.Name == nullptr || (entry.Flags & RTL_QUERY_REGISTRY_SUBKEY) || entry.QueryRoutine != nullptr)) {
      return STATUS_INVALID_PARAMETER;
    }
    if (entry.Flags & (RTL_QUERY_REGISTRY_TOPKEY | RTL_QUERY_REGISTRY_SUBKEY)) *current = top;
    if (entry.Flags & RTL_QUERY_REGISTRY_SUBKEY) {
      if (entry.Name == nullptr) return STATUS_INVALID_PARAMETER;
      NTSTATUS status = OpenSubkey(top, entry.Name, current);
      if (!NT_SUCCESS(status)) return status;
      return entry.QueryRoutine != nullptr ? QueryAllValues(*current, entry) : STATUS_SUCCESS;
    }
    if (entry.Name != nullptr) return QueryNamedValue(*current, entry);
    if (entry.Flags & RTL_QUERY_REGISTRY_NOVALUE) {
      return entry.QueryRoutine(nullptr, REG_NONE, nullptr, 0, mContext, entry.EntryContext);
    }
    return QueryAllValues(*current, entry);
  }

  NTSTATUS OpenSubkey(const OpenedKey& top, PCWSTR name, OpenedKey* subkey) {
    std::vector<std::u16string> names;
    NTSTATUS status = wdmsim::registry::SplitPath(wdmsim::registry::FromWide(name), false, &names);
    if (!NT_SUCCESS(status)) return status;
    std::lock_guard<std::mutex> guard(wdmsim::registry::TreeLock());
    subkey->key = wdmsim::registry::FindKey(top.key, names, names.size());
    subkey->granted = top.granted;
    return subkey->key ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
  }

  NTSTATUS QueryNamedValue(const OpenedKey& key, RTL_QUERY_REGISTRY_TABLE& entry) {
    if ((key.granted & KEY_QUERY_VALUE) == 0) return STATUS_ACCESS_DENIED;
    std::u16string wanted = wdmsim::registry::FromWide(entry.Name);
    Value value;
    bool found;
    {
      std::lock_guard<std::mutex> guard(wdmsim::registry::TreeLock());
      Value* stored = key.key->FindValue(wanted);
      found = stored != nullptr;
      if (found) value = *stored;
    }
    NTSTATUS status = found ? ProcessStoredValue(entry, value) : ProcessMissingValue(entry);
    if (found && NT_SUCCESS(status) && (entry.Flags & RTL_QUERY_REGISTRY_DELETE)) DeleteValue(key, wanted);
    return status;
  }

  NTSTATUS QueryAllValues(const OpenedKey& key, RTL_QUERY_REGISTRY_TABLE& entry) {
    if ((key.granted & KEY_QUERY_VALUE) == 0) return STATUS_ACCESS_DENIED;
    std::vector<Value> values;
    {
      std::lock_guard<std::mutex> guard(wdmsim::registry::TreeLock());
      values = key.key->values;
    }
    if (values.empty()) {
      return (entry.Flags & RTL_QUERY_REGISTRY_REQUIRED) ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_SUCCESS;
    }
    for (const Value& value : values) {
      NTSTATUS status = ProcessStoredValue(entry, value);
      if (!NT_SUCCESS(status)) return status;
      if (entry.Flags & RTL_QUERY_REGISTRY_DELETE) DeleteValue(key, value.name);
    }
    return STATUS_SUCCESS;
  }

  void DeleteValue(const OpenedKey& key, const std::u16string& name) {
    if ((key.granted & KEY_SET_VALUE) == 0) return;
    std::lock_guard<std::mutex> guard(wdmsim::registry::TreeLock());
    if (Value* stored = key.key->FindValue(name)) {
      key.key->values.erase(key.key->values.begin() + (stored - key.key->values.data()));
    }
  }

  ULONG DefaultType(const RTL_QUERY_REGISTRY_TABLE& entry) const { return entry.DefaultType & 0xFF; }

  NTSTATUS ProcessStoredValue(RTL_QUERY_REGISTRY_TABLE& entry, const Value& value) {
    ULONG length = static_cast<ULONG>(value.data.size());
    if (value.type == REG_NONE || (length == 0 && value.type == DefaultType(entry))) {
      return ProcessMissingValue(entry);
    }
    if (entry.Flags & RTL_QUERY_REGISTRY_TYPECHECK) {
      ULONG expected = entry.DefaultType >> RTL_QUERY_REGISTRY_TYPECHECK_SHIFT;
      if (expected != REG_NONE && value.type != expected) return STATUS_OBJECT_TYPE_MISMATCH;
    }
    // The routine gets its own copy, followed by terminators. A multi-string read from
    // the registry is split as if it had one more terminator, so that its last string
    // always ends (stored as two NULs it still yields one empty string); with
    // RTL_QUERY_REGISTRY_NOEXPAND the routine sees the stored bytes as they are.
    std::vector<uint8_t> data(value.data);
    data.resize(data.size() + 2 * sizeof(WCHAR), 0);
    if (value.type == REG_MULTI_SZ && !(entry.Flags & RTL_QUERY_REGISTRY_NOEXPAND)) length += sizeof(WCHAR);
    std::vector<WCHAR> name = TerminatedName(value.name);
    return Deliver(entry, name.data(), value.type, data.data(), length);
  }

  NTSTATUS ProcessMissingValue(RTL_QUERY_REGISTRY_TABLE& entry) {
    ULONG type = DefaultType(entry);
    if (type == REG_NONE) {
      return (entry.Flags & RTL_QUERY_REGISTRY_REQUIRED) ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_SUCCESS;
    }
    ULONG length = entry.DefaultLength != 0 ? entry.DefaultLength : MeasureDefault(type, entry.DefaultData);
    std::vector<uint8_t> data(length + 2 * sizeof(WCHAR), 0);
    if (entry.DefaultData != nullptr && length != 0) memcpy(data.data(), entry.DefaultData, length);
    return Deliver(entry, entry.Name, type, data.data(), length);
  }

  // data is followed by at least two zero characters beyond length.
  NTSTATUS Deliver(RTL_QUERY_REGISTRY_TABLE& entry, PWSTR name, ULONG type, void* data, ULONG length) {
    void* target = entry.EntryContext;
    if (!(entry.Flags & RTL_QUERY_REGISTRY_NOEXPAND)) {
      if (type == REG_MULTI_SZ) return DeliverEachString(entry, name, static_cast<WCHAR*>(data), length);
      if (type == REG_EXPAND_SZ && length >= sizeof(WCHAR)) {
        std::u16string text(static_cast<const char16_t*>(data), length / sizeof(WCHAR));
        size_t terminator = text.find(u'\0');
        if (terminator != std::u16string::npos) text.resize(terminator);
        if (text.find(u'%') != std::u16string::npos) {
          std::u16string expanded = wdmsim::registry::ExpandEnvironmentStrings(text, mEnvironment);
          std::vector<WCHAR> terminated(expanded.begin(), expanded.end());
          terminated.push_back(0);
          return Call(entry, &target, name, REG_SZ, terminated.data(),
                      static_cast<ULONG>(terminated.size() * sizeof(WCHAR)));
        }
      }
    }
    return Call(entry, &target, name, type, data, length);
  }

  // The strings of a multi-string, each as REG_SZ with its terminator; the last two
  // characters (the end of the list) start no string.
  NTSTATUS DeliverEachString(RTL_QUERY_REGISTRY_TABLE& entry, PWSTR name, WCHAR* data, ULONG length) {
    void* target = entry.EntryContext;
    WCHAR* end = data + length / sizeof(WCHAR);
    WCHAR* stop = length / sizeof(WCHAR) >= 2 ? end - 2 : data;
    for (WCHAR* s = data; s < stop;) {
      WCHAR* terminator = s;
      while (*terminator != 0) ++terminator;
      NTSTATUS status =
          Call(entry, &target, name, REG_SZ, s, static_cast<ULONG>((terminator - s + 1) * sizeof(WCHAR)));
      if (!NT_SUCCESS(status)) return status;
      s = terminator + 1;
    }
    return STATUS_SUCCESS;
  }

  // A direct entry fills one UNICODE_STRING after the other when a multi-string is split.
  NTSTATUS Call(RTL_QUERY_REGISTRY_TABLE& entry, void** target, PWSTR name, ULONG type, void* data, ULONG length) {
    if (entry.Flags & RTL_QUERY_REGISTRY_DIRECT) {
      NTSTATUS status = StoreDirect(type, data, length, *target);
      *target = static_cast<PUNICODE_STRING>(*target) + 1;
      return status;
    }
    NTSTATUS status = entry.QueryRoutine(name, type, data, length, mContext, entry.EntryContext);
    return status == STATUS_BUFFER_TOO_SMALL ? STATUS_SUCCESS : status;
  }

  PVOID mContext;
  const WCHAR* mEnvironment;
};

}  // namespace

extern "C" NTSTATUS NTAPI RtlQueryRegistryValues(ULONG RelativeTo, PCWSTR Path, PRTL_QUERY_REGISTRY_TABLE QueryTable,
                                                 PVOID Context, PVOID Environment) {
  wdmsim::registry::CheckPassiveLevel("RtlQueryRegistryValues");
  OpenedKey top;
  NTSTATUS status = OpenRoot(RelativeTo, Path, &top);
  if (!NT_SUCCESS(status)) return status;
  return TableQuery(Context, Environment).Run(top, QueryTable);
}
