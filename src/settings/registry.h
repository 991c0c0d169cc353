// Registry access under HKEY_LOCAL_MACHINE: the key object and CRegistryUtil, the plain helpers
// and the public entry points every subsystem calls. All return a Win32 error code (0 = success)
// and never throw. Every access stays in the agent's view (win/bitness.h: the 32-bit view,
// Wow6432Node on 64-bit Windows) unless is64 is 1, which no caller passes.
//
// Which way to the registry, for what (there are four, and each has its job):
// 1. One value of an agent key, by path: the public entry points at the end of this file
//    (ReadDwordRegValue, ReadRegSZ, writeValue, AllocateAndDoStringCopyA). They write the usual
//    log lines, check the stored type (win/registry_value.h) and stay in the agent's view. Use
//    these unless one of the cases below applies.
// 2. The same with the view chosen by the caller: the plain helpers (__ReadRegSZ and the others,
//    `is64`), which the entry points call. Nothing in the agent needs another view; call them
//    directly only where a routine of that name is what is asked for.
// 3. A value's raw bytes and stored type, by path, for a reader that accepts more than one shape (a
//    flag kept as a DWORD or as text, say): CRegistryUtil::RegistryQueryValue with a
//    RegistryKeyHandle, then the shape checks of win/registry_value.h on what came back.
// 4. A key the caller holds open itself: several values of one key, wide names, keys outside
//    HKEY_LOCAL_MACHINE (the user hives), enumeration, change notifications, or lines of its own
//    instead of the entry points'. A win::UniqueRegKey opened with win::kAgentRegistryView
//    (win/bitness.h) unless the path names its view itself, and for numbers the typed
//    win::QueryDword / SetDword / QueryQword / SetQword (win/registry_value.h), never a bare
//    RegQueryValueEx of a number.
#pragma once

#include <windows.h>

#include <string>

#include "settings/core/registry_value_bytes.h"  // korva::registry::kAgentView, k64BitView
#include "win/unique_handle.h"

namespace Endpoint_Manager {

// One open key (closed when the object goes away) and the view bits it was opened with.
class RegistryKeyHandle {
 public:
  RegistryKeyHandle() = default;

  [[nodiscard]] HKEY key() const noexcept { return key_.get(); }
  [[nodiscard]] REGSAM view() const noexcept { return view_; }
  // Takes ownership of `key`, closing any key held before.
  void Assign(HKEY key, REGSAM view) noexcept {
    key_.reset(key);
    view_ = view;
  }
  void Reset() noexcept { Assign(nullptr, 0); }

 private:
  korva::win::UniqueRegKey key_;
  REGSAM view_ = 0;
};

class CRegistryUtil {
 public:
  // 1 if the key opens for reading, 0 otherwise.
  [[nodiscard]] static int RegistryIsAvailable(RegistryKeyHandle& key, const std::string& path, int is64);
  [[nodiscard]] static LONG RegistryCreateKey(RegistryKeyHandle& key, const std::string& path, int is64);
  [[nodiscard]] static LONG RegistrySetValue(RegistryKeyHandle& key, const std::string& path,
                                             const std::string& valueName, DWORD type, const BYTE* data, DWORD size,
                                             int is64);
  [[nodiscard]] static LONG RegistryQueryValue(RegistryKeyHandle& key, const std::string& path,
                                               const std::string& valueName, DWORD* type, BYTE* data, DWORD* size,
                                               int is64);
};

}  // namespace Endpoint_Manager

// Plain helpers (each with its own key object). Their names, double underscore and all, are the
// ones their log lines carry.
// NOLINTBEGIN(bugprone-reserved-identifier)
[[nodiscard]] int __IsParentRegKeyPresent(const std::string& path, int is64);
[[nodiscard]] LONG __addRegistryKey(const std::string& path, int is64);
// Reads straight into `value`: untouched when the value is missing. Gives 0 after an exception.
[[nodiscard]] LONG __ReadDwordRegistryData(const std::string& path, const std::string& valueName, int is64,
                                           DWORD& value);
// `value` gets the text read, or the empty string when the read failed. At most 259 characters.
[[nodiscard]] LONG __ReadRegSZ(const std::string& path, const std::string& valueName, int is64, std::string& value);
// Creates the key when missing; converts `data` by `type` (see the registry value rules).
[[nodiscard]] LONG __writeValue(const std::string& path, const std::string& valueName, DWORD type, int is64,
                                const std::string& data);
// NOLINTEND(bugprone-reserved-identifier)

// Public entry points: the 32-bit view.
[[nodiscard]] LONG ReadDwordRegValue(const std::string& path, const std::string& valueName, DWORD& value);
[[nodiscard]] LONG ReadRegSZ(const std::string& path, const std::string& valueName, std::string& value);
[[nodiscard]] LONG writeValue(const std::string& path, const std::string& valueName, DWORD type,
                              const std::string& data);
// Reads a string value into a new heap block (length + 1, zero-filled) owned by the caller (a
// win::UniqueMallocText<char>). Returns the read's code; `*out` gets a copy whatever the read gave
// (the empty text when it failed), and stays unset only when no memory can be had.
[[nodiscard]] LONG AllocateAndDoStringCopyA(const std::string& path, const std::string& valueName, char** out);
// Copies `source` into a new heap block owned by the caller (as above). A null source logs
// "Src is NULL." and leaves `*out` unset.
void AllocateAndDoStringCopyA(const char* source, char** out);
