// The agent's installation folder, its configuration program, the WOW64 answers, and initialize(),
// which fills them.
#include "shared/agent_environment.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "settings/agent_parameters.h"
#include "settings/log.h"
#include "shared/path_links.h"
#include "win/procedure.h"
#include "win/strings.h"
#include "win/unique_handle.h"

std::string AgentInstallDirGlobal;
std::wstring ConfigProgramPath;
std::atomic<BOOL> IsWow64Flag{FALSE};
std::atomic<IsWow64ProcessFn> IsWow64ProcessEntry{nullptr};
std::atomic<AttachConsoleFn> AttachConsoleEntry{nullptr};

void InitiateWow64() {
  korva::log::ScopedGuardedVoid(__func__, [] {
    // kernel32 is mapped into every process for its whole life: taken, not loaded, so no DLL
    // search is involved and the entry points below stay valid until it ends.
    const HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
    if (kernel32 == nullptr) return;
    KLOG_INFO_AS("InitiateWow64") << "hk32libW is not null.";  // the system's own line, kept as it stands
    IsWow64ProcessEntry = korva::win::LookUpProcedure<IsWow64ProcessFn>(kernel32, "IsWow64Process");
    AttachConsoleEntry = korva::win::LookUpProcedure<AttachConsoleFn>(kernel32, "AttachConsole");
  });
}

namespace {

// The second, independent WOW64 query: its own entry point, looked up once.
BOOL QueryWow64Independently() {
  static const auto entry =
      korva::win::LookUpProcedure<IsWow64ProcessFn>(GetModuleHandleW(L"kernel32"), "IsWow64Process");
  BOOL result = FALSE;
  if (entry != nullptr) entry(GetCurrentProcess(), &result);
  return result;
}

void FillAgentInstallDirGlobal() {
  korva::win::UniqueMallocText<char> directory;
  // A missing value leaves the folder empty; the log line below shows it.
  static_cast<void>(AgentInstallDir(directory.put()));
  AgentInstallDirGlobal = directory ? directory.get() : "";
}

}  // namespace

void initialize() {
  korva::log::ScopedGuardedVoid(__func__, [] {
    if (AgentInstallDirGlobal.empty()) {
      KLOG_ERROR_AS("initialize") << "TESK agent Installed Directory is NULL. So getting QV agent directory.";
      FillAgentInstallDirGlobal();
    }
    KLOG_INFO_AS("initialize") << "Local Agent Installed Directory : " << AgentInstallDirGlobal;
    InitiateWow64();
    BOOL wow64 = FALSE;
    if (const IsWow64ProcessFn isWow64 = IsWow64ProcessEntry.load();
        isWow64 == nullptr || !isWow64(GetCurrentProcess(), &wow64)) {
      wow64 = FALSE;
    }
    IsWow64Flag = wow64;
    // The two differently cased labels are deliberate: the system writes both lines.
    if (korva::log::Enabled(korva::log::kInfo)) {
      KLOG_INFO_AS("initialize") << "IS_WOW_64 : " << static_cast<int>(wow64);
      KLOG_INFO_AS("initialize") << "is_WOW_64 : " << static_cast<int>(QueryWow64Independently());
    }
  });
}

namespace korva {

namespace {

// Whether `missing`, the first step of `folder` found absent, is a folder above it rather than the
// folder itself (given with or without its last backslash).
bool AboveFolder(std::wstring_view missing, std::wstring_view folder) {
  while (!folder.empty() && (folder.back() == L'\\' || folder.back() == L'/')) folder.remove_suffix(1);
  return !missing.empty() && missing.size() < folder.size();
}

AgentFolder Folder(const char* name, std::string text) {
  AgentFolder folder;
  folder.name = name;
  folder.fault = folders::CheckAgentFolder(text);
  // Checked at each use, not once: a link can appear in a step that did not exist before. The
  // folder itself may be missing (the agent makes it for SYSTEM and administrators only); a folder
  // above it may not.
  if (Usable(folder)) {
    const std::wstring wide = win::AnsiToWide(text);
    std::wstring missing;
    if (!FirstUnsafeStep(std::wstring_view(wide), LastStep::kJudged, 0, &missing).empty()) {
      folder.fault = folders::FolderFault::kUnsafeStep;
    } else if (AboveFolder(missing, wide)) {
      folder.fault = folders::FolderFault::kParentMissing;
    }
  }
  if (Usable(folder)) folder.path = text;
  folder.text = std::move(text);
  return folder;
}

}  // namespace

AgentFolder DeviceControlFolder() {
  AgentFolder folder =
      Folder("the installation folder", AgentParameters.installDirectory ? AgentParameters.installDirectory.get() : "");
  if (!Usable(folder)) return folder;
  // It comes from the settings file, not the registry: it is used only where BasePath or
  // AgentInstallDir, the folders the agent gives its own access list, hold it.
  for (const AgentFolder& owner : {AgentInstallFolder(), AgentBaseFolder()}) {
    if (Usable(owner) && folders::IsSameOrWithinFolder(folder.path, owner.path)) return folder;
  }
  folder.fault = folders::FolderFault::kOutsideAgentFolders;
  folder.path.clear();
  return folder;
}

AgentFolder AgentInstallFolder() { return Folder("the AgentInstallDir folder", AgentInstallDirGlobal); }

AgentFolder AgentBaseFolder() { return Folder("the BasePath folder", BasePathText()); }

AgentFolder ExecutableFolder() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (length == 0) return Folder("the executable's folder", "");
    if (length < path.size()) {
      path.resize(length);
      break;
    }
    if (path.size() >= folders::kMaxFolderChars) return Folder("the executable's folder", "");
    path.resize(path.size() * 2);
  }
  const std::size_t cut = path.find_last_of(L'\\');
  path.resize(cut == std::wstring::npos ? 0 : cut);
  // Checked as Windows holds it; a folder the ANSI code page cannot name exactly is not used.
  const std::optional<std::string> narrow = win::WideToAnsiExact(path);
  if (folders::CheckAgentFolder(std::wstring_view(path)) != folders::FolderFault::kNone || !narrow) {
    AgentFolder refused = Folder("the executable's folder", narrow.value_or(win::WideToAnsi(path)));
    // Nor is it judged by a walk of that other name, which a log's choice could take past its links.
    if (Usable(refused) || refused.fault == folders::FolderFault::kUnsafeStep) {
      refused.fault = folders::FolderFault::kBadCharacter;
    }
    refused.path.clear();
    return refused;
  }
  return Folder("the executable's folder", *narrow);
}

}  // namespace korva
