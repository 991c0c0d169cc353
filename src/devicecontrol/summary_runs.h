// The summary programs started for device events, counted. The normal event's summary starts at
// once on its caller's thread, as it always did; past kMaxRunningSummaries places taken, later
// events' summaries wait their turn in the order of their events, and a thread of their own starts
// them as places come free, then ends (devicecontrol/core/device_action_text.h has the bounds).
#pragma once

#include <cstddef>
#include <string>
#include <utility>

namespace korva::devicecontrol {

struct SummaryStart {
  std::string program;
  std::string folder;
  std::string arguments;
  std::string device;  // the instance path it concerns: a full queue drops from the device with most waiting
};

// Starts `start` now, or lets it wait its turn. Each start is followed by the system's own
// "Error code :" line with the launcher's result, at info level whatever the result; a summary
// dropped from a full queue gets an error line and "Error code :170" (ERROR_BUSY).
void StartOrQueueSummary(SummaryStart start);

// The service's stop, or the machine's shutdown: the waiting summaries are not started any more (the
// process ends), each told in an error line with its "Error code :1237" (ERROR_RETRY, as a launch
// the shutdown refuses), and so is each later one that would have to wait. One that finds a place
// free still starts at once.
void DropWaitingSummaries() noexcept;

// Tests: forgets the summary programs counted as running and drops the waiting ones without a line.
void ForgetSummaryRunsForTest();
// Tests: how many places are taken, and how many summaries wait for one.
std::pair<std::size_t, std::size_t> SummaryRunsForTest();

}  // namespace korva::devicecontrol
