// Orderly shutdowns, boot times and forced shutdowns, in the registry and a history file.
//
// Every time is a count of whole seconds since 1970-01-01 00:00:00 UTC, stored as a REG_QWORD:
// the boot time, the shutdown and service-stop times and the forced-shutdown time can therefore
// be compared directly. The history file is "<BasePath>\data\powerhistory.log" (the installation
// folder stands in for a BasePath that is not usable), one CR LF line per event:
//   "<YYYY-MM-DD hh:mm:ss> UTC<TAB><Shutdown|ServiceStop|ForcedShutdown><TAB><seconds>"
// A line the file does not take (another program holds it past a few short retries, or its path is
// refused) is kept and written before the next one, or by FlushPowerHistory at the end. No routine
// throws; every failure is logged.
#pragma once

#include <windows.h>

#include <functional>

#include "settings/core/agent_constants.h"

namespace korva {
// Seconds since 1970-01-01 00:00:00 UTC now (from GetSystemTimeAsFileTime; no time zone, no
// daylight saving), the unit of every power time.
LONGLONG CurrentTimeInSeconds();
// Gives the history lines still held (the file was held past the retries, or refused) a last try
// before the process ends; how many are lost is logged. True when none is held any more.
bool FlushPowerHistory() noexcept;
// Makes the process a new run again, for tests: no end recorded, no history line held.
void ResetOrderlyEndForTest();
// Where a test acts, as another program or a user would, between the steps of a history write,
// which it cannot time: after the first walk of the file's path (before its data folder is made),
// and after each try that finds the file held. An empty `step` runs nothing.
enum class PowerHistoryStep { kPathWalked, kFileHeld };
void SetPowerHistoryStepForTest(std::function<void(PowerHistoryStep)> step);
}  // namespace korva

// "LastShutdownTime" holds the orderly end of the last run, and only of that run: each start removes
// it (ForgetPreviousOrderlyEnd) once the forced-shutdown check's inputs are read, first in the
// start-up, and each run records its own end once. So a run that ends without an orderly end (power lost, the process
// killed) leaves none, whatever earlier runs of the same boot recorded, and the next start's check, which compares it
// with the boot time, finds it missing.

// The last recorded orderly end of a run (shutdown or service stop), "LastShutdownTime"; 0 when
// none is recorded or the value cannot be read (missing, not an 8-byte REG_QWORD).
LONGLONG GetShutDownTime();
// Records an orderly shutdown now: "LastShutdownTime" and a "Shutdown" history line, unless this
// run's end is recorded already (then only a line says so).
void UpdatePowerEventStatus();
// Records an orderly service stop that is not a shutdown, the same way ("ServiceStop").
void RecordServiceStopTime();
// Called at every start once the forced-shutdown check's inputs are read, before the start-up's
// long steps: removes "LastShutdownTime", so that only an orderly end of this run can count at the
// next start. An end this run has recorded already (a stop that came first) is kept.
void ForgetPreviousOrderlyEnd();
// Marks the previous run as ended by a forced shutdown: "ForcedShutdown" = 1 and
// "ForcedShutdownTime" = now (the time the forced end was found) in korva::kPowerEventsKey and under each
// loaded user hive of HKEY_USERS, and a "ForcedShutdown" history line.
void WriteForceShutdownEntry();
// "LastBootUpTime" of the agent key as the previous start wrote it; 0 when missing or not an
// 8-byte REG_QWORD.
LONGLONG ReadLastBootUpTime();
// Writes "LastBootUpTime" = now minus uptimeMs (whole seconds) to the agent key. Must run after
// the forced-shutdown check's inputs are read: the check compares the previous run's boot time.
void WriteLastBootUpTime(ULONGLONG uptimeMs);
