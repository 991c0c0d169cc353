// Typed lookup of a procedure in a loaded module: the one place that casts GetProcAddress's result.
#pragma once

#include <windows.h>

namespace korva::win {

// The procedure `name` of `module` as a `Fn`; null when the module is null or lacks it.
template <typename Fn>
Fn LookUpProcedure(HMODULE module, const char* name) noexcept {
  if (module == nullptr) return nullptr;
  return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

}  // namespace korva::win
