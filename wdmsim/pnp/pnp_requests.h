// The PnP requests the PnP manager sends to the top of a node's stack, each recorded in
// the node's request list, and the decoding (and freeing) of what the drivers answer.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include <wdm.h>

#include "pnp/device_tree.h"

namespace wdmsim {
namespace pnp {

// A request without parameters (start, stop, removal, eject and their queries).
NTSTATUS SendStateRequest(Node* node, UCHAR minorFunction);

// Identifier and text answers; nullopt when the stack did not answer with a string.
std::optional<std::u16string> QueryIdString(Node* node, BUS_QUERY_ID_TYPE type);
std::vector<std::u16string> QueryIdList(Node* node, BUS_QUERY_ID_TYPE type);
std::optional<std::u16string> QueryText(Node* node, DEVICE_TEXT_TYPE type);

// Capabilities preset as Windows presets them (Size, Version 1, Address and UINumber
// all ones); true when the stack succeeded, *caps holds the answer either way.
bool QueryCapabilities(Node* node, DEVICE_CAPABILITIES* caps);
// Requests whose answers the PnP manager only frees (bus information, resources,
// resource requirements and their filtering).
void QueryAndDiscard(Node* node, UCHAR minorFunction);
std::optional<ULONG> QueryPnpDeviceState(Node* node);
// Bus relations: the device objects of a successful answer (each with the reference the
// driver took for it), or nullopt when the stack did not succeed.
std::optional<std::vector<PDEVICE_OBJECT>> QueryBusRelations(Node* node);

const char* MinorFunctionName(UCHAR minorFunction);

}  // namespace pnp
}  // namespace wdmsim
