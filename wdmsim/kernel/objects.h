// Reference counts of kernel objects (ObReferenceObject/ObDereferenceObject), kept in a
// side table keyed by the object's address. Thread objects are counted here; device
// objects are counted by the I/O manager, which ObfReferenceObject consults for addresses
// this table does not know.
#pragma once
#include <wdm.h>

// Object types are opaque to drivers; wdmsim only needs their names.
struct _OBJECT_TYPE {
  const char* Name;
};

namespace wdmsim {
namespace kernel {
namespace objects {

// Called, outside every kernel lock, when the last reference of an object goes away.
typedef void (*DeleteFunction)(void* object);

void Track(void* object, LONG_PTR initialReferences, DeleteFunction onLastReference);
bool IsTracked(const void* object);
LONG_PTR ReferenceCount(const void* object);  // 0 for an object not tracked

// Both return the new count, or -1 for an object this table does not know.
LONG_PTR Reference(void* object);
LONG_PTR Dereference(void* object);

// Stops counting an object without deleting it.
void Forget(void* object);
void Reset();

}  // namespace objects
}  // namespace kernel
}  // namespace wdmsim
