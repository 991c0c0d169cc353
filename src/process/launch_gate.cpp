// The launch gate: helper programs start only from the agent's own absolute folders.
#include "process/launch_gate.h"

#include <algorithm>
#include <cctype>
#include <mutex>
#include <set>
#include <string>

#include "settings/log.h"
#include "shared/core/agent_folders.h"
#include "shared/path_links.h"
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

// Logs why the program at `path` may not start: its path's fault, else its working folder's.
bool Refuse(const char* function, const std::string& path, folders::FolderFault pathFault,
            const std::string& workingDir, folders::FolderFault dirFault) {
  const std::string program = FileNameOf(path);
  if (pathFault != folders::FolderFault::kNone) {
    LogRefusal(function, program,
               "its path \"" + folders::PrintableText(path) + "\" is refused: " + folders::FaultText(pathFault));
  } else {
    LogRefusal(function, program,
               "its working folder \"" + folders::PrintableText(workingDir) +
                   "\" is refused: " + folders::FaultText(dirFault));
  }
  return false;
}

// The rule's verdict on a program's path, then on its steps. The program's folder is judged as a
// path's end too: a library a user could add there would load into the program before its own.
// `missing` gets the creation's error for a step that does not exist.
folders::FolderFault CheckProgram(std::wstring_view path, DWORD& missing) {
  const folders::FolderFault fault = folders::CheckProgramPath(path);
  if (fault != folders::FolderFault::kNone) return fault;
  const std::wstring_view folder = path.substr(0, path.find_last_of(L"\\/"));
  std::wstring absent;
  if (!FirstUnsafeStep(path, LastStep::kJudged, 0, &absent).empty() || !FirstUnsafeStep(folder).empty()) {
    return folders::FolderFault::kUnsafeStep;
  }
  if (!absent.empty()) missing = absent.size() == path.size() ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
  return fault;
}

folders::FolderFault CheckWorkingFolder(std::wstring_view folder, DWORD& missing) {
  if (folder.empty()) return folders::FolderFault::kNone;
  const folders::FolderFault fault = folders::CheckAgentFolder(folder);
  if (fault != folders::FolderFault::kNone) return fault;
  std::wstring absent;
  if (!FirstUnsafeStep(folder, LastStep::kJudged, 0, &absent).empty()) return folders::FolderFault::kUnsafeStep;
  if (!absent.empty()) missing = ERROR_DIRECTORY;
  return fault;
}

}  // namespace

bool FolderAllowsStart(const char* function, std::string_view program, const AgentFolder& folder) {
  if (Usable(folder)) return true;
  LogRefusal(function, std::string(program),
             std::string(folder.name) + " \"" + folders::PrintableText(folder.text) +
                 "\" is refused: " + folders::FaultText(folder.fault));
  return false;
}

bool PathAllowsStart(const char* function, std::string_view programPath, const char* workingDir, DWORD& missing) {
  missing = ERROR_SUCCESS;
  // The narrow path is checked as the launcher passes it, before any conversion.
  const folders::FolderFault pathFault = folders::CheckProgramPath(programPath);
  const folders::FolderFault dirFault = workingDir == nullptr || workingDir[0] == '\0'
                                            ? folders::FolderFault::kNone
                                            : folders::CheckAgentFolder(std::string_view(workingDir));
  if (pathFault != folders::FolderFault::kNone || dirFault != folders::FolderFault::kNone) {
    return Refuse(function, std::string(programPath), pathFault, workingDir == nullptr ? "" : workingDir, dirFault);
  }
  // Then the links on its way, which are looked up by the wide name the system opens.
  const std::wstring widePath = win::AnsiToWide(programPath);
  const std::wstring wideDir = workingDir == nullptr ? std::wstring() : win::AnsiToWide(workingDir);
  return PathAllowsStart(function, std::wstring_view(widePath), wideDir.c_str(), missing);
}

bool PathAllowsStart(const char* function, std::wstring_view programPath, const wchar_t* workingDir, DWORD& missing) {
  missing = ERROR_SUCCESS;
  // Checked in the wide form: a conversion could turn a character no path may hold into one that passes.
  DWORD programMissing = ERROR_SUCCESS;
  DWORD folderMissing = ERROR_SUCCESS;
  const folders::FolderFault pathFault = CheckProgram(programPath, programMissing);
  const folders::FolderFault dirFault =
      CheckWorkingFolder(workingDir == nullptr ? std::wstring_view() : std::wstring_view(workingDir), folderMissing);
  if (pathFault == folders::FolderFault::kNone && dirFault == folders::FolderFault::kNone) {
    missing = folderMissing != ERROR_SUCCESS ? folderMissing : programMissing;
    return true;
  }
  return Refuse(function, win::WideToAnsi(programPath), pathFault,
                workingDir == nullptr ? std::string() : win::WideToAnsi(workingDir), dirFault);
}

void ForgetRefusalsForTest() {
  const std::lock_guard<std::mutex> lock(g_refusedMutex);
  g_refused.clear();
}

}  // namespace korva::process
