#include "registry/registry_tree.h"

namespace wdmsim {
namespace registry {
namespace {

// What a booted machine has: the roots of every RTL_REGISTRY_* location.
const char16_t* const kStandardKeys[] = {
    u"Machine\\System\\CurrentControlSet\\Services",
    u"Machine\\System\\CurrentControlSet\\Control",
    u"Machine\\System\\CurrentControlSet\\Enum",
    u"Machine\\Software\\Microsoft\\Windows NT\\CurrentVersion",
    u"Machine\\Hardware\\DeviceMap",
    u"User\\.Default",
};

struct Tree {
  std::mutex lock;
  std::shared_ptr<Key> root;
};

Tree& tree() {
  static Tree* t = new Tree;
  return *t;
}

std::shared_ptr<Key> BootedTree() {
  auto root = std::make_shared<Key>();
  bool created;
  auto registry = CreateSubkey(root, u"REGISTRY", &created);
  for (const char16_t* path : kStandardKeys) {
    std::vector<std::u16string> names;
    SplitPath(path, false, &names);
    CreateKeyPath(registry, names);
  }
  return root;
}

}  // namespace

Value* Key::FindValue(std::u16string_view wanted) {
  std::u16string folded = Fold(wanted);
  for (Value& value : values) {
    if (Fold(value.name) == folded) return &value;
  }
  return nullptr;
}

std::mutex& TreeLock() { return tree().lock; }

std::shared_ptr<Key> Root() {
  Tree& t = tree();
  if (!t.root) t.root = BootedTree();
  return t.root;
}

void ResetTree() {
  Tree& t = tree();
  std::lock_guard<std::mutex> guard(t.lock);
  t.root = BootedTree();
}

std::u16string Fold(std::u16string_view name) {
  std::u16string folded(name);
  for (char16_t& c : folded) c = static_cast<char16_t>(RtlUpcaseUnicodeChar(static_cast<WCHAR>(c)));
  return folded;
}

std::u16string FromCounted(PCUNICODE_STRING text) {
  if (text == nullptr || text->Buffer == nullptr) return std::u16string();
  return std::u16string(reinterpret_cast<const char16_t*>(text->Buffer), text->Length / sizeof(WCHAR));
}

std::u16string FromWide(PCWSTR text) {
  if (text == nullptr) return std::u16string();
  return std::u16string(reinterpret_cast<const char16_t*>(text), wcslen(text));
}

NTSTATUS SplitPath(std::u16string_view path, bool absolute, std::vector<std::u16string>* names) {
  names->clear();
  bool startsAtRoot = !path.empty() && path[0] == u'\\';
  if (startsAtRoot != absolute) return STATUS_OBJECT_PATH_SYNTAX_BAD;
  if (absolute) path.remove_prefix(1);
  if (path.empty()) return absolute ? STATUS_OBJECT_NAME_INVALID : STATUS_SUCCESS;
  size_t start = 0;
  for (;;) {
    size_t end = path.find(u'\\', start);
    std::u16string_view name = path.substr(start, end == std::u16string_view::npos ? end : end - start);
    if (name.empty()) return STATUS_OBJECT_NAME_INVALID;
    names->emplace_back(name);
    if (end == std::u16string_view::npos) return STATUS_SUCCESS;
    start = end + 1;
  }
}

std::shared_ptr<Key> FindKey(const std::shared_ptr<Key>& base, const std::vector<std::u16string>& names,
                             size_t count) {
  std::shared_ptr<Key> key = base;
  for (size_t i = 0; i < count && key; ++i) {
    auto it = key->subkeys.find(Fold(names[i]));
    key = it == key->subkeys.end() ? nullptr : it->second;
  }
  return key;
}

std::shared_ptr<Key> CreateSubkey(const std::shared_ptr<Key>& parent, const std::u16string& name, bool* created) {
  std::shared_ptr<Key>& slot = parent->subkeys[Fold(name)];
  *created = !slot;
  if (!slot) {
    slot = std::make_shared<Key>();
    slot->name = name;
  }
  return slot;
}

std::shared_ptr<Key> CreateKeyPath(const std::shared_ptr<Key>& base, const std::vector<std::u16string>& names) {
  std::shared_ptr<Key> key = base;
  bool created;
  for (const std::u16string& name : names) key = CreateSubkey(key, name, &created);
  return key;
}

}  // namespace registry
}  // namespace wdmsim
