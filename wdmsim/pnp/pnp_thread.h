// The PnP thread: one kernel thread that runs the PnP manager's work one action at a
// time, which is what serialises the requests to every device node.
#pragma once
#include <wdm.h>

#include "pnp/device_tree.h"

namespace wdmsim {
namespace pnp {

// From IoInvalidateDeviceRelations: queues a bus relations query for the node of pdo
// (nothing if pdo is no node, or one is already queued). Any IRQL up to DISPATCH_LEVEL.
void QueueRelationsEnumeration(PDEVICE_OBJECT pdo, DEVICE_RELATION_TYPE type);
// Called by the PnP thread just before it asks node for its bus relations: the answer
// satisfies every enumeration of node queued until now.
void DropQueuedEnumerations(const Node* node);

// End of run, after the threads have stopped.
void ForgetPnpThread();

}  // namespace pnp
}  // namespace wdmsim
