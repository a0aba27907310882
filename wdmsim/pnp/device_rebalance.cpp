// Rebalance: the PnP manager stops a running device to reassign its resources and starts
// it again; a refused query-stop is cancelled and the device keeps running.
#include "pnp/device_actions.h"
#include "pnp/driver_images.h"
#include "pnp/pnp_requests.h"

namespace wdmsim {
namespace pnp {

NTSTATUS Rebalance(Node* node) {
  NTSTATUS status = SendStateRequest(node, IRP_MN_QUERY_STOP_DEVICE);
  if (!NT_SUCCESS(status)) {
    SendStateRequest(node, IRP_MN_CANCEL_STOP_DEVICE);
    return status;
  }
  SetState(node, DeviceNodeState::QueryStopped);
  SendStateRequest(node, IRP_MN_STOP_DEVICE);
  SetState(node, DeviceNodeState::Stopped);
  status = SendStateRequest(node, IRP_MN_START_DEVICE);
  if (!NT_SUCCESS(status)) {
    // The bus cannot serve its children any more: they go first, then its stack.
    std::vector<Node*> children = node->children;
    for (Node* child : children) RemoveMissing(child);
    SendStateRequest(node, IRP_MN_REMOVE_DEVICE);
    SetState(node, DeviceNodeState::StartFailed, status);
    UnloadUnusedDrivers();
    return status;
  }
  SetState(node, DeviceNodeState::Started);
  AfterStart(node);
  return STATUS_SUCCESS;
}

}  // namespace pnp
}  // namespace wdmsim
