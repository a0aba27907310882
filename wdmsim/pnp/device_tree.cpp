// The device tree: nodes, their lookup, and the snapshots the host API hands out.
#include "pnp/device_tree.h"

#include <algorithm>
#include <map>
#include <mutex>

#include <wdmsim/pnp.h>

namespace wdmsim {
namespace pnp {
namespace {

struct Tree {
  std::mutex lock;
  std::map<DeviceNodeId, std::unique_ptr<Node>> nodes;
  std::vector<Node*> roots;
  DeviceNodeId nextId = 1;
};

Tree& tree() {
  static Tree* t = new Tree;
  return *t;
}

DeviceNodeInfo Snapshot(const Node& node) {
  DeviceNodeInfo info = node.info;
  info.parent = node.parent != nullptr ? node.parent->info.id : 0;
  info.children.clear();
  for (const Node* child : node.children) info.children.push_back(child->info.id);
  return info;
}

void CollectChildrenFirst(Node* node, std::vector<Node*>* out) {
  for (Node* child : node->children) CollectChildrenFirst(child, out);
  out->push_back(node);
}

void CollectParentsFirst(const Node* node, std::vector<DeviceNodeInfo>* out) {
  out->push_back(Snapshot(*node));
  for (const Node* child : node->children) CollectParentsFirst(child, out);
}

}  // namespace

void UpdateTree(const std::function<void()>& change) {
  std::lock_guard<std::mutex> guard(tree().lock);
  change();
}

Node* CreateNode(PDEVICE_OBJECT pdo, Node* parent) {
  auto node = std::make_unique<Node>();
  Node* raw = node.get();
  raw->info.pdo = pdo;
  raw->parent = parent;
  raw->depth = parent != nullptr ? parent->depth + 1 : 1;
  std::lock_guard<std::mutex> guard(tree().lock);
  raw->info.id = tree().nextId++;
  tree().nodes[raw->info.id] = std::move(node);
  (parent != nullptr ? parent->children : tree().roots).push_back(raw);
  return raw;
}

void DeleteNode(Node* node) {
  PDEVICE_OBJECT pdo = node->info.pdo;
  if (!node->info.instancePath.empty()) ForgetDeviceNode(pdo);
  {
    std::lock_guard<std::mutex> guard(tree().lock);
    auto& siblings = node->parent != nullptr ? node->parent->children : tree().roots;
    siblings.erase(std::remove(siblings.begin(), siblings.end(), node), siblings.end());
    // Kept, out of the tree, so that what it went through can still be inspected.
    node->info.state = DeviceNodeState::Deleted;
  }
  ObDereferenceObject(pdo);
}

Node* FindNode(DeviceNodeId id) {
  std::lock_guard<std::mutex> guard(tree().lock);
  auto it = tree().nodes.find(id);
  return it == tree().nodes.end() ? nullptr : it->second.get();
}

Node* FindNodeByPdo(const DEVICE_OBJECT* pdo) {
  std::lock_guard<std::mutex> guard(tree().lock);
  for (auto& [id, node] : tree().nodes) {
    if (node->info.pdo == pdo && node->info.state != DeviceNodeState::Deleted) return node.get();
  }
  return nullptr;
}

Node* FindOtherNodeByInstancePath(const std::u16string& path, const Node* except) {
  std::lock_guard<std::mutex> guard(tree().lock);
  for (auto& [id, node] : tree().nodes) {
    if (node.get() != except && node->info.state != DeviceNodeState::Deleted && node->info.instancePath == path) {
      return node.get();
    }
  }
  return nullptr;
}

std::vector<Node*> SubtreeChildrenFirst(Node* node) {
  std::vector<Node*> out;
  CollectChildrenFirst(node, &out);
  return out;
}

void SetState(Node* node, DeviceNodeState state, NTSTATUS problem) {
  std::lock_guard<std::mutex> guard(tree().lock);
  node->info.state = state;
  node->info.problemStatus = problem;
}

void Record(Node* node, const std::string& name, NTSTATUS status) {
  std::lock_guard<std::mutex> guard(tree().lock);
  node->info.requests.push_back({name, status});
}

void ForgetDeviceTree() {
  std::vector<PDEVICE_OBJECT> references;
  {
    std::lock_guard<std::mutex> guard(tree().lock);
    for (auto& [id, node] : tree().nodes) {
      if (node->info.state != DeviceNodeState::Deleted) references.push_back(node->info.pdo);
    }
    tree().nodes.clear();
    tree().roots.clear();
    tree().nextId = 1;
  }
  for (PDEVICE_OBJECT pdo : references) ObDereferenceObject(pdo);
}

}  // namespace pnp

const char* DeviceNodeStateName(DeviceNodeState state) {
  switch (state) {
    case DeviceNodeState::Initialized: return "Initialized";
    case DeviceNodeState::EnumerationFailed: return "EnumerationFailed";
    case DeviceNodeState::DriverNotFound: return "DriverNotFound";
    case DeviceNodeState::AddFailed: return "AddFailed";
    case DeviceNodeState::StartFailed: return "StartFailed";
    case DeviceNodeState::Started: return "Started";
    case DeviceNodeState::QueryStopped: return "QueryStopped";
    case DeviceNodeState::Stopped: return "Stopped";
    case DeviceNodeState::QueryRemoved: return "QueryRemoved";
    case DeviceNodeState::SurpriseRemoved: return "SurpriseRemoved";
    case DeviceNodeState::Removed: return "Removed";
    case DeviceNodeState::Deleted: return "Deleted";
  }
  return "?";
}

std::optional<DeviceNodeInfo> GetDeviceNode(DeviceNodeId id) {
  std::lock_guard<std::mutex> guard(pnp::tree().lock);
  auto it = pnp::tree().nodes.find(id);
  if (it == pnp::tree().nodes.end()) return std::nullopt;
  return pnp::Snapshot(*it->second);
}

DeviceNodeId FindDeviceNodeByPdo(const DEVICE_OBJECT* pdo) {
  pnp::Node* node = pnp::FindNodeByPdo(pdo);
  return node != nullptr ? node->info.id : 0;
}

DeviceNodeId FindDeviceNodeByInstancePath(const std::u16string& instancePath) {
  pnp::Node* node = pnp::FindOtherNodeByInstancePath(instancePath, nullptr);
  return node != nullptr ? node->info.id : 0;
}

std::vector<DeviceNodeId> RootDeviceNodes() {
  std::lock_guard<std::mutex> guard(pnp::tree().lock);
  std::vector<DeviceNodeId> ids;
  for (const pnp::Node* root : pnp::tree().roots) ids.push_back(root->info.id);
  return ids;
}

std::vector<DeviceNodeInfo> DeviceTree() {
  std::lock_guard<std::mutex> guard(pnp::tree().lock);
  std::vector<DeviceNodeInfo> out;
  for (const pnp::Node* root : pnp::tree().roots) pnp::CollectParentsFirst(root, &out);
  return out;
}

std::vector<std::string> DeviceNodeRequestNames(DeviceNodeId id) {
  std::vector<std::string> names;
  if (auto node = GetDeviceNode(id)) {
    for (const PnpRequestRecord& record : node->requests) names.push_back(record.name);
  }
  return names;
}

}  // namespace wdmsim
