// The launch gate: helper programs start only from the agent's own absolute folders.
#include "process/launch_gate.h"

#include <algorithm>
#include <cctype>
#include <mutex>
#include <set>
#include <string>

#include "settings/log.h"
#include "shared/core/agent_folders.h"
#include "win/strings.h"

namespace korva::process {

namespace {

std::mutex g_refusedMutex;
std::set<std::string> g_refused;  // programs' file names, lower case

std::string FileNameOf(std::string_view path) {
  const std::size_t cut = path.find_last_of("\\/");
  std::string name(cut == std::string_view::npos ? path : path.substr(cut + 1));
  return name.empty() ? std::string("(no program)") : name;
}

// True the first time `program` is refused in this process.
bool FirstRefusal(const std::string& program) {
  std::string key = program;
  std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return std::tolower(c); });
  const std::lock_guard<std::mutex> lock(g_refusedMutex);
  return g_refused.insert(std::move(key)).second;
}

void LogRefusal(const char* function, const std::string& program, const std::string& what) {
  if (FirstRefusal(program)) KLOG_ERROR_AS(function) << program << " is not started: " << what << ".";
}

}  // namespace

bool FolderAllowsStart(const char* function, std::string_view program, const AgentFolder& folder) {
  if (Usable(folder)) return true;
  LogRefusal(function, std::string(program),
             std::string(folder.name) + " \"" + folders::PrintableText(folder.text) +
                 "\" is refused: " + folders::FaultText(folder.fault));
  return false;
}

bool PathAllowsStart(const char* function, std::string_view programPath, const char* workingDir) {
  const std::string program = FileNameOf(programPath);
  const folders::FolderFault pathFault = folders::CheckProgramPath(programPath);
  if (pathFault != folders::FolderFault::kNone) {
    LogRefusal(function, program,
               "its path \"" + folders::PrintableText(programPath) + "\" is refused: " + folders::FaultText(pathFault));
    return false;
  }
  if (workingDir == nullptr || workingDir[0] == '\0') return true;
  const folders::FolderFault dirFault = folders::CheckAgentFolder(std::string_view(workingDir));
  if (dirFault == folders::FolderFault::kNone) return true;
  LogRefusal(
      function, program,
      "its working folder \"" + folders::PrintableText(workingDir) + "\" is refused: " + folders::FaultText(dirFault));
  return false;
}

bool PathAllowsStart(const char* function, std::wstring_view programPath, const wchar_t* workingDir) {
  // Checked in the wide form: a conversion could turn a character no path may hold into one that passes.
  const folders::FolderFault pathFault = folders::CheckProgramPath(programPath);
  const folders::FolderFault dirFault = workingDir == nullptr || workingDir[0] == L'\0'
                                            ? folders::FolderFault::kNone
                                            : folders::CheckAgentFolder(std::wstring_view(workingDir));
  if (pathFault == folders::FolderFault::kNone && dirFault == folders::FolderFault::kNone) return true;
  const std::string program = FileNameOf(win::WideToAnsi(programPath));
  if (pathFault != folders::FolderFault::kNone) {
    LogRefusal(function, program,
               "its path \"" + folders::PrintableText(win::WideToAnsi(programPath)) +
                   "\" is refused: " + folders::FaultText(pathFault));
  } else {
    LogRefusal(function, program,
               "its working folder \"" + folders::PrintableText(win::WideToAnsi(workingDir)) +
                   "\" is refused: " + folders::FaultText(dirFault));
  }
  return false;
}

void ForgetRefusalsForTest() {
  const std::lock_guard<std::mutex> lock(g_refusedMutex);
  g_refused.clear();
}

}  // namespace korva::process
