// Whether the program behind the pipe runs as a service, read from its process token.
#pragma once

#include <windows.h>

#include <functional>
#include <string>

#include "pipe/core/service_account.h"
#include "pipe/core/trust_verdict.h"

namespace korva::pipe {

// A process's account as its token gives it; `failure` names the call that could not read it.
struct AccountReading {
  ServerAccount account;
  std::string failure;  // empty when read
};

// The user and groups of `process`'s token (the handle needs PROCESS_QUERY_LIMITED_INFORMATION).
AccountReading ReadProcessAccount(HANDLE process);

// The pipe behind `pipe` (a client end opened with read access) and the account of the process
// serving it (`process`, its ID `processId`), judged: the pipe must belong to SYSTEM,
// Administrators or a service and keep everyone else from adding an instance of it, and the
// process must run as LocalSystem or a service. A security or a token that cannot be read is
// refused.
TrustVerdict VerifyPipeAndServerAccount(HANDLE pipe, HANDLE process, unsigned long processId);

// Test seam: where the account of a server process comes from instead of its token (empty: the
// token). Wine gives every process the same interactive account, so a service's token cannot be
// made there. Set it while no pipe client runs.
using AccountSource = std::function<AccountReading(unsigned long processId)>;
void SetServerAccountSourceForTest(AccountSource source);

}  // namespace korva::pipe
