// The head of the DeviceExtension of every device object the framework creates: it binds
// the platform DEVICE_OBJECT to its framework object and holds the device's remove lock.
// The class's own extension area, if it asked for one, follows directly behind.
#pragma once

#include <ntddk.h>

#include "knmemory.h"
#include "knremovelock.h"

class KnDeviceObject;

// Value of mMagicTag: the bytes "PrEx". Marks an extension as the framework's.
#define KN_PRIVATE_EXTENSION_MAGIC "PrEx"

struct KnPrivateDeviceExtension {
  ULONG mMagicTag;                // KN_POOLTAG(KN_PRIVATE_EXTENSION_MAGIC), written at creation
  KnDeviceObject* mDevObj;        // owning framework object; NULL once DeleteDevice has run
  PVOID mUserExtension;           // the class's own area, or NULL when it asked for none
  KnRemoveLock mRemoveLock;       // acquired once per routed request
};
