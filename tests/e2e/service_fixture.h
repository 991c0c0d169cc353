// The end-to-end fixtures: no agent service registered, a fresh agent registry, the most verbose log.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>

#include "settings/registry.h"
#include "support/test_support.h"

namespace korva::test {

// A plain grant file's grant 7 ("usb"), ending `seconds` from now by the local clock, as grants count.
inline std::string GrantEnding(long long seconds) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  FILETIME time;
  SystemTimeToFileTime(&now, &time);
  const long long local = static_cast<long long>(ULARGE_INTEGER{{time.dwLowDateTime, time.dwHighDateTime}}.QuadPart /
                                                 10000000) - 11644473600LL;  // from 1601 to 1970
  return R"([{"ta_id":7,"policy_name":"usb","expiry_time":)" + std::to_string(local + seconds) +
         R"(,"duration_type":0,"revoked":0,"duration_from":0,"duration_to":4102444800}])";
}

// Whether `log` holds, at or after `from`, a line of `function` whose message contains `text`.
inline bool HasLineWith(const std::string& log, const std::string& function, const std::string& text,
                        std::size_t from = 0) {
  const std::string field = "] [ " + function + " ] ";
  for (std::size_t at = log.find(field, from); at != std::string::npos; at = log.find(field, at + 1)) {
    if (log.substr(at, log.find('\n', at) - at).find(text) != std::string::npos) return true;
  }
  return false;
}

class EntryPointTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TearDown();
    SetLogLevel("LogLevel", 6);
    ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, dir_.NarrowPath()), 0);
    ASSERT_EQ(writeValue(kAgentKey, "AgentInstallDir", REG_SZ, dir_.NarrowPath()), 0);
  }
  void TearDown() override {
    DeleteServiceIfPresent();
    CleanAgentRegistry();
  }
  static ProgramResult Run(const std::wstring& arguments) { return RunProgram(ServiceExecutable(), arguments, 120000); }
  // Makes the agent a sub-product whose settings file, agent.json in the test's folder, holds `settings`.
  void UseSettings(const std::optional<std::string>& settings) {
    if (settings) WriteFileBytes(dir_.File(L"agent.json"), *settings);
    ASSERT_EQ(writeValue(kAgentKey, "IsTESKSubProduct", REG_DWORD, "1"), 0);
    ASSERT_EQ(writeValue(kAgentKey, "GlobalJsonPath", REG_SZ, dir_.NarrowPath() + "\\agent.json"), 0);
  }
  [[nodiscard]] std::wstring LogPath() const { return dir_.File(L"logs\\korva_agentservice.log"); }
  [[nodiscard]] std::string Log() const { return ReadFileBytes(LogPath()); }
  [[nodiscard]] std::string AccessLog() const {
    return ReadFileBytes(dir_.File(L"logs\\korva_agentserviceaccess.log"));
  }
  // The log at `path` once it holds a line as HasLineWith finds it (`timeoutMs` at most).
  // NOLINTNEXTLINE(modernize-use-nodiscard): a caller may only wait for the line
  std::string LogWhen(const std::string& function, const std::string& text, std::size_t from = 0,
                      const std::wstring& path = L"", unsigned long timeoutMs = 30000) const {
    std::string log;
    WaitUntil([&] { return HasLineWith(log = ReadFileBytes(path.empty() ? LogPath() : path), function, text, from); },
              timeoutMs);
    return log;
  }
  // Whether such a line comes within `timeoutMs`.
  [[nodiscard]] bool Logged(const std::string& function, const std::string& text, std::size_t from = 0,
                            const std::wstring& path = L"", unsigned long timeoutMs = 30000) const {
    return HasLineWith(LogWhen(function, text, from, path, timeoutMs), function, text, from);
  }

  TempDir dir_;
};

class ServiceTest : public EntryPointTest {
 protected:
  void SetUp() override {
    EntryPointTest::SetUp();
    const ProgramResult installed = Run(L" /i");
    ASSERT_EQ(installed.exitCode, 0u) << installed.output;
    service_ = OpenAgentService(SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS | SERVICE_PAUSE_CONTINUE |
                                SERVICE_INTERROGATE | SERVICE_USER_DEFINED_CONTROL);
    ASSERT_TRUE(service_);
  }
  void TearDown() override {
    service_.reset();  // an open handle would keep the deleted service registered
    EntryPointTest::TearDown();
  }
  // A sub-product agent laid out as installed: BasePath, AgentInstallDir and the settings file's
  // installation folder are the test's folder (helpers in "DeviceControl\bin").
  void LayOutAsInstalled() {
    std::filesystem::create_directories(dir_.File(L"data\\policy"));
    std::filesystem::create_directories(dir_.File(L"DeviceControl\\bin"));
    std::string escaped;
    for (const char c : dir_.NarrowPath() + "\\") escaped += c == '\\' ? std::string("\\\\") : std::string(1, c);
    UseSettings("{\"agent_installed_dir\": \"" + escaped + "\"}");
  }
  std::wstring PolicyFile(const wchar_t* name) const { return dir_.File(std::wstring(L"data\\policy\\") + name); }
  void Start() {
    ASSERT_EQ(StartServiceOnce(service_.get()), 0u);
    ASSERT_EQ(State(SERVICE_RUNNING), static_cast<DWORD>(SERVICE_RUNNING));
  }
  DWORD State(DWORD waitFor) { return WaitForServiceState(service_.get(), waitFor, 60000); }
  // Waits for what the start-up writes by itself (on a young machine, by the start-up's own uptime
  // line, not the host's, which may have moved on: the boot row's log line, then the row itself,
  // which is appended after that line); the log's size.
  std::size_t SettledLogMark() {
    const std::string line = "] [ InvokeMainThread ] System Bootup time :";
    const std::string log = LogWhen("InvokeMainThread", "System Bootup time :");
    const std::size_t at = log.find(line);
    EXPECT_NE(at, std::string::npos) << "no start-up uptime in the log";
    if (at != std::string::npos && std::stoull(log.substr(at + line.size())) < 600000) {
      EXPECT_TRUE(Logged("PrintAgentServiceAccessLog", "Message :Machine_Bootup_Notification"));
      EXPECT_TRUE(WaitUntil([&] { return CountOf(AccessLog(), "\t\t\tMachine_Bootup_Notification\t") > 0; }, 30000));
    }
    return Log().size();
  }
  // Under Wine the stop ends only when the handler's 20 s wait runs out (the notification's device
  // unregistration waits for the dispatcher's lock), and the request may time out (1053).
  void Stop() {
    const DWORD sent = SendControl(service_.get(), SERVICE_CONTROL_STOP);
    EXPECT_TRUE(sent == 0 || sent == ERROR_SERVICE_REQUEST_TIMEOUT) << sent;
    EXPECT_EQ(State(SERVICE_STOPPED), static_cast<DWORD>(SERVICE_STOPPED));
  }

  win::UniqueServiceHandle service_;
  StandInFolder base_{dir_.path()}, bin_{dir_.File(L"DeviceControl\\bin")};
};

}  // namespace korva::test
