// Removal of device nodes: orderly (query-remove, then remove, or cancel-remove on a
// refusal), after the device vanished (surprise removal of what was started, then
// remove), and eject. Children always go before their parent.
#include <wdmsim/io.h>
#include <wdmsim/verifier.h>

#include "pnp/device_actions.h"
#include "pnp/driver_images.h"
#include "pnp/pnp_requests.h"

namespace wdmsim {
namespace pnp {
namespace {

// A stack that was started holds resources and open I/O paths: it learns of a vanished
// device through a surprise removal before it is removed.
bool StackWasStarted(DeviceNodeState state) {
  return state == DeviceNodeState::Started || state == DeviceNodeState::QueryStopped ||
         state == DeviceNodeState::Stopped || state == DeviceNodeState::QueryRemoved;
}

// Removes every node of nodes (children first) and deletes them: their bus is gone, or
// is going, with them.
void RemoveAndDelete(const std::vector<Node*>& nodes) {
  for (Node* n : nodes) {
    SendStateRequest(n, IRP_MN_REMOVE_DEVICE);
    SetState(n, DeviceNodeState::Removed);
  }
  for (Node* n : nodes) DeleteNode(n);
}

// A bus must keep the PDO of a device it still reports until it reports it missing.
void CheckStillPresent(Node* node) {
  if (IsDeletePending(node->info.pdo)) {
    ReportViolation("PNP_DETECTED_FATAL_ERROR", node->info.pdo,
                    "PDO %p was deleted on IRP_MN_REMOVE_DEVICE while its bus still reports it", (void*)node->info.pdo);
  }
}

}  // namespace

void RemoveMissing(Node* node) {
  std::vector<Node*> subtree = SubtreeChildrenFirst(node);
  for (Node* n : subtree) {
    if (!StackWasStarted(n->info.state)) continue;
    SendStateRequest(n, IRP_MN_SURPRISE_REMOVAL);
    SetState(n, DeviceNodeState::SurpriseRemoved);
  }
  RemoveAndDelete(subtree);
  UnloadUnusedDrivers();
}

NTSTATUS QueryRemoveAndRemove(Node* node, bool eject) {
  std::vector<Node*> asked;
  std::vector<DeviceNodeState> before;
  NTSTATUS refusal = STATUS_SUCCESS;
  for (Node* n : SubtreeChildrenFirst(node)) {
    if (n->info.state == DeviceNodeState::Removed) continue;  // no stack left to ask
    asked.push_back(n);
    before.push_back(n->info.state);
    refusal = SendStateRequest(n, IRP_MN_QUERY_REMOVE_DEVICE);
    if (!NT_SUCCESS(refusal)) break;
    SetState(n, DeviceNodeState::QueryRemoved, n->info.problemStatus);
  }
  if (!NT_SUCCESS(refusal)) {
    // Every node that was asked, the one that refused included, hears that nothing goes.
    for (size_t i = asked.size(); i-- > 0;) {
      SendStateRequest(asked[i], IRP_MN_CANCEL_REMOVE_DEVICE);
      SetState(asked[i], before[i], asked[i]->info.problemStatus);
    }
    return refusal;
  }
  std::vector<Node*> descendants = SubtreeChildrenFirst(node);
  descendants.pop_back();
  RemoveAndDelete(descendants);
  SendStateRequest(node, IRP_MN_REMOVE_DEVICE);
  SetState(node, DeviceNodeState::Removed);
  CheckStillPresent(node);
  UnloadUnusedDrivers();
  if (eject) SendStateRequest(node, IRP_MN_EJECT);
  return STATUS_SUCCESS;
}

}  // namespace pnp
}  // namespace wdmsim
