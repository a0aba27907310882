// Object-manager references on device objects. A device object deleted with IoDeleteDevice
// stays in memory until its last reference is dropped.
#pragma once
#include <wdm.h>

namespace wdmsim {
namespace io {

// Both return false, doing nothing, when object is not a device object the I/O manager knows.
bool ReferenceDeviceObject(const void* object);
bool DereferenceDeviceObject(const void* object);

}  // namespace io
}  // namespace wdmsim
