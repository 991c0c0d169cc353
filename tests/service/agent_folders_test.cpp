// The agent folders' access list: when a folder has it already, and which folders get it.
#include <windows.h>
#include <sddl.h>

#include <optional>

#include "service/agent_folder_access.h"
#include "service/entry_point.h"
#include "settings/log.h"
#include "settings/log_file_writer.h"
#include "shared/path_links.h"
#include "support/agent_fixture.h"

namespace korva::test {
namespace {

using AgentFoldersTest = AgentTest;

constexpr const char* kSecure = "SecureAgentFolders";
// Lines on a folder named as in "BasePath [C:\Korva]" or "[C:\Korva\logs]": left alone, and why; its list set.
LogLine LeftAlone(const std::string& folder, const std::string& why) {
  return {kSecure, "The agent folder " + folder + " " + why + "; its access rules are left as they are."};
}
LogLine Applied(const std::string& folder, const std::string& end = " applied.") {
  return {kSecure, "Access rules of the agent folder " + folder + end};
}
const std::string kNoUsers = " applied; users have no access.";
const std::string kNotAFolder = "is a link or a file, not a folder";
const LogLine kNoneApplied{kSecure, "Access rules of the agent folder", LogLine::kAbsent};

// A folder counts as done only with exactly that owner and protected list (Wine keeps no list on
// a file, so the comparison is what decides whether the system is asked to set one).
TEST_F(AgentFoldersTest, AFolderHasTheListOnlyWithItsOwnerProtectionAndEntries) {
  const win::UniqueLocalMemory wanted = AgentFolderSecurityDescriptor();
  ASSERT_TRUE(wanted);
  const struct { const wchar_t* sddl; bool same; } cases[] = {
      {L"O:BAD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)", true},
      {L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)", true},  // auto-inherit flag alone
      {L"O:BAD:AI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)", false},
      {L"O:BUD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)", false},
      {L"O:BAD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;CI;0x1200a9;;;BU)", false},
      {L"O:BAD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(D;OICI;0x1200a9;;;BU)", false},
      {L"O:BAD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)(A;OICI;FA;;;WD)", false},
      {L"O:BAD:PAI(A;OICI;FA;;;BA)(A;OICI;FA;;;SY)(A;OICI;0x1200a9;;;BU)", false},  // another order
      {L"O:BA", false},                                                           // no list at all
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(win::WideToUtf8(c.sddl));
    PSECURITY_DESCRIPTOR current = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(c.sddl, SDDL_REVISION_1, &current, nullptr));
    const win::UniqueLocalMemory owner(current);
    EXPECT_EQ(HasAgentFolderAccess(current, wanted.get()), c.same);
  }
}

// A step keeps a path the agent's when its owner is Windows' own (or the agent's account) and no one
// else may re-list it or delete what it holds, nor, on the way, delete or rename it, nor, at the
// path's end, write, add to it or change its attributes. The lists are those Windows gives its
// drive's root and folders, and a folder made in a drive's root.
TEST_F(AgentFoldersTest, AStepIsSoundOnlyWhenOwnedAndListedSoNoUserCanReplaceIt) {
  const std::wstring own = L"S-1-5-21-1-2-3-500";
  const std::wstring user = L"S-1-5-21-1-2-3-1001";
  const std::wstring ti = L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";
  const StepFacts way;
  const StepFacts root{true, false, true};
  const StepFacts last{false, true, true};
  const StepFacts aboutToBeSet{false, true, false};
  const std::wstring madeInRoot = L"O:BAD:(A;OICI;FA;;;BA)(A;OICI;FA;;;SY)(A;OICI;0x1200a9;;;BU)(A;OICI;0x1301bf;;;AU)";
  const struct { std::wstring sddl; StepFacts facts; bool sound; } cases[] = {
      {L"O:" + ti + L"D:(A;OICI;FA;;;BA)(A;OICI;FA;;;SY)(A;OICI;0x1200a9;;;BU)(A;;0x4;;;AU)(A;OICIIO;GA;;;AU)", root,
       true},                                      // C:\: users may only add folders
      {L"O:BAD:(A;OICI;FA;;;WD)", root, false},    // a data drive open to everyone
      {madeInRoot, root, true},                    // a formatted drive's root: deleting the root itself is moot
      {madeInRoot, way, false},                    // but a folder made in it may be renamed by any user
      {madeInRoot, aboutToBeSet, true},            // unless the agent is about to set its list
      {L"O:" + ti + L"D:(A;;FA;;;" + ti + L")(A;OICIIO;GA;;;" + ti +
           L")(A;;0x1301bf;;;SY)(A;;0x1301bf;;;BA)(A;;0x1200a9;;;BU)(A;OICIIO;GA;;;CO)(A;OICI;0x1200a9;;;AC)",
       way, true},                                                                      // Program Files
      {L"O:SYD:(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)(A;CI;0x116;;;BU)", way, true},   // ProgramData
      {L"O:SYD:(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)(A;CI;0x116;;;BU)", last, false},  // users add
      {L"O:BAD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)", last, true},  // the agent's own list
      {L"O:BAD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)(A;;0x100;;;BU)", last, false},  // attributes
      {L"O:" + user + L"D:(A;OICI;FA;;;SY)", way, false},  // a user made it
      {L"O:" + user + L"D:(A;OICI;FA;;;SY)", aboutToBeSet, false},
      {L"O:" + own + L"D:(A;OICI;FA;;;" + own + L")(A;OICI;0x1200a9;;;WD)", last, true},
      {L"O:BAD:(A;;0x40;;;BU)", way, false},         // users may delete what it holds
      {L"O:BAD:(A;;0x40000;;;WD)", root, false},     // anyone may change its list
      {L"O:BAD:(A;OICIIO;GA;;;BU)(D;;FA;;;BU)(A;;FA;;;OW)", last, true},
      {L"O:BA", way, false},                         // no list: anyone may do anything
  };
  PSID account = nullptr;
  ASSERT_TRUE(ConvertStringSidToSidW(own.c_str(), &account));
  const win::UniqueLocalMemory ownedAccount(account);
  for (const auto& c : cases) {
    SCOPED_TRACE(win::WideToUtf8(c.sddl) + (c.facts.root ? " root" : c.facts.last ? " last" : " way"));
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(c.sddl.c_str(), SDDL_REVISION_1, &descriptor,
                                                                     nullptr));
    const win::UniqueLocalMemory ownedDescriptor(descriptor);
    EXPECT_EQ(StepIsKeptFromUsers(descriptor, account, c.facts), c.sound);
  }
}

// A full local folder gets the list, and its logs and data subfolders the list without Users; any
// other folder, or a file in a subfolder's place, a line. Only an unreadable folder or a file in a
// subfolder's place fails the step.
TEST_F(AgentFoldersTest, EachFolderGetsTheListOrALineSaysWhyNot) {
  const std::string folder = dir_.NarrowPath() + "\\agent";
  const std::string other = dir_.NarrowPath() + "\\other";
  const std::string missing = dir_.NarrowPath() + "\\missing";
  const std::string linked = dir_.NarrowPath() + "\\linked";
  for (const std::string& made : {folder, folder + "\\logs", folder + "\\data", folder + "\\bin", other}) {
    ASSERT_TRUE(CreateDirectoryW(win::AnsiToWide(made).c_str(), nullptr));
  }
  // Named by its 8.3 name, which differs from the name Windows gives the open folder only in its text.
  const std::string longNamed = dir_.NarrowPath() + "\\a folder with a long name";
  ASSERT_TRUE(CreateDirectoryW(win::AnsiToWide(longNamed).c_str(), nullptr));
  char shortName[MAX_PATH] = {};
  ASSERT_GT(GetShortPathNameA(longNamed.c_str(), shortName, MAX_PATH), 0u);
  ASSERT_STRNE(shortName, longNamed.c_str());
  const FolderLink link(win::AnsiToWide(linked), win::AnsiToWide(other));
  ASSERT_TRUE(link.made());
  WriteFileBytes(win::AnsiToWide(other + "\\logs"), "");  // a file where the logs folder would be
  ASSERT_TRUE(FileExists(win::AnsiToWide(other + "\\logs")));
  // A damaged value naming a folder of Windows: its list would replace the one everything else relies on.
  char windows[MAX_PATH] = {};
  char programData[MAX_PATH] = {};
  ASSERT_GT(GetSystemWindowsDirectoryA(windows, MAX_PATH), 0u);
  ASSERT_GT(GetEnvironmentVariableA("ProgramData", programData, MAX_PATH), 0u);
  const std::string notFull = "is not a full local folder";
  const std::string windowsOwn = "is a folder of Windows itself, or lies above one";
  const struct { const char* name; std::optional<std::string> base; std::string install; bool succeeded;
                 std::vector<LogLine> lines; } cases[] = {
      {"both full", folder + "\\", folder + "\\bin", true,
       {Applied("BasePath [" + folder + "\\]"), Applied("[" + folder + "\\logs]", kNoUsers),
        Applied("[" + folder + "\\data]", kNoUsers), Applied("AgentInstallDir [" + folder + "\\bin]")}},
      {"named by its 8.3 name", std::string(shortName), "C:\\", true,
       {Applied("BasePath [" + std::string(shortName) + "]"), LeftAlone("AgentInstallDir [C:\\]", notFull)}},
      // A folder inside the other's logs keeps their list, or each start would swap the two.
      {"one inside the other's logs", folder + "\\", folder + "\\logs\\", true,
       {Applied("BasePath [" + folder + "\\]"), Applied("[" + folder + "\\logs]", kNoUsers),
        Applied("AgentInstallDir [" + folder + "\\logs\\]", kNoUsers)}},
      {"a file in the logs folder's place", other, "C:\\", false,
       {Applied("BasePath [" + other + "]"), LeftAlone("[" + other + "\\logs]", kNotAFolder),
        LeftAlone("AgentInstallDir [C:\\]", notFull)}},
      // The list would land on what the link leads to, and the user could re-point it afterwards.
      {"a link in BasePath's place", linked + "\\", "C:\\", false,
       {LeftAlone("BasePath [" + linked + "\\]", "is reached through [" + linked + "], a link or folder that users "
                  "may change or replace, or that cannot be checked"),
        LeftAlone("AgentInstallDir [C:\\]", notFull), kNoneApplied}},
      {"Windows' own", std::string(windows) + "\\Temp", programData, true,
       {LeftAlone("BasePath [" + std::string(windows) + "\\Temp]", windowsOwn),
        LeftAlone("AgentInstallDir [" + std::string(programData) + "]", windowsOwn), kNoneApplied}},
      // Spelt so that its text differs: a doubled separator.
      {"Windows' own, spelt otherwise", std::string(programData).insert(2, "\\"), "C:\\", true,
       {LeftAlone("BasePath [" + std::string(programData).insert(2, "\\") + "]", windowsOwn),
        LeftAlone("AgentInstallDir [C:\\]", notFull)}},
      {"none usable", std::nullopt, "C:\\", true,
       {LeftAlone("BasePath []", notFull), LeftAlone("AgentInstallDir [C:\\]", notFull)}},
      {"missing and relative", missing, "agent\\bin", false,
       {{kSecure, "Reading the access rules of the agent folder BasePath [" + missing +
                      "] failed due to the following error."},
        {"printErrorMsgForID", "Error ID      :", LogLine::kPrefix}, LeftAlone("AgentInstallDir [agent\\bin]", notFull),
        kNoneApplied}},
  };
  // A user who holds the folder open sharing nothing keeps it from no start's list.
  const win::UniqueFileHandle held(CreateFileW(win::AnsiToWide(folder).c_str(), FILE_LIST_DIRECTORY, 0, nullptr,
                                               OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  ASSERT_TRUE(held);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CleanAgentRegistry();
    ASSERT_TRUE(!c.base || writeValue(kAgentKey, "BasePath", REG_SZ, *c.base) == 0);
    AgentInstallDirGlobal = c.install;
    bool succeeded = !c.succeeded;
    const std::string log = LoggedBy([&] { succeeded = SecureAgentFolders(); });
    EXPECT_EQ(succeeded, c.succeeded) << log;
    EXPECT_LOG_ORDER(log, c.lines);
  }
}

// A user who may rename an agent folder (one made in a drive's root) can swap it, or its logs
// folder, for a link after it was judged by name and before its list is set. The list is judged
// and set through the handle opened then: the swap is refused, and what the link leads to is never
// given the list.
TEST_F(AgentFoldersTest, AFolderSwappedForALinkJustBeforeItsListIsSetIsLeftAlone) {
  const std::wstring folder = dir_.File(L"agent");
  const std::wstring target = dir_.File(L"target");
  for (const std::wstring& made : {folder, folder + L"\\logs", target}) {
    ASSERT_TRUE(CreateDirectoryW(made.c_str(), nullptr));
  }
  const std::string agent = win::WideToAnsi(folder);
  const struct { const wchar_t* swapped; std::string named; } cases[] = {
      {L"", "BasePath [" + agent + "]"},
      {L"\\logs", "[" + agent + "\\logs]"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.named);
    const std::wstring swapped = folder + c.swapped;
    const std::wstring away = dir_.File(L"away");
    std::optional<FolderLink> link;
    SetBeforeAgentFolderOpensForTest([&](const std::wstring& path) {
      if (path != swapped || link) return;
      ASSERT_TRUE(MoveFileW(swapped.c_str(), away.c_str()));
      link.emplace(swapped, target);
    });
    FolderAccess access = FolderAccess::kApplied;
    const std::string log = LoggedBy([&] { access = SecureAgentFolder("BasePath", agent); });
    SetBeforeAgentFolderOpensForTest({});
    ASSERT_TRUE(link && link->made());
    EXPECT_EQ(access, FolderAccess::kFailed);
    EXPECT_LOG_LINES(log, {LeftAlone(c.named, kNotAFolder),
                           {kSecure, "Access rules of the agent folder " + c.named, LogLine::kAbsent}});
    link.reset();
    ASSERT_TRUE(MoveFileW(away.c_str(), swapped.c_str()));
  }
}

// The log's folders that are missing are made one at a time, each right after a judge, and judged again: one a
// user made first in their place, in the moment before the agent's own make, is judged as what it is (here a
// link), and one removed again after it was made is not taken for the agent's; the log then goes elsewhere.
TEST_F(AgentFoldersTest, TheLogsMissingFoldersAreMadeBeforeTheyAreJudged) {
  const std::wstring base = dir_.File(L"base");
  const std::string ownLog = win::WideToAnsi(base) + "\\logs\\korva_agentservice.log";
  const TempDir elsewhere;
  ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, win::WideToAnsi(base)), 0);
  enum class Race { kNone, kLink, kRemoveBase };
  const std::vector<std::wstring> both = {base, base + L"\\logs"};
  // Nothing is made through a link in BasePath's place: it is refused first.
  const struct { Race race; std::wstring at; std::vector<std::wstring> made; } cases[] = {
      {Race::kNone, {}, both}, {Race::kLink, base, {base}}, {Race::kLink, both[1], both}, {Race::kRemoveBase, both[1], both}};
  for (const auto& c : cases) {
    SCOPED_TRACE(win::WideToAnsi(c.at) + " " + std::to_string(static_cast<int>(c.race)));
    ForgetSoundStepsForTest();  // the last row's folders, found sound, are gone
    std::optional<FolderLink> link;
    std::vector<std::wstring> made;
    SetBeforeLogFolderMadeForTest([&](const std::wstring& path) {
      if (path.rfind(base, 0) == 0) made.push_back(path);  // not the executable's, should it lack its own
      if (path != c.at) return;
      if (c.race == Race::kLink) link.emplace(path, elsewhere.path());
      if (c.race == Race::kRemoveBase) {
        EXPECT_TRUE(RemoveDirectoryW(base.c_str()));
      }
    });
    AgentFolder judged;
    const std::string path = ChooseServiceLogPath(judged);
    SetBeforeLogFolderMadeForTest({});
    EXPECT_EQ(made, c.made);
    EXPECT_EQ(path == ownLog, c.race == Race::kNone) << path;
    EXPECT_EQ(Usable(judged), c.race == Race::kNone);
    link.reset();
    for (const std::wstring& folder : {both[1], base}) (void)RemoveDirectoryW(folder.c_str());
  }
}

// Writes as a full disk does: the log's file stays closed, its records held, and nothing reaches any file.
BOOL WINAPI WriteNothing(HANDLE /*file*/, LPCVOID /*data*/, DWORD /*size*/, LPDWORD written, LPOVERLAPPED /*overlapped*/) {
  *written = 0;
  SetLastError(ERROR_DISK_FULL);
  return FALSE;
}

// The log's opens long after the start-up judge its folders again: removed by an administrator while the file
// was closed, they are made again each right after a judge, and one a user made first in BasePath's place (here
// a link) takes no record through it.
TEST_F(AgentFoldersTest, TheLogsLaterOpensJudgeItsFoldersAgain) {
  struct Restore {
    ~Restore() {
      log::SetLogFileWriterForTest(nullptr);
      log::ShutdownServiceLogger();
      log::SetServiceLogFolderCheck(nullptr);
      SetBeforeLogFolderMadeForTest({});
    }
  } restore;
  for (const bool userFirst : {false, true}) {
    SCOPED_TRACE(userFirst ? "a link made first" : "made again");
    const std::wstring base = dir_.File(userFirst ? L"linked" : L"removed");
    const std::wstring log = base + L"\\logs\\korva_agentservice.log";
    const std::wstring away = base + L".away";
    const TempDir elsewhere;
    ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, win::WideToAnsi(base)), 0);
    log::SetLogFileWriterForTest(&WriteNothing);
    ASSERT_EQ(OpenServiceLog(), win::WideToAnsi(log));
    std::optional<FolderLink> link;
    std::vector<std::wstring> made;
    SetBeforeLogFolderMadeForTest([&](const std::wstring& path) {
      made.push_back(path);
      if (userFirst && path == base && !link) link.emplace(base, elsewhere.path());
    });
    // Moved away whole while the file is closed; the log's retries take no record meanwhile.
    EXPECT_TRUE(WaitUntil([&] { return MoveFileW(base.c_str(), away.c_str()) != FALSE; }, 5000));
    log::SetLogFileWriterForTest(nullptr);
    EXPECT_EQ(log::FlushServiceLogger(userFirst ? 1500 : 10000), !userFirst);
    log::ShutdownServiceLogger();
    SetBeforeLogFolderMadeForTest({});
    const std::vector<std::wstring> expected =
        userFirst ? std::vector<std::wstring>{base} : std::vector<std::wstring>{base, base + L"\\logs"};
    EXPECT_EQ(made, expected);
    EXPECT_EQ(ReadFileBytes(away + L"\\logs\\korva_agentservice.log"), "");
    EXPECT_EQ(GetFileAttributesW((elsewhere.path() + L"\\logs").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(CountOf(ReadFileBytes(log), "] [ main ] Log Opened.\r\n"), userFirst ? 0u : 1u);
  }
}

// A folder found sound and then swapped for a link is refused at the next walk, however soon after:
// whether a step is there and no link is read anew each time; only its security's verdict is kept.
TEST_F(AgentFoldersTest, AStepSwappedForALinkIsRefusedAtTheNextWalk) {
  const std::wstring folder = dir_.File(L"agent");
  const TempDir elsewhere;
  ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
  EXPECT_EQ(FirstUnsafeStep(std::wstring_view(folder)), L"");
  ASSERT_TRUE(MoveFileW(folder.c_str(), dir_.File(L"away").c_str()));
  const FolderLink link(folder, elsewhere.path(), false);
  ASSERT_TRUE(link.made());
  EXPECT_EQ(FirstUnsafeStep(std::wstring_view(folder)), folder);
}

// A verdict is kept for the folder judged only: one moved away (to the recycle bin, say) and another made under its
// name is judged anew at the next walk, however soon after, while the same folder is not read again.
TEST_F(AgentFoldersTest, AVerdictIsKeptForTheFolderJudgedNotForItsName) {
  const std::wstring folder = dir_.File(L"agent");
  ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
  EXPECT_EQ(FirstUnsafeStep(std::wstring_view(folder)), L"");
  const std::size_t reads = StepSecurityReadsForTest();
  EXPECT_EQ(FirstUnsafeStep(std::wstring_view(folder)), L"");
  EXPECT_EQ(StepSecurityReadsForTest(), reads);
  ASSERT_TRUE(MoveFileW(folder.c_str(), dir_.File(L"away").c_str()));
  ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
  EXPECT_EQ(FirstUnsafeStep(std::wstring_view(folder)), L"");
  EXPECT_EQ(StepSecurityReadsForTest(), reads + 1);
}

}  // namespace
}  // namespace korva::test
