// ZwSetValueKey, ZwQueryValueKey and ZwDeleteValueKey on an open key.
#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <wdm.h>

#include "registry/key_handles.h"
#include "registry/registry_tree.h"

namespace {

using wdmsim::registry::Key;
using wdmsim::registry::Value;

ULONG NameBytes(const Value& value) { return static_cast<ULONG>(value.name.size() * sizeof(WCHAR)); }
ULONG DataBytes(const Value& value) { return static_cast<ULONG>(value.data.size()); }

// Where the data starts in KEY_VALUE_FULL_INFORMATION: after the name, 8-byte aligned.
ULONG FullDataOffset(const Value& value) {
  return (FIELD_OFFSET(KEY_VALUE_FULL_INFORMATION, Name) + NameBytes(value) + 7u) & ~7u;
}

// The fixed part of the record, which must fit for anything to be written, and the size
// of the whole record.
NTSTATUS RecordSizes(KEY_VALUE_INFORMATION_CLASS infoClass, const Value& value, ULONG* fixed, ULONG* whole) {
  switch (infoClass) {
    case KeyValueBasicInformation:
      *fixed = FIELD_OFFSET(KEY_VALUE_BASIC_INFORMATION, Name);
      *whole = *fixed + NameBytes(value);
      return STATUS_SUCCESS;
    case KeyValueFullInformation:
      *fixed = FIELD_OFFSET(KEY_VALUE_FULL_INFORMATION, Name);
      *whole = FullDataOffset(value) + DataBytes(value);
      return STATUS_SUCCESS;
    case KeyValuePartialInformation:
      *fixed = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
      *whole = *fixed + DataBytes(value);
      return STATUS_SUCCESS;
    default:
      return STATUS_INVALID_PARAMETER;
  }
}

// Writes the fixed part, and the variable part when complete is set.
void WriteRecord(KEY_VALUE_INFORMATION_CLASS infoClass, const Value& value, void* buffer, bool complete) {
  switch (infoClass) {
    case KeyValueBasicInformation: {
      auto* info = static_cast<PKEY_VALUE_BASIC_INFORMATION>(buffer);
      info->TitleIndex = 0;
      info->Type = value.type;
      info->NameLength = NameBytes(value);
      if (complete) memcpy(info->Name, value.name.data(), NameBytes(value));
      break;
    }
    case KeyValueFullInformation: {
      auto* info = static_cast<PKEY_VALUE_FULL_INFORMATION>(buffer);
      info->TitleIndex = 0;
      info->Type = value.type;
      info->DataOffset = FullDataOffset(value);
      info->DataLength = DataBytes(value);
      info->NameLength = NameBytes(value);
      if (complete) {
        memcpy(info->Name, value.name.data(), NameBytes(value));
        if (!value.data.empty()) memcpy(static_cast<UCHAR*>(buffer) + info->DataOffset, value.data.data(), DataBytes(value));
      }
      break;
    }
    case KeyValuePartialInformation: {
      auto* info = static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer);
      info->TitleIndex = 0;
      info->Type = value.type;
      info->DataLength = DataBytes(value);
      if (complete && !value.data.empty()) memcpy(info->Data, value.data.data(), DataBytes(value));
      break;
    }
  }
}

}  // namespace

extern "C" NTSTATUS NTAPI ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type,
                                        PVOID Data, ULONG DataSize) {
  using namespace wdmsim::registry;
  CheckPassiveLevel("ZwSetValueKey");
  std::shared_ptr<Key> key;
  NTSTATUS status = ReferenceKey(KeyHandle, KEY_SET_VALUE, &key);
  if (!NT_SUCCESS(status)) return status;
  if (ValueName == nullptr || (Data == nullptr && DataSize != 0)) return STATUS_INVALID_PARAMETER;

  std::u16string name = FromCounted(ValueName);
  const uint8_t* bytes = static_cast<const uint8_t*>(Data);
  std::vector<uint8_t> data(bytes, bytes + DataSize);
  std::lock_guard<std::mutex> guard(TreeLock());
  if (Value* existing = key->FindValue(name)) {
    existing->type = Type;
    existing->data.swap(data);
  } else {
    key->values.push_back(Value{name, Type, std::move(data)});
  }
  return STATUS_SUCCESS;
}

// Too small for the fixed part: STATUS_BUFFER_TOO_SMALL and nothing written. Room for the
// fixed part only: STATUS_BUFFER_OVERFLOW with the fixed part written. Either way
// ResultLength tells the size of the whole record.
extern "C" NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                                          KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                          PVOID KeyValueInformation, ULONG Length, PULONG ResultLength) {
  using namespace wdmsim::registry;
  CheckPassiveLevel("ZwQueryValueKey");
  std::shared_ptr<Key> key;
  NTSTATUS status = ReferenceKey(KeyHandle, KEY_QUERY_VALUE, &key);
  if (!NT_SUCCESS(status)) return status;
  if (ValueName == nullptr || ResultLength == nullptr) return STATUS_INVALID_PARAMETER;

  Value value;
  {
    std::lock_guard<std::mutex> guard(TreeLock());
    Value* found = key->FindValue(FromCounted(ValueName));
    if (found == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
    value = *found;
  }
  ULONG fixed, whole;
  status = RecordSizes(KeyValueInformationClass, value, &fixed, &whole);
  if (!NT_SUCCESS(status)) return status;
  *ResultLength = whole;
  if (Length < fixed || KeyValueInformation == nullptr) return STATUS_BUFFER_TOO_SMALL;
  bool complete = Length >= whole;
  WriteRecord(KeyValueInformationClass, value, KeyValueInformation, complete);
  return complete ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

extern "C" NTSTATUS NTAPI ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName) {
  using namespace wdmsim::registry;
  CheckPassiveLevel("ZwDeleteValueKey");
  std::shared_ptr<Key> key;
  NTSTATUS status = ReferenceKey(KeyHandle, KEY_SET_VALUE, &key);
  if (!NT_SUCCESS(status)) return status;
  if (ValueName == nullptr) return STATUS_INVALID_PARAMETER;

  std::lock_guard<std::mutex> guard(TreeLock());
  Value* found = key->FindValue(FromCounted(ValueName));
  if (found == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
  key->values.erase(key->values.begin() + (found - key->values.data()));
  return STATUS_SUCCESS;
}
