// One walk over the running processes (a Toolhelp snapshot), for every caller that looks for a
// program by name.
#pragma once

#include <windows.h>
#include <tlhelp32.h>

#include <optional>

#include "win/unique_handle.h"

namespace korva::win {

// Which step of the walk failed, and the error it left.
struct ProcessWalkFailure {
  enum class Step { kSnapshot, kFirstEntry } step;
  DWORD error;
};

// Calls `visit(entry)` for each running process until it returns true. Nothing when the walk
// ran (whether or not a visit stopped it), else the step that failed.
template <typename Visit>
std::optional<ProcessWalkFailure> WalkProcesses(Visit&& visit) {
  const UniqueFileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  if (!snapshot) return ProcessWalkFailure{ProcessWalkFailure::Step::kSnapshot, GetLastError()};
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  if (!Process32FirstW(snapshot.get(), &entry)) {
    return ProcessWalkFailure{ProcessWalkFailure::Step::kFirstEntry, GetLastError()};
  }
  do {
    if (visit(static_cast<const PROCESSENTRY32W&>(entry))) break;
  } while (Process32NextW(snapshot.get(), &entry));
  return std::nullopt;
}

}  // namespace korva::win
