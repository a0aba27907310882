// The registry itself: a tree of keys with typed values, names compared without case.
// Every access to the tree holds TreeLock(); callbacks into driver code never run under it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <wdm.h>

namespace wdmsim {
namespace registry {

struct Value {
  std::u16string name;  // as first written
  uint32_t type;
  std::vector<uint8_t> data;
};

struct Key {
  std::u16string name;
  std::map<std::u16string, std::shared_ptr<Key>> subkeys;  // by folded name
  std::vector<Value> values;                              // in the order they were created

  Value* FindValue(std::u16string_view name);
};

std::mutex& TreeLock();
// The namespace root: holds "Registry", below it "Machine" and "User" with the standard
// keys the RTL_REGISTRY_* locations name.
std::shared_ptr<Key> Root();
// Back to the freshly booted tree.
void ResetTree();

std::u16string Fold(std::u16string_view name);
std::u16string FromCounted(PCUNICODE_STRING text);
std::u16string FromWide(PCWSTR text);

// Splits a path into key names. An absolute path starts with a backslash, a relative one
// must not; empty names are invalid. Fails with STATUS_OBJECT_PATH_SYNTAX_BAD or
// STATUS_OBJECT_NAME_INVALID.
NTSTATUS SplitPath(std::u16string_view path, bool absolute, std::vector<std::u16string>* names);

// With the lock held: the key reached from base through names, or null.
std::shared_ptr<Key> FindKey(const std::shared_ptr<Key>& base, const std::vector<std::u16string>& names,
                             size_t count);
// With the lock held: creates what is missing along the way.
std::shared_ptr<Key> CreateKeyPath(const std::shared_ptr<Key>& base, const std::vector<std::u16string>& names);
// With the lock held: the subkey, newly created if it does not exist.
std::shared_ptr<Key> CreateSubkey(const std::shared_ptr<Key>& parent, const std::u16string& name, bool* created);

}  // namespace registry
}  // namespace wdmsim
