// Any bytes as a parent's configuration set: the walks and the division into functions
// must stay inside the set, end, consume what they take, and give every function a child
// set that starts with the parent's header and copies the function's bytes.
#include <ntddk.h>
#include <usb.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <wdmsim/kernel.h>
#include <wdmsim/pool.h>

#include "device.h"
#include "knmemory.h"
#include "libknnewdelete.h"

namespace {

const size_t kMaxSetLength = 4096;

void Check(bool condition) {
  if (!condition) {
    abort();
  }
}

class FuzzedDevice : public Device {
 public:
  // The set is taken as received: its length is the input's, whatever the header says.
  bool Hold(const uint8_t* data, size_t size) {
    UCHAR* set = static_cast<UCHAR*>(KnAllocateMemory(NonPagedPool, size, KN_POOLTAG("USBC"), TRUE));
    if (set == nullptr) {
      return false;
    }
    memcpy(set, data, size);
    reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(set)->wTotalLength = static_cast<USHORT>(size);
    mConfigDesc.Attach(reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(set));
    return true;
  }

  void WalkEveryType() {
    const UCHAR* begin = Begin();
    const UCHAR* end = begin + mConfigDesc.GetLength();
    for (int type = 0; type < 256; type++) {
      const UCHAR* previous = nullptr;
      for (const UCHAR* found = Next(nullptr, UCHAR(type)); found != nullptr; found = Next(found, UCHAR(type))) {
        Check(found > begin && found + 2 <= end && found[1] == type);
        Check(previous == nullptr || found > previous);  // always moves on
        previous = found;
      }
    }
    // Every interface descriptor, continuing each search just after the last hit.
    const UCHAR* position = begin;
    while (position != nullptr) {
      const UCHAR* found = reinterpret_cast<const UCHAR*>(
          mConfigDesc.FindInterfaceDescriptor(const_cast<UCHAR*>(position), -1, -1, -1, -1, -1));
      if (found == nullptr) {
        break;
      }
      Check(found >= position && found + found[0] <= end && found[1] == USB_INTERFACE_DESCRIPTOR_TYPE);
      position = found + found[0];
    }
  }

  void Enumerate() {
    const UCHAR* begin = Begin();
    const ULONG length = mConfigDesc.GetLength();
    CreateLists();
    SSGetSelSuspendInterface();
    for (;;) {
      ULONG count = 0;
      ULONG size = 0;
      PUSB_INTERFACE_DESCRIPTOR first = GetInterfaces(&count, &size);
      if (first == nullptr) {
        break;
      }
      const UCHAR* firstByte = reinterpret_cast<const UCHAR*>(first);
      Check(firstByte > begin && firstByte < begin + length);
      Check(first->bDescriptorType == USB_INTERFACE_DESCRIPTOR_TYPE && first->bAlternateSetting == 0);
      PUSB_CONFIGURATION_DESCRIPTOR child = BuildChildConfigurationDescriptor(
          reinterpret_cast<const USB_CONFIGURATION_DESCRIPTOR*>(begin), length, first, count, size);
      if (child == nullptr) {
        continue;
      }
      const UCHAR* bytes = reinterpret_cast<const UCHAR*>(child);
      Check(child->wTotalLength == USHORT(9 + size) && child->bNumInterfaces == UCHAR(count));
      Check(bytes[0] == begin[0] && bytes[1] == begin[1] && memcmp(bytes + 5, begin + 5, 4) == 0);
      size_t inside = size_t(begin + length - firstByte);
      size_t copied = size < inside ? size : inside;
      Check(memcmp(bytes + 9, firstByte, copied) == 0);
      for (size_t i = copied; i < size; i++) {
        Check(bytes[9 + i] == 0);
      }
      KnFreeMemory(child);
    }
    FreeLists();
  }

  void Release() { mConfigDesc.Release(); }

 private:
  const UCHAR* Next(const UCHAR* start, UCHAR type) {
    return reinterpret_cast<const UCHAR*>(mConfigDesc.FindNextDescriptor(const_cast<UCHAR*>(start), type));
  }
  const UCHAR* Begin() { return static_cast<const UCHAR*>(static_cast<const void*>(mConfigDesc.GetDescriptor())); }
};

wdmsim::Kernel* gKernel = nullptr;

}  // namespace

// The framework replaces the global operator delete with the pool's free, which hands blocks
// that are not pool memory (the host's own std:: containers) back to free(): a mismatch by
// ASan's book, but the pairing the host build relies on.
extern "C" const char* __asan_default_options() { return "alloc_dealloc_mismatch=0"; }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gKernel = new wdmsim::Kernel;  // one machine for the whole run
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < sizeof(USB_CONFIGURATION_DESCRIPTOR) || size > kMaxSetLength) {
    return 0;
  }
  size_t entriesBefore = wdmsim::LivePoolBlockCount(gKnDefaultPoolTag);
  FuzzedDevice* device = new (NonPagedPool, gKnDefaultPoolTag) FuzzedDevice;
  Check(device != nullptr);
  if (device->Hold(data, size)) {
    device->WalkEveryType();
    device->Enumerate();
    device->Enumerate();  // the lists are rebuilt from scratch on every start
    device->Release();
  }
  delete device;
  Check(wdmsim::LivePoolBlockCount(gKnDefaultPoolTag) == entriesBefore);
  Check(wdmsim::LivePoolBlockCount(KN_POOLTAG("USBM")) == 0);
  return 0;
}
