// Open registry keys: handles in the kernel handle table that carry the granted access.
#pragma once

#include <memory>

#include <wdm.h>

#include "registry/registry_tree.h"

namespace wdmsim {
namespace registry {

// Generic and maximum rights mapped onto the key rights they stand for.
ACCESS_MASK MapKeyAccess(ACCESS_MASK desired);

HANDLE OpenKeyHandle(std::shared_ptr<Key> key, ACCESS_MASK granted);

// The key behind a handle, when the handle was opened with every right in needed.
// STATUS_INVALID_HANDLE for a handle that is not open, STATUS_OBJECT_TYPE_MISMATCH for
// a handle of another kind of object, STATUS_ACCESS_DENIED for missing rights.
NTSTATUS ReferenceKey(HANDLE handle, ACCESS_MASK needed, std::shared_ptr<Key>* key,
                      ACCESS_MASK* granted = nullptr);

// End of run: frees what every still-open key handle holds. The handle table reports the
// handles themselves (HANDLE_LEAK), so nothing is reported here.
void ForgetOpenKeys();

// The IRQL rule of every registry service: PASSIVE_LEVEL, reported otherwise.
void CheckPassiveLevel(const char* service);

}  // namespace registry
}  // namespace wdmsim
