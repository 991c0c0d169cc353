// The steps on the way to a file. A junction, symbolic link or mount point sends every open of
// what lies beyond it wherever it points, and a user who may rename or delete a folder on the way
// (or change who may) can put a folder of that user's own in its place. Either way the path is no
// longer the agent's own, however well the folder at its end is secured: the agent would start,
// load, read and write whatever the user chose.
#pragma once

#include <windows.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace korva {

// What the walk asks of one step that is not a link, given its security: its owner is SYSTEM, the
// Administrators group or TrustedInstaller (or `ownAccount`, the account the agent runs as), and
// its access list lets no one else change its list or owner or delete what it holds; a folder on
// the way (not the drive's root) must also keep others from deleting or renaming it, and the path's
// last step from writing, adding to it or changing its attributes (an empty folder so writable can
// be made a junction). `judgeList` false leaves the list aside (a folder whose list the agent is
// about to set); a step without a list (everyone may do anything) never passes.
struct StepFacts {
  bool root = false;
  bool last = false;
  bool judgeList = true;
};
bool StepIsKeptFromUsers(PSECURITY_DESCRIPTOR descriptor, PSID ownAccount, StepFacts facts);

// How much of the path's end is judged: all of it, or all but the last step's access list.
enum class LastStep { kJudged, kListAboutToBeSet };

// The first step of `path` (its drive's root, each folder below it, then the path itself) that is
// not the agent's: a link (a junction, symbolic link or mount point: the agent's paths go through
// none), a step that fails StepIsKeptFromUsers or whose attributes or security cannot be read, or
// a root that is not a fixed drive keeping access lists. Empty when there is none. A step that does
// not exist ends the walk: nothing beyond it can be reached yet. Steps before `judgedFrom`
// characters (the root included) are not judged. The security of steps found sound is taken as
// sound for 30 s for that same file or folder (only an administrator could have changed it since);
// whether a step is there, no link and the object judged is read at every walk. Only for a path that starts "X:\" (one
// that passed the folder rule); any other gives empty. `missing`, when given, gets the step that
// ended the walk by not existing, or empty: a caller that must not act on a step judged absent
// (one that could appear before its use) learns so.
std::wstring FirstUnsafeStep(std::wstring_view path, LastStep last = LastStep::kJudged, std::size_t judgedFrom = 0,
                             std::wstring* missing = nullptr);
// The same for a path in the ANSI code page.
std::string FirstUnsafeStep(std::string_view path, LastStep last = LastStep::kJudged, std::size_t judgedFrom = 0);

// Whether the agent may open `path` (in the ANSI code page): true when no step of it is unsafe.
// Otherwise logs at error, as `function`, "<what> [<path>] is reached through [<step>], a link or
// folder that users may change or replace, or that cannot be checked; <consequence>." and gives
// false.
bool NoUnsafeStepOn(const char* function, const std::string& path, const char* what, const char* consequence,
                    LastStep last = LastStep::kJudged);
// That error line, for a `step` found otherwise (the path itself, judged on an open handle).
void LogUnsafeStep(const char* function, const std::string& path, const std::string& step, const char* what,
                   const char* consequence);

// Whether the file or folder open behind `file` (opened with READ_CONTROL) is kept from users as the
// last step of an agent path is: owned by SYSTEM, Administrators or the agent's own account, and no
// one else may write it or change its list or owner (the list left aside with
// LastStep::kListAboutToBeSet). False when its security cannot be read.
bool OpenFileIsKeptFromUsers(HANDLE file, LastStep last = LastStep::kJudged);

// What the agent does with a file it judges on its handle.
enum class FileUse {
  kWritten,  // no reparse point at all: a handle opened on a compressed, deduplicated or cloud
             // file's reparse point itself would write past the filter that keeps its data
  kRead,     // no reparse point that redirects opens; such a file is read by name, through its filter
};

// Whether `file` (opened with FILE_READ_ATTRIBUTES and READ_CONTROL, and with
// FILE_FLAG_OPEN_REPARSE_POINT so a link in its place is opened itself) is a file of the agent's
// own for `use`: not a link (see FileUse), one name only, and kept from users as
// OpenFileIsKeptFromUsers says. A second name (a hard link) gives someone else's file, or Windows'
// own, a name in the agent's folder, which a walk by name judges as if it were the agent's. False
// when it cannot be read.
bool OpenFileIsAgentsOwn(HANDLE file, FileUse use = FileUse::kWritten);

// Forgets the steps found sound, and the drives' doubts told, as a new process would.
void ForgetSoundStepsForTest();
// How many times a walk has read a step's security: a verdict taken from memory reads none.
std::size_t StepSecurityReadsForTest();
class VolumeProbe;
// Has the walk ask `probe` (null: the system) which bus a drive's disk is on.
void SetRootProbeForTest(VolumeProbe* probe);

}  // namespace korva
