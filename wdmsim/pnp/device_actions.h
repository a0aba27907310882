// What the PnP thread does for each kind of work: arrival and enumeration, removal in
// its forms, rebalance. Each runs on the PnP thread at PASSIVE_LEVEL.
#pragma once
#include <wdm.h>

#include "pnp/device_tree.h"

namespace wdmsim {
namespace pnp {

// A node just reported (state Initialized): identity, binding, AddDevice, start, and the
// enumeration of its children.
void ArriveAndStart(Node* node);
// Bus relations of a started node: removes missing children, adds and starts new ones.
void EnumerateChildren(Node* node);
// After a successful start: capabilities, device state, bus relations.
void AfterStart(Node* node);

// The bus no longer reports node: surprise removal of the started nodes of the subtree,
// then removal of all of it (children first); the nodes are deleted.
void RemoveMissing(Node* node);
// Orderly removal: query-remove (children first), cancel on refusal, else remove;
// with eject, IRP_MN_EJECT to the PDO afterwards.
NTSTATUS QueryRemoveAndRemove(Node* node, bool eject);
// Query-stop, stop, start again; cancel-stop on refusal.
NTSTATUS Rebalance(Node* node);

}  // namespace pnp
}  // namespace wdmsim
