// A new node's identity: the queries Windows sends before it looks for a driver, the
// instance path built from the answers, and the device properties and Enum key that
// publish them.
#pragma once
#include <string>

#include "pnp/device_tree.h"

namespace wdmsim {
namespace pnp {

// Queries identifiers, capabilities, texts, bus information and resources. False (the
// node then is EnumerationFailed) without a device ID, with an invalid ID or with an
// instance path another node already has.
bool QueryIdentity(Node* node);
// Registers the device node (hardware and driver keys) and sets its properties and Enum
// values; description is what DevicePropertyDeviceDescription says.
void PublishIdentity(Node* node);

// "<depth>&<crc32 of the parent's instance path>&0": what Windows puts before an instance
// ID that the bus does not mark unique.
std::u16string ParentIdPrefix(const Node* parent);

}  // namespace pnp
}  // namespace wdmsim
