// The environment that REG_EXPAND_SZ values are expanded with.
#pragma once

#include <string>
#include <string_view>

#include <wdm.h>

namespace wdmsim {
namespace registry {

// Replaces each %NAME% whose name is defined by its value; undefined references stay as
// they are. block is an environment block ("NAME=value" strings, each NUL-terminated,
// an empty one last) or null for the machine's environment (RegistrySetEnvironment).
std::u16string ExpandEnvironmentStrings(std::u16string_view text, const WCHAR* block);
// Back to the booted machine's environment.
void ResetEnvironment();

}  // namespace registry
}  // namespace wdmsim
