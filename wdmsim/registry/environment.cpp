#include "registry/environment.h"

#include <map>
#include <mutex>
#include <optional>

#include <wdmsim/registry.h>

#include "registry/registry_tree.h"

namespace wdmsim {
namespace registry {
namespace {

struct Environment {
  std::mutex lock;
  std::map<std::u16string, std::u16string> variables;  // by folded name
};

Environment& environment() {
  static Environment* e = new Environment;
  return *e;
}

void SetDefaults(Environment& e) {
  e.variables.clear();
  e.variables[Fold(u"SystemRoot")] = u"C:\\Windows";
}

std::optional<std::u16string> MachineVariable(std::u16string_view name) {
  Environment& e = environment();
  std::lock_guard<std::mutex> guard(e.lock);
  if (e.variables.empty()) SetDefaults(e);
  auto it = e.variables.find(Fold(name));
  if (it == e.variables.end()) return std::nullopt;
  return it->second;
}

std::optional<std::u16string> BlockVariable(const WCHAR* block, std::u16string_view name) {
  std::u16string wanted = Fold(name);
  for (const WCHAR* entry = block; *entry != 0; entry += wcslen(entry) + 1) {
    std::u16string_view text(reinterpret_cast<const char16_t*>(entry), wcslen(entry));
    size_t equals = text.find(u'=', 1);  // names such as "=C:" start with '='
    if (equals == std::u16string_view::npos) continue;
    if (Fold(text.substr(0, equals)) == wanted) return std::u16string(text.substr(equals + 1));
  }
  return std::nullopt;
}

}  // namespace

std::u16string ExpandEnvironmentStrings(std::u16string_view text, const WCHAR* block) {
  std::u16string out;
  size_t i = 0;
  while (i < text.size()) {
    size_t open = text.find(u'%', i);
    if (open == std::u16string_view::npos) break;
    size_t close = text.find(u'%', open + 1);
    if (close == std::u16string_view::npos) break;
    out.append(text.substr(i, open - i));
    std::u16string_view name = text.substr(open + 1, close - open - 1);
    std::optional<std::u16string> value;
    if (!name.empty()) value = block ? BlockVariable(block, name) : MachineVariable(name);
    if (value) {
      out += *value;
    } else {
      out.append(text.substr(open, close - open + 1));
    }
    i = close + 1;
  }
  if (i < text.size()) out.append(text.substr(i));
  return out;
}

void ResetEnvironment() {
  Environment& e = environment();
  std::lock_guard<std::mutex> guard(e.lock);
  SetDefaults(e);
}

}  // namespace registry

void RegistrySetEnvironment(const std::u16string& name, const std::u16string& value) {
  registry::Environment& e = registry::environment();
  std::lock_guard<std::mutex> guard(e.lock);
  if (e.variables.empty()) registry::SetDefaults(e);
  e.variables[registry::Fold(name)] = value;
}

}  // namespace wdmsim
