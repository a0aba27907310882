// The kernel handle table shared by every kind of object a handle can name
// (system threads, registry keys); ZwClose works on all of them.
#pragma once
#include <wdm.h>

namespace wdmsim {
namespace handles {

enum class Kind { Thread, RegistryKey };

// Called by ZwClose with the object when the last handle of it goes away.
typedef NTSTATUS (*CloseFunction)(void* object);

HANDLE Create(Kind kind, void* object, ACCESS_MASK grantedAccess);
// True when the handle is open and of that kind.
bool Lookup(HANDLE handle, Kind kind, void** object, ACCESS_MASK* grantedAccess);
void RegisterCloser(Kind kind, CloseFunction closer);
// What ZwClose does: STATUS_INVALID_HANDLE for a handle that is not open.
NTSTATUS Close(HANDLE handle);
size_t OpenCount();

}  // namespace handles
}  // namespace wdmsim
