// Registry access under HKEY_LOCAL_MACHINE: CRegistryUtil, the plain helpers and the entry points.
#include "settings/registry.h"

#include <cstdlib>
#include <cstring>
#include <exception>

#include "settings/core/registry_value_bytes.h"
#include "settings/log.h"
#include "win/bitness.h"
#include "win/registry_value.h"

namespace Endpoint_Manager {

namespace {

constexpr const char* kSource = "RegistryUtil";
constexpr REGSAM kViewMask = KEY_WOW64_64KEY | KEY_WOW64_32KEY;

// Only an explicit 1 asks for the 64-bit view; the agent always passes 0 and so stays in the
// 32-bit view, whichever build this is.
REGSAM WithView(REGSAM access, int is64) noexcept {
  return is64 == 1 ? (access | KEY_WOW64_64KEY) : (access | korva::win::kAgentRegistryView);
}

[[nodiscard]] LONG OpenKey(RegistryKeyHandle& key, const std::string& path, REGSAM access) {
  HKEY opened = nullptr;
  const LONG code = RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, access, &opened);
  if (code == ERROR_SUCCESS) key.Assign(opened, access & kViewMask);
  return code;
}

// The catch-all of the set and query operations.
template <typename Body>
[[nodiscard]] LONG GuardedRegistryCall(Body&& body) noexcept {
  try {
    return body();
  } catch (const std::exception& e) {
    KLOG_ERROR_AS(kSource) << "std Exception caught :" << e.what();
  } catch (...) {
    KLOG_ERROR_AS(kSource) << "Unknown Exception caught";
  }
  return ERROR_INVALID_FUNCTION;
}

}  // namespace

int CRegistryUtil::RegistryIsAvailable(RegistryKeyHandle& key, const std::string& path, int is64) {
  korva::log::Scope scope(kSource, "@@@ Inside RegistryIsAvailable @@@", "@@@ End of RegistryIsAvailable @@@");
  try {
    if (OpenKey(key, path, WithView(KEY_READ, is64)) != ERROR_SUCCESS) return 0;
    key.Reset();
    return 1;
  } catch (const std::exception&) {
    KLOG_ERROR_AS(kSource) << "std Exception caught";
  } catch (...) {
    KLOG_ERROR_AS(kSource) << "Unknown Exception caught";
  }
  return 0;
}

LONG CRegistryUtil::RegistryCreateKey(RegistryKeyHandle& key, const std::string& path, int is64) {
  korva::log::Scope scope(kSource, "@@@ Inside RegistryCreateKey @@@", "@@@ End of RegistryCreateKey @@@");
  try {
    HKEY created = nullptr;
    const LONG code = RegCreateKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                      WithView(KEY_WRITE, is64), nullptr, &created, nullptr);
    if (code == ERROR_SUCCESS) {
      key.Assign(created, 0);
      key.Reset();
    }
    return code;
  } catch (const std::exception&) {
    KLOG_ERROR_AS(kSource) << "std Exception caught";
  } catch (...) {
    KLOG_ERROR_AS(kSource) << "Unknown Exception caught";
  }
  return ERROR_INVALID_FUNCTION;
}

LONG CRegistryUtil::RegistrySetValue(RegistryKeyHandle& key, const std::string& path, const std::string& valueName,
                                     DWORD type, const BYTE* data, DWORD size, int is64) {
  korva::log::Scope scope(kSource, "@@@ Inside RegistrySetValue @@@", "@@@ End of RegistrySetValue @@@");
  return GuardedRegistryCall([&]() -> LONG {
    const LONG opened = OpenKey(key, path, WithView(KEY_ALL_ACCESS, is64));
    if (opened != ERROR_SUCCESS) return opened;
    const LONG code = RegSetValueExA(key.key(), valueName.c_str(), 0, type, data, size);
    if (code == ERROR_SUCCESS) key.Reset();
    return code;
  });
}

LONG CRegistryUtil::RegistryQueryValue(RegistryKeyHandle& key, const std::string& path, const std::string& valueName,
                                       DWORD* type, BYTE* data, DWORD* size, int is64) {
  korva::log::Scope scope(kSource, "@@@ Inside RegistryQueryValue @@@", "@@@ End of RegistryQueryValue @@@");
  return GuardedRegistryCall([&]() -> LONG {
    const LONG opened = OpenKey(key, path, WithView(KEY_READ, is64));
    if (opened != ERROR_SUCCESS) return opened;
    const LONG code = RegQueryValueExA(key.key(), valueName.c_str(), nullptr, type, data, size);
    if (code == ERROR_SUCCESS) key.Reset();
    return code;
  });
}

}  // namespace Endpoint_Manager

using Endpoint_Manager::CRegistryUtil;
using Endpoint_Manager::RegistryKeyHandle;

namespace {
[[nodiscard]] LONG ReportWrongType(const char* function, const std::string& valueName, DWORD type) {
  KLOG_WARNING_AS(function) << "Registry value " << valueName << " has the unexpected type "
                            << static_cast<unsigned long>(type);
  return ERROR_UNSUPPORTED_TYPE;
}
}  // namespace

int __IsParentRegKeyPresent(const std::string& path, int is64) {
  return korva::log::ScopedGuarded(__func__, 0, [&] {
    RegistryKeyHandle key;
    return CRegistryUtil::RegistryIsAvailable(key, path, is64);
  });
}

LONG __addRegistryKey(const std::string& path, int is64) {
  return korva::log::ScopedGuarded(__func__, static_cast<LONG>(ERROR_INVALID_FUNCTION), [&] {
    RegistryKeyHandle key;
    return CRegistryUtil::RegistryCreateKey(key, path, is64);
  });
}

LONG __ReadDwordRegistryData(const std::string& path, const std::string& valueName, int is64, DWORD& value) {
  KLOG_SCOPE();
  // After an exception the result is success, deliberately: callers preset their default and keep it.
  return korva::log::Guarded(__func__, static_cast<LONG>(ERROR_SUCCESS), [&] {
    RegistryKeyHandle key;
    DWORD type = REG_DWORD;
    DWORD size = sizeof(DWORD);
    DWORD read = 0;
    const LONG code =
        CRegistryUtil::RegistryQueryValue(key, path, valueName, &type, reinterpret_cast<BYTE*>(&read), &size, is64);
    if (code != ERROR_SUCCESS) return code;
    // A value of another type would hand its bytes over as a number; the caller keeps its default.
    if (!korva::win::IsDwordValue(type, size)) return ReportWrongType("__ReadDwordRegistryData", valueName, type);
    value = read;
    return code;
  });
}

LONG __ReadRegSZ(const std::string& path, const std::string& valueName, int is64, std::string& value) {
  return korva::log::ScopedGuarded(__func__, static_cast<LONG>(ERROR_INVALID_FUNCTION), [&] {
    // MAX_PATH bytes for the value, plus one that always stays NUL so a value stored without
    // its terminator cannot run past the buffer.
    char buffer[MAX_PATH + 1] = {};
    RegistryKeyHandle key;
    DWORD type = REG_SZ;
    DWORD size = MAX_PATH;
    const LONG code =
        CRegistryUtil::RegistryQueryValue(key, path, valueName, &type, reinterpret_cast<BYTE*>(buffer), &size, is64);
    if (code == ERROR_SUCCESS && type != REG_SZ && type != REG_EXPAND_SZ) {
      value.clear();
      return ReportWrongType("__ReadRegSZ", valueName, type);
    }
    value = code == ERROR_SUCCESS ? std::string(buffer) : std::string();
    return code;
  });
}

LONG __writeValue(const std::string& path, const std::string& valueName, DWORD type, int is64,
                  const std::string& data) {
  return korva::log::ScopedGuarded(__func__, static_cast<LONG>(ERROR_INVALID_FUNCTION), [&] {
    LONG result = ERROR_SUCCESS;
    if (__IsParentRegKeyPresent(path, is64) == 0) {
      result = __addRegistryKey(path, is64);
      KLOG_INFO_AS("__writeValue") << "While Adding Registry Key, returned with error code :" << result;
    }
    const korva::registry::ValueBytes bytes = korva::registry::ValueBytesForType(type, data);
    if (!bytes.writable) return result;
    RegistryKeyHandle key;
    return CRegistryUtil::RegistrySetValue(key, path, valueName, type, bytes.data.data(), bytes.size, is64);
  });
}

LONG ReadDwordRegValue(const std::string& path, const std::string& valueName, DWORD& value) {
  KLOG_SCOPE();
  return __ReadDwordRegistryData(path, valueName, 0, value);
}

LONG ReadRegSZ(const std::string& path, const std::string& valueName, std::string& value) {
  KLOG_SCOPE();
  return __ReadRegSZ(path, valueName, 0, value);
}

LONG writeValue(const std::string& path, const std::string& valueName, DWORD type, const std::string& data) {
  KLOG_SCOPE();
  return __writeValue(path, valueName, type, 0, data);
}

void AllocateAndDoStringCopyA(const char* source, char** out) {
  korva::log::ScopedGuardedVoid(__func__, [&] {
    if (source == nullptr) {
      KLOG_ERROR_AS("AllocateAndDoStringCopyA") << "Src is NULL.";
      return;
    }
    const std::size_t length = std::strlen(source);
    char* copy = static_cast<char*>(std::calloc(length + 1, 1));
    if (copy == nullptr) return;
    std::memcpy(copy, source, length + 1);
    *out = copy;
  });
}

LONG AllocateAndDoStringCopyA(const std::string& path, const std::string& valueName, char** out) {
  KLOG_SCOPE();
  std::string value;
  const LONG code = ReadRegSZ(path, valueName, value);
  AllocateAndDoStringCopyA(value.c_str(), out);
  return code;
}
