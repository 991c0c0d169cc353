// The programs' environment: the given one with PATH judged folder by folder.
#include "process/child_environment.h"

#include <mutex>
#include <set>
#include <stdexcept>
#include <string_view>

#include "process/core/environment_block.h"
#include "settings/log.h"
#include "shared/core/agent_folders.h"
#include "shared/path_links.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace korva::process {

namespace {

constexpr std::wstring_view kPathName = L"PATH";
// Folders already logged as left out; past this many, new ones are left out without a line each.
constexpr std::size_t kMaxLoggedFolders = 64;

std::mutex g_loggedMutex;
std::set<std::wstring>& LoggedFolders() {
  static auto* logged = new std::set<std::wstring>;  // never destroyed: launches may outlive statics
  return *logged;
}

std::string Printable(std::wstring_view text) {
  return folders::PrintableText(win::TryWideToUtf8(text).value_or("(not convertible)"), 400);
}

// Why a PATH folder is left out; empty when it is kept.
std::string WhyLeftOut(std::wstring_view entry) {
  const std::wstring_view folder = WithoutSurroundingQuotes(entry);
  if (const folders::FolderFault fault = folders::CheckAgentFolder(folder); fault != folders::FolderFault::kNone) {
    return folders::FaultText(fault);
  }
  std::wstring missing;
  const std::wstring step = FirstUnsafeStep(folder, LastStep::kJudged, 0, &missing);
  if (!step.empty()) {
    return "it is reached through [" + Printable(step) +
           "], a link or folder that users may change or replace, or that cannot be checked";
  }
  if (!missing.empty()) return "it does not exist (from [" + Printable(missing) + "] on)";
  return {};
}

void LogLeftOut(const char* function, std::wstring_view entry, const std::string& why) {
  const std::lock_guard lock(g_loggedMutex);
  std::set<std::wstring>& logged = LoggedFolders();
  if (logged.size() > kMaxLoggedFolders || logged.count(std::wstring(entry)) != 0) return;
  if (logged.size() == kMaxLoggedFolders) {
    logged.emplace();  // the empty text marks that this line was written
    KLOG_WARNING_AS(function) << kMaxLoggedFolders
                              << " PATH folders are already named as left out; further ones are left out unnamed.";
    return;
  }
  logged.emplace(entry);
  KLOG_WARNING_AS(function) << "The folder [" << Printable(entry)
                            << "] is left out of the PATH of the programs the agent starts: " << why << ".";
}

// The PATH list with only the folders WhyLeftOut keeps.
std::wstring KeptPathList(const char* function, std::wstring_view list) {
  std::wstring kept;
  for (const std::wstring_view entry : PathListEntries(list)) {
    if (const std::string why = WhyLeftOut(entry); !why.empty()) {
      LogLeftOut(function, entry, why);
      continue;
    }
    if (!kept.empty()) kept.push_back(L';');
    kept.append(entry);
  }
  return kept;
}

}  // namespace

ChildEnvironment::ChildEnvironment(const char* function, const void* source) {
  std::wstring_view block;
  win::UniqueEnvironmentStrings own;
  if (source != nullptr) {
    const auto* text = static_cast<const wchar_t*>(source);
    block = std::wstring_view(text, EnvironmentBlockChars(text));
  } else {
    own.reset(GetEnvironmentStringsW());
    if (!own) throw std::runtime_error("the service's environment cannot be read");
    block = std::wstring_view(own.get(), EnvironmentBlockChars(own.get()));
  }
  block_ = WithVariableValue(block, kPathName, KeptPathList(function, VariableValue(block, kPathName)));
}

void ForgetLeftOutPathFoldersForTest() {
  const std::lock_guard lock(g_loggedMutex);
  LoggedFolders().clear();
}

}  // namespace korva::process
