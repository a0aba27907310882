#include "knregistrykey.h"

#include "kntrace.h"

KnRegistryKey::KnRegistryKey() : mKeyHandle(NULL) {}

KnRegistryKey::~KnRegistryKey() { Close(); }

NTSTATUS KnRegistryKey::OpenKey(PCWSTR path, ACCESS_MASK desiredAccess, bool create) {
  return OpenKey(NULL, path, desiredAccess, create);
}

NTSTATUS KnRegistryKey::OpenKey(HANDLE rootKey, PCWSTR path, ACCESS_MASK desiredAccess, bool create) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  Close();

  UNICODE_STRING keyPath;
  RtlInitUnicodeString(&keyPath, path);
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &keyPath, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, rootKey, NULL);

  HANDLE handle = NULL;
  NTSTATUS status;
  if (create) {
    status = ZwCreateKey(&handle, desiredAccess, &attributes, 0, NULL, 0, NULL);
  } else {
    status = ZwOpenKey(&handle, desiredAccess, &attributes);
  }
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:KnRegistryKey::OpenKey: %s(%S) failed, stat=%N\n", create ? "ZwCreateKey" : "ZwOpenKey", path,
             status);
    return status;
  }
  mKeyHandle = handle;
  return status;
}

NTSTATUS KnRegistryKey::OpenDeviceRegistryKey(PDEVICE_OBJECT physicalDeviceObject, ULONG keyType,
                                              ACCESS_MASK desiredAccess) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  Close();

  HANDLE handle = NULL;
  NTSTATUS status = IoOpenDeviceRegistryKey(physicalDeviceObject, keyType, desiredAccess, &handle);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:KnRegistryKey::OpenDeviceRegistryKey: IoOpenDeviceRegistryKey failed, stat=%N\n", status);
    return status;
  }
  mKeyHandle = handle;
  return status;
}

NTSTATUS KnRegistryKey::Close() {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  if (mKeyHandle == NULL) {
    return STATUS_SUCCESS;
  }
  NTSTATUS status = ZwClose(mKeyHandle);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:KnRegistryKey::Close: ZwClose(%p) failed, stat=%N\n", mKeyHandle, status);
  }
  mKeyHandle = NULL;
  return status;
}

NTSTATUS KnRegistryKey::SetDword(PCWSTR valueName, ULONG value) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(IsValid());

  UNICODE_STRING name;
  RtlInitUnicodeString(&name, valueName);
  NTSTATUS status = ZwSetValueKey(mKeyHandle, &name, 0, REG_DWORD, &value, sizeof(value));
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:KnRegistryKey::SetDword: ZwSetValueKey(%S) failed, stat=%N\n", valueName, status);
  }
  return status;
}

NTSTATUS KnRegistryKey::QueryDword(PCWSTR valueName, ULONG* value) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(IsValid());

  ULONG data = 0;
  KnRegistryQueryContext context;
  context.mExpectedType = REG_DWORD;
  context.mBuffer = &data;
  context.mSize = sizeof(data);
  context.mStatus = STATUS_UNSUCCESSFUL;

  NTSTATUS status = QueryValue(valueName, RTL_QUERY_REGISTRY_REQUIRED, &context);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:KnRegistryKey::QueryDword: RtlQueryRegistryValues(%S) failed, stat=%N\n", valueName, status);
    *value = 0;
    return status;
  }
  *value = data;
  return context.mStatus;
}

NTSTATUS KnRegistryKey::GetDwordValue(PCWSTR valueName, ULONG* value, ULONG defaultValue) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(IsValid());

  NTSTATUS status = QueryDword(valueName, value);
  if (NT_SUCCESS(status)) {
    return status;
  }
  // Leave the default in the registry where it can be seen and changed.
  status = SetDword(valueName, defaultValue);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:KnRegistryKey::GetDwordValue: SetDword(%S) failed, stat=%N\n", valueName, status);
  }
  *value = defaultValue;
  return status;
}

NTSTATUS KnRegistryKey::QueryString(PCWSTR valueName, PWSTR buffer, ULONG MaxChars, ULONG type) {
  KN_ASSERT_IRQL_EQ_PASSIVE();
  KN_ASSERT(IsValid());

  if (MaxChars == 0) {
    KN_TRACE(0x1, "%P:KnRegistryKey::QueryString: MaxChars==0\n");
    return STATUS_INVALID_PARAMETER;
  }
  if (type != REG_SZ && type != REG_EXPAND_SZ && type != REG_MULTI_SZ) {
    KN_TRACE(0x1, "%P:KnRegistryKey::QueryString: invalid type\n");
    return STATUS_INVALID_PARAMETER;
  }

  KnRegistryQueryContext context;
  context.mExpectedType = type;
  context.mBuffer = buffer;
  context.mSize = MaxChars * sizeof(WCHAR);
  context.mStatus = STATUS_UNSUCCESSFUL;

  // Without NOEXPAND the platform hands a multi-string over one string at a time.
  ULONG flags = RTL_QUERY_REGISTRY_REQUIRED;
  if (type == REG_MULTI_SZ) {
    flags |= RTL_QUERY_REGISTRY_NOEXPAND;
  }
  NTSTATUS status = QueryValue(valueName, flags, &context);
  if (!NT_SUCCESS(status)) {
    KN_TRACE(0x1, "%P:KnRegistryKey::QueryString: RtlQueryRegistryValues(%S) failed, stat=%N\n", valueName, status);
    buffer[0] = 0;
    return status;
  }
  return context.mStatus;
}

NTSTATUS KnRegistryKey::QueryValue(PCWSTR valueName, ULONG queryFlags, KnRegistryQueryContext* context) {
  RTL_QUERY_REGISTRY_TABLE table[2];
  RtlZeroMemory(table, sizeof(table));
  table[0].QueryRoutine = QueryRoutine;
  table[0].Flags = queryFlags;
  table[0].Name = (PWSTR)valueName;
  table[0].EntryContext = context;
  return RtlQueryRegistryValues(RTL_REGISTRY_HANDLE, (PCWSTR)mKeyHandle, table, NULL, NULL);
}

// Copies a string value of charCount characters that must end in terminatorCount
// NULs (1 for a string, 2 for a multi-string). A value that does not end so gets all
// of them appended; one shorter than the terminators reads as empty.
static void CopyTerminatedString(KnRegistryQueryContext* context, const WCHAR* data, ULONG charCount,
                                 ULONG terminatorCount) {
  if (charCount < terminatorCount) {
    charCount = 0;
  }
  bool terminated = charCount != 0;
  for (ULONG i = 0; terminated && i < terminatorCount; i++) {
    terminated = data[charCount - 1 - i] == 0;
  }
  ULONG neededChars = terminated ? charCount : charCount + terminatorCount;
  ULONG neededBytes = neededChars * sizeof(WCHAR);
  if (context->mSize < neededBytes) {
    context->mStatus = STATUS_BUFFER_TOO_SMALL;
    context->mSize = neededBytes;
    return;
  }
  WCHAR* destination = (WCHAR*)context->mBuffer;
  RtlCopyMemory(destination, data, charCount * sizeof(WCHAR));
  for (ULONG i = charCount; i < neededChars; i++) {
    destination[i] = 0;
  }
  context->mSize = neededBytes;
  context->mStatus = STATUS_SUCCESS;
}

// Never fails towards the platform: what it found goes into the context record.
NTSTATUS NTAPI KnRegistryKey::QueryRoutine(PWSTR valueName, ULONG valueType, PVOID valueData, ULONG valueLength,
                                     PVOID Context, PVOID EntryContext) {
  KnRegistryQueryContext* context = (KnRegistryQueryContext*)EntryContext;
  switch (context->mExpectedType) {
    case REG_DWORD:
      if (valueType != REG_DWORD) {
        context->mStatus = STATUS_OBJECT_TYPE_MISMATCH;
      } else if (context->mSize < sizeof(ULONG)) {
        context->mStatus = STATUS_BUFFER_TOO_SMALL;
        context->mSize = sizeof(ULONG);
      } else if (valueLength >= sizeof(ULONG)) {
        RtlCopyMemory(context->mBuffer, valueData, sizeof(ULONG));
        context->mSize = sizeof(ULONG);
        context->mStatus = STATUS_SUCCESS;
      } else {
        context->mStatus = STATUS_UNSUCCESSFUL;
      }
      break;

    case REG_SZ:
    case REG_EXPAND_SZ:
      if (valueType != REG_SZ && valueType != REG_EXPAND_SZ) {
        context->mStatus = STATUS_OBJECT_TYPE_MISMATCH;
      } else if (context->mSize < sizeof(WCHAR)) {
        context->mStatus = STATUS_BUFFER_TOO_SMALL;
        context->mSize = valueLength;
      } else {
        CopyTerminatedString(context, (const WCHAR*)valueData, valueLength / sizeof(WCHAR), 1);
      }
      break;

    case REG_MULTI_SZ:
      if (valueType != REG_MULTI_SZ) {
        context->mStatus = STATUS_OBJECT_TYPE_MISMATCH;
      } else if (context->mSize < 2 * sizeof(WCHAR)) {
        context->mStatus = STATUS_BUFFER_TOO_SMALL;
        context->mSize = valueLength;
      } else {
        CopyTerminatedString(context, (const WCHAR*)valueData, valueLength / sizeof(WCHAR), 2);
      }
      break;

    default:
      context->mStatus = STATUS_INVALID_PARAMETER;
      break;
  }
  return STATUS_SUCCESS;
}
