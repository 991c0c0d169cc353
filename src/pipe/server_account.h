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

// The account of the server process `processId` (`process` is its handle), judged: LocalSystem or
// a service. A token that cannot be read is refused.
TrustVerdict VerifyServerAccount(HANDLE process, unsigned long processId);

// The owner of the pipe behind `pipe` (a client end opened with read access), judged: SYSTEM,
// Administrators or a service. An owner that cannot be read is refused.
TrustVerdict VerifyPipeOwner(HANDLE pipe);

// Test seam: where the account of a server process comes from instead of its token (empty: the
// token). Wine gives every process the same interactive account, so a service's token cannot be
// made there. Set it while no pipe client runs.
using AccountSource = std::function<AccountReading(unsigned long processId)>;
void SetServerAccountSourceForTest(AccountSource source);

}  // namespace korva::pipe
