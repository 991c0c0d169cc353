// The agent's registry keys, value names and codes that more than one subsystem uses. Each text is
// written once; the wide form is made from the same literal. Keys are under HKEY_LOCAL_MACHINE in
// the agent's registry view (see win/bitness.h) unless said otherwise.
#pragma once

#define KORVA_AGENT_KEY_TEXT "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent"
#define KORVA_WIDE_TEXT(text) L"" text

namespace korva {

inline constexpr char kAgentRegistryKey[] = KORVA_AGENT_KEY_TEXT;
inline constexpr wchar_t kAgentRegistryKeyW[] = KORVA_WIDE_TEXT(KORVA_AGENT_KEY_TEXT);
inline constexpr char kAgentSettingsKey[] = KORVA_AGENT_KEY_TEXT "\\Settings";
inline constexpr char kAgentServerInfoKey[] = KORVA_AGENT_KEY_TEXT "\\ServerInfo";
inline constexpr char kAgentConfigScheduleKey[] = KORVA_AGENT_KEY_TEXT "\\CollectionHistory\\ConfigSchedule";
inline constexpr char kAgentMetadataVersionsKey[] = KORVA_AGENT_KEY_TEXT "\\MetadataVersions";
inline constexpr char kAgentSystemDetailsKey[] = KORVA_AGENT_KEY_TEXT "\\SystemDetails";
inline constexpr char kAgentIfModifiedSinceKey[] = KORVA_AGENT_KEY_TEXT "\\IfModifiedSince";
// The device-control and file-audit policy settings the console writes; watched for changes.
inline constexpr char kQvmSettingsKey[] = KORVA_AGENT_KEY_TEXT "\\QVM\\Settings";
// One subkey per temporary-access grant, named by its id, holding its validity period.
inline constexpr char kTemporaryAccessKey[] = KORVA_AGENT_KEY_TEXT "\\QVM\\TemporaryAccess";
// Lock, retry count and unhandled-failure mark shared with the on-demand program.
inline constexpr char kLockStateKey[] = KORVA_AGENT_KEY_TEXT "\\LockState";
inline constexpr wchar_t kLockStateKeyW[] = KORVA_WIDE_TEXT(KORVA_AGENT_KEY_TEXT "\\LockState");
// Shutdown times and forced-shutdown marks; also under each user hive of HKEY_USERS, at
// kUserPowerEventsPath below the hive's name.
inline constexpr char kPowerEventsKey[] = KORVA_AGENT_KEY_TEXT "\\PowerEvents";
inline constexpr wchar_t kPowerEventsKeyW[] = KORVA_WIDE_TEXT(KORVA_AGENT_KEY_TEXT "\\PowerEvents");
inline constexpr wchar_t kUserPowerEventsPath[] = L"\\Software\\Kestrelix\\Tallowmere\\KorvaAgent\\PowerEvents";
// Deliberately the one path that names Wow6432Node itself (the installer writes the log level from
// the 64-bit side); it is opened without a view flag, so on 32-bit Windows it is never found and
// the default level stands.
inline constexpr char kLogLevelKey[] = "SOFTWARE\\Wow6432Node\\Kestrelix\\Tallowmere\\KorvaAgent\\LogLevel";

// Value names.
inline constexpr wchar_t kLastBootUpTimeValue[] = L"LastBootUpTime";          // agent key, REG_QWORD
inline constexpr wchar_t kLastShutdownTimeValue[] = L"LastShutdownTime";      // power events, REG_QWORD
inline constexpr wchar_t kForcedShutdownValue[] = L"ForcedShutdown";          // power events, REG_DWORD 1
inline constexpr wchar_t kForcedShutdownTimeValue[] = L"ForcedShutdownTime";  // power events, REG_QWORD
inline constexpr char kFilterNeededValue[] = "isQVFANeeded";                  // QVM settings, "1" or "0"

// What a routine that caught an exception returns (ERROR_UNHANDLED_EXCEPTION; mingw's headers lack it).
inline constexpr long kUnhandledException = 574;
// The range of user-defined service control codes.
inline constexpr unsigned long kFirstUserControl = 128;
inline constexpr unsigned long kLastUserControl = 255;
// The device action that restores the devices blocked while they were unplugged.
inline constexpr int kRestoreActionCode = 12;

}  // namespace korva

#undef KORVA_WIDE_TEXT
#undef KORVA_AGENT_KEY_TEXT
