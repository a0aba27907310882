// The PnP thread and its queue of actions: root devices to bring up, bus relations to
// query again, operations started through the host API. The queue lives under the
// dispatcher lock, so that the thread can wait for work as an idle service thread and a
// host thread can wait for an outcome while virtual time moves.
#include "pnp/pnp_thread.h"

#include <algorithm>
#include <deque>
#include <map>

#include <wdmsim/kernel.h>
#include <wdmsim/pnpmanager.h>
#include <wdmsim/verifier.h>

#include "kernel/objects.h"
#include "kernel/scheduler.h"
#include "kernel/threads.h"
#include "pnp/device_actions.h"

namespace wdmsim {
namespace pnp {
namespace {

enum class ActionKind { Arrival, Enumeration, Operation };

struct Action {
  ActionKind kind;
  PnpOperation operation;
  DeviceNodeId node;
  uint64_t ticket;  // 0: nobody waits for the outcome
};

struct Queue {
  std::deque<Action> actions;
  bool busy = false;
  bool threadStarted = false;
  uint64_t nextTicket = 1;
  std::map<uint64_t, NTSTATUS> outcomes;
  kernel::sched::WaitQueue worker;   // the PnP thread waiting for work
  kernel::sched::WaitQueue waiters;  // host threads waiting for outcomes or idleness
};

Queue& queue() {
  static Queue* q = new Queue;
  return *q;
}

bool Root(const Node* node) { return node->parent == nullptr; }

NTSTATUS RunOperation(PnpOperation operation, Node* node) {
  DeviceNodeState state = node->info.state;
  switch (operation) {
    case PnpOperation::QueryRemove:
    case PnpOperation::Eject:
      if (state == DeviceNodeState::Removed || state == DeviceNodeState::SurpriseRemoved) {
        return STATUS_INVALID_DEVICE_STATE;
      }
      return QueryRemoveAndRemove(node, operation == PnpOperation::Eject);
    case PnpOperation::Rebalance:
      if (state != DeviceNodeState::Started) return STATUS_INVALID_DEVICE_STATE;
      return Rebalance(node);
    case PnpOperation::SurpriseRemoval:
      if (!Root(node)) return STATUS_INVALID_PARAMETER;  // a child vanishes through its bus
      RemoveMissing(node);
      return STATUS_SUCCESS;
    case PnpOperation::Reenumerate:
      if (state != DeviceNodeState::Started) return STATUS_INVALID_DEVICE_STATE;
      EnumerateChildren(node);
      return STATUS_SUCCESS;
  }
  return STATUS_INVALID_PARAMETER;
}

NTSTATUS Run(const Action& action) {
  Node* node = FindNode(action.node);
  if (node == nullptr || node->info.state == DeviceNodeState::Deleted) return STATUS_NO_SUCH_DEVICE;
  switch (action.kind) {
    case ActionKind::Arrival:
      ArriveAndStart(node);
      return STATUS_SUCCESS;
    case ActionKind::Enumeration:
      // A stack that is not running has no children to report (a stopped bus reports its
      // changes once it runs again).
      if (node->info.state == DeviceNodeState::Started) EnumerateChildren(node);
      return STATUS_SUCCESS;
    case ActionKind::Operation:
      return RunOperation(action.operation, node);
  }
  return STATUS_INVALID_PARAMETER;
}

void PnpThreadBody() {
  kernel::ThreadRecord* self = kernel::CurrentThread();
  Queue& q = queue();
  for (;;) {
    kernel::sched::Guard guard = kernel::sched::Lock();
    if (!q.worker.Wait(guard, self, kernel::BlockKind::Idle, "PnP actions", [&q] { return !q.actions.empty(); })) {
      return;
    }
    Action action = q.actions.front();
    q.actions.pop_front();
    q.busy = true;
    guard.unlock();

    NTSTATUS outcome = Run(action);

    guard.lock();
    q.busy = false;
    if (action.ticket != 0) q.outcomes[action.ticket] = outcome;
    q.waiters.WakeAll(guard);
  }
}

// Queues an action, starting the PnP thread of this machine if needed. Returns its ticket.
uint64_t Enqueue(ActionKind kind, PnpOperation operation, DeviceNodeId node, bool wantOutcome) {
  Queue& q = queue();
  kernel::sched::Guard guard = kernel::sched::Lock();
  if (!q.threadStarted) {
    q.threadStarted = true;
    kernel::objects::Dereference(
        kernel::StartKernelThreadLocked(guard, "PnP manager thread", kernel::ThreadRole::Helper, PnpThreadBody));
  }
  uint64_t ticket = wantOutcome ? q.nextTicket++ : 0;
  q.actions.push_back({kind, operation, node, ticket});
  q.worker.WakeOne(guard);
  return ticket;
}

bool Idle(const Queue& q) { return q.actions.empty() && !q.busy; }

}  // namespace

void QueueRelationsEnumeration(PDEVICE_OBJECT pdo, DEVICE_RELATION_TYPE type) {
  if (type != BusRelations) return;  // the other relations are asked for when they are needed
  Node* node = FindNodeByPdo(pdo);
  if (node == nullptr) return;
  DeviceNodeId id = node->info.id;
  Queue& q = queue();
  {
    kernel::sched::Guard guard = kernel::sched::Lock();
    if (!q.threadStarted) return;
    for (const Action& action : q.actions) {
      if (action.kind == ActionKind::Enumeration && action.node == id) return;
    }
    q.actions.push_back({ActionKind::Enumeration, PnpOperation::Reenumerate, id, 0});
    q.worker.WakeOne(guard);
  }
}

void DropQueuedEnumerations(const Node* node) {
  Queue& q = queue();
  kernel::sched::Guard guard = kernel::sched::Lock();
  q.actions.erase(std::remove_if(q.actions.begin(), q.actions.end(),
                                 [node](const Action& action) {
                                   return action.kind == ActionKind::Enumeration && action.node == node->info.id;
                                 }),
                  q.actions.end());
}

void ForgetPnpThread() {
  Queue& q = queue();
  kernel::sched::Guard guard = kernel::sched::Lock();
  q.actions.clear();
  q.busy = false;
  q.threadStarted = false;
  q.outcomes.clear();
}

}  // namespace pnp

DeviceNodeId ReportRootDevice(PDEVICE_OBJECT pdo) {
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
    ReportViolation("IRQL_NOT_LESS_OR_EQUAL", pdo, "ReportRootDevice at IRQL %d", KeGetCurrentIrql());
  }
  if (pnp::FindNodeByPdo(pdo) != nullptr) {
    ReportViolation("PNP_DETECTED_FATAL_ERROR", pdo, "device object %p is reported twice (duplicate PDO)", (void*)pdo);
    return 0;
  }
  ObReferenceObject(pdo);  // the node's reference, dropped when the node is deleted
  pdo->Flags |= DO_BUS_ENUMERATED_DEVICE;
  pnp::Node* node = pnp::CreateNode(pdo, nullptr);
  pnp::Enqueue(pnp::ActionKind::Arrival, PnpOperation::Reenumerate, node->info.id, false);
  return node->info.id;
}

void WaitForPnpIdle() {
  Kernel* machine = Kernel::Current();
  if (machine == nullptr) return;
  kernel::ThreadRecord* self = kernel::CurrentThread();
  pnp::Queue& q = pnp::queue();
  for (;;) {
    {
      kernel::sched::Guard guard = kernel::sched::Lock();
      if (!q.waiters.Wait(guard, self, kernel::BlockKind::Object, "the PnP manager to become idle",
                          [&q] { return pnp::Idle(q); })) {
        return;  // deadlock: already reported
      }
    }
    // Drivers may still have work queued that invalidates relations again.
    machine->RunUntilIdle();
    kernel::sched::Guard guard = kernel::sched::Lock();
    if (pnp::Idle(q)) return;
  }
}

NTSTATUS RunPnpOperation(PnpOperation operation, DeviceNodeId node) {
  uint64_t ticket = pnp::Enqueue(pnp::ActionKind::Operation, operation, node, true);
  kernel::ThreadRecord* self = kernel::CurrentThread();
  pnp::Queue& q = pnp::queue();
  kernel::sched::Guard guard = kernel::sched::Lock();
  if (!q.waiters.Wait(guard, self, kernel::BlockKind::Object, "a PnP operation to finish",
                      [&q, ticket] { return q.outcomes.count(ticket) != 0; })) {
    return STATUS_TIMEOUT;  // deadlock: already reported
  }
  NTSTATUS outcome = q.outcomes[ticket];
  q.outcomes.erase(ticket);
  return outcome;
}

void QueuePnpOperation(PnpOperation operation, DeviceNodeId node) {
  pnp::Enqueue(pnp::ActionKind::Operation, operation, node, false);
}

}  // namespace wdmsim
