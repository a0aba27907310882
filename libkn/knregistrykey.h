// KnRegistryKey: one open registry key, with strictly checked reads of 32-bit values
// and strings and writes of 32-bit values. Belongs to one thread; PASSIVE_LEVEL only.
#pragma once
#include <ntddk.h>

// Entry context of one value query: what the caller expects and where it goes.
struct KnRegistryQueryContext {
  ULONG mExpectedType;  // REG_DWORD, REG_SZ, REG_EXPAND_SZ or REG_MULTI_SZ
  PVOID mBuffer;        // the caller's destination
  ULONG mSize;          // in: destination bytes; out: bytes written, or needed when too small
  NTSTATUS mStatus;     // what the query routine found; STATUS_UNSUCCESSFUL until it ran
};

class KnRegistryKey {
 public:
  KnRegistryKey();
  ~KnRegistryKey();  // closes the key

  // Opens (or with create, creates) the key at an absolute path. A key held before
  // is closed first.
  NTSTATUS OpenKey(PCWSTR path, ACCESS_MASK desiredAccess, bool create);
  // The same relative to rootKey (NULL: path is absolute).
  NTSTATUS OpenKey(HANDLE rootKey, PCWSTR path, ACCESS_MASK desiredAccess, bool create);
  // The device's hardware (PLUGPLAY_REGKEY_DEVICE) or software (PLUGPLAY_REGKEY_DRIVER)
  // key of a physical device object.
  NTSTATUS OpenDeviceRegistryKey(PDEVICE_OBJECT physicalDeviceObject, ULONG keyType, ACCESS_MASK desiredAccess);
  // STATUS_SUCCESS and silent when no key is held.
  NTSTATUS Close();

  NTSTATUS SetDword(PCWSTR valueName, ULONG value);
  // On failure value is 0.
  NTSTATUS QueryDword(PCWSTR valueName, ULONG* value);
  // Reads the value; when that fails, value is defaultValue and the default is
  // written back to the registry (the result is then the write's status).
  NTSTATUS GetDwordValue(PCWSTR valueName, ULONG* value, ULONG defaultValue);
  // Reads a REG_SZ / REG_EXPAND_SZ (as an expanded string) or REG_MULTI_SZ value into
  // buffer of MaxChars UTF-16 characters, always terminated; on a failed read the
  // buffer holds an empty string.
  NTSTATUS QueryString(PCWSTR valueName, PWSTR buffer, ULONG MaxChars, ULONG type);

  bool IsValid() const { return mKeyHandle != NULL; }

 private:
  KnRegistryKey(const KnRegistryKey&);
  KnRegistryKey& operator=(const KnRegistryKey&);

  NTSTATUS QueryValue(PCWSTR valueName, ULONG queryFlags, KnRegistryQueryContext* context);
  static NTSTATUS NTAPI QueryRoutine(PWSTR valueName, ULONG valueType, PVOID valueData, ULONG valueLength,
                                     PVOID Context, PVOID EntryContext);

  HANDLE mKeyHandle;  // NULL while no key is open
};
