// The PnP manager's device tree. Only the PnP thread changes it (under the tree lock, so
// that the host API can read snapshots at any time); the PnP thread reads it freely.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <wdmsim/pnpmanager.h>

namespace wdmsim {
namespace pnp {

struct Node {
  DeviceNodeInfo info;  // parent and children ids are filled in snapshots only
  Node* parent = nullptr;
  std::vector<Node*> children;
  int depth = 1;        // root devices are at depth 1, below the root device node
};

// Runs change with the tree lock held: every write to a node goes through it.
void UpdateTree(const std::function<void()>& change);

// A node for pdo below parent (NULL: a root device), state Initialized. The caller has
// given the node one reference on the PDO, which DeleteNode drops.
Node* CreateNode(PDEVICE_OBJECT pdo, Node* parent);
// Unlinks the node (and its device node record) and drops its PDO reference; the node
// stays readable in state Deleted. Its children must already be deleted.
void DeleteNode(Node* node);
Node* FindNode(DeviceNodeId id);
Node* FindNodeByPdo(const DEVICE_OBJECT* pdo);
// Another node with this instance path, or NULL.
Node* FindOtherNodeByInstancePath(const std::u16string& path, const Node* except);
// The node and its descendants, children before their parents, siblings in order.
std::vector<Node*> SubtreeChildrenFirst(Node* node);

void SetState(Node* node, DeviceNodeState state, NTSTATUS problem = STATUS_SUCCESS);
void Record(Node* node, const std::string& name, NTSTATUS status);

// End of run: every node is dropped (its PDO reference too), without requests.
void ForgetDeviceTree();

}  // namespace pnp
}  // namespace wdmsim
