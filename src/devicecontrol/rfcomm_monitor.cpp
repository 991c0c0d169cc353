// RFCOMM monitor: the Bluetooth transport's services as the service control manager reports them.
#include "devicecontrol/rfcomm_monitor.h"

#include <array>
#include <atomic>
#include <optional>
#include <string>

#include "devicecontrol/core/service_watch.h"
#include "devicecontrol/summary_program.h"
#include "settings/log.h"
#include "shared/service_query.h"
#include "shared/service_state.h"
#include "win/strings.h"
#include "win/thread_name.h"
#include "win/thread_stack.h"

namespace {

using korva::devicecontrol::WatchedState;

constexpr const char* kName = "MonitorRFCOMMStatus";
constexpr DWORD kPollMs = 5000;
constexpr std::array<const wchar_t*, 2> kWatched = {L"RFCOMM", L"BthServ"};

std::atomic<DWORD> g_pollMs{kPollMs};

WatchedState Look(const wchar_t* service) {
  DWORD state = 0;
  const DWORD error = QuerySCMServiceStatus(service, &state);
  return korva::devicecontrol::StateOf(error, state);
}

// Looks at each watched service once; true when any of them changed since `last`.
bool LookForChanges(std::array<WatchedState, kWatched.size()>& last) {
  bool changed = false;
  for (std::size_t i = 0; i < kWatched.size(); ++i) {
    const WatchedState now = Look(kWatched[i]);
    const std::optional<std::string> line =
        korva::devicecontrol::ChangeLine(korva::win::WideToAnsi(kWatched[i]), last[i], now);
    if (line) {
      KLOG_INFO_AS(kName) << *line;
      changed = true;
    }
    if (now != WatchedState::kPending) last[i] = now;
  }
  return changed;
}

}  // namespace

DWORD WINAPI MonitorRFCOMMStatus(LPVOID /*parameter*/) {
  korva::win::NameCurrentThread(L"MonitorRFCOMMStatus");
  korva::win::ReleaseUnusedStack();
  korva::log::ScopedGuardedVoid(kName, [] {
    std::array<WatchedState, kWatched.size()> last{};
    for (std::size_t i = 0; i < kWatched.size(); ++i) last[i] = Look(kWatched[i]);
    while (WaitForSingleObject(ServiceStopEvent, g_pollMs.load()) == WAIT_TIMEOUT) {
      if (!LookForChanges(last)) continue;
      ExecuteDeviceEventAction(korva::devicecontrol::kEnumerationEventClass,
                               korva::devicecontrol::kEnumerationEventKind,
                               korva::devicecontrol::kEnumerationInstancePath);
    }
  });
  return 0;
}

void korva::SetRfcommPollMsForTest(DWORD pollMs) { g_pollMs.store(pollMs != 0 ? pollMs : kPollMs); }
