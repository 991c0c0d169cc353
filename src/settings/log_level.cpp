// The log's maximum severity from the registry.
#include "settings/log_level.h"

#include <string>

#include "settings/core/agent_constants.h"
#include "settings/log.h"
#include "win/registry_value.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace {

constexpr wchar_t kComponentName[] = L"korva_agentservice";

[[nodiscard]] LONG OpenLogLevelKey(korva::win::UniqueRegKey& key) {
  const LONG status = RegOpenKeyExA(HKEY_LOCAL_MACHINE, korva::kLogLevelKey, 0, KEY_QUERY_VALUE, key.put());
  if (status == ERROR_FILE_NOT_FOUND) {
    KLOG_DEBUG_AS("ReadDwordRegistryData") << "Log level key is not present. Error code : " << status;
  } else if (status != ERROR_SUCCESS) {
    KLOG_ERROR_AS("ReadDwordRegistryData") << "Unable to open the log level key. Error code : " << status;
  }
  return status;
}

[[nodiscard]] LONG QueryDword(HKEY key, const char* valueName, DWORD& value) {
  DWORD data = 0;
  const LONG status = korva::win::QueryDword(key, valueName, data);
  if (status == ERROR_FILE_NOT_FOUND) {
    KLOG_DEBUG_AS("ReadDwordRegistryData")
        << "Log level value " << valueName << " is not present. Error code : " << status;
  } else if (status != ERROR_SUCCESS) {
    KLOG_ERROR_AS("ReadDwordRegistryData")
        << "Unable to read the log level value " << valueName << ". Error code : " << status;
  } else {
    value = data;
  }
  return status;
}

}  // namespace

LONG ReadDwordRegistryData(const char* valueName, DWORD& value) {
  KLOG_SCOPE();
  korva::win::UniqueRegKey key;
  const LONG status = OpenLogLevelKey(key);
  if (status != ERROR_SUCCESS) return status;
  return QueryDword(key.get(), valueName, value);
}

namespace korva {

LogLevelReading ReadLogLevel() noexcept {
  return log::Guarded("ReadLogLevel", LogLevelReading{}, [] {
    LogLevelReading reading;
    DWORD value = 0;
    const std::string component = win::WideToAnsi(kComponentName);
    reading.componentRead = ReadDwordRegistryData(component.c_str(), value);
    if (reading.componentRead != ERROR_SUCCESS) reading.sharedRead = ReadDwordRegistryData("LogLevel", value);
    if (reading.componentRead == ERROR_SUCCESS || reading.sharedRead == ERROR_SUCCESS) {
      reading.severity = static_cast<int>(value);
    }
    return reading;
  });
}

void ReportUnusableLogLevelValues(const LogLevelReading& reading) {
  const std::string component = win::WideToAnsi(kComponentName);
  const struct {
    const char* name;
    LONG code;
  } reads[] = {{component.c_str(), reading.componentRead}, {"LogLevel", reading.sharedRead}};
  for (const auto& read : reads) {
    if (read.code == ERROR_SUCCESS || read.code == ERROR_FILE_NOT_FOUND) continue;
    KLOG_ERROR_AS("ReadLogLevel") << "The log level value " << read.name
                                  << " could not be read. Error code : " << read.code << ". The log level in force is "
                                  << reading.severity << ".";
  }
}

}  // namespace korva
