// The process's one WMI connection: COM security, the locator, one namespace, and serialised
// queries.
#pragma once

#include <windows.h>
#include <wbemidl.h>

#include <mutex>
#include <string>

#include "win/com_ptr.h"

class CWMI_Core {
 public:
  // The single instance, created and connected to `nameSpace` on the first call; later calls get
  // the same instance whatever namespace they name (deliberately bound to the first call's). A
  // failed first connection leaves the instance unconnected, and it is not tried again. While the
  // first call is still connecting, calls from other threads get nullptr.
  static CWMI_Core* GetWMIInstance(const std::wstring& nameSpace);
  // COM security (once per process) and a fresh locator. 1 on success.
  [[nodiscard]] int Init();
  // Connects to `nameSpace` through a fresh locator; the HRESULT of the connection.
  [[nodiscard]] HRESULT ConnectServer(const std::wstring& nameSpace);
  // Runs `query`; on success `*result` holds an enumerator with its proxy blanket set. Queries from
  // different threads take turns. The call has no time limit of its own: one cancelled from another
  // thread (CoCancelCall, on a thread that enabled it) returns RPC_E_CALL_CANCELED.
  [[nodiscard]] HRESULT ExecuteQuery(const wchar_t* queryLanguage, const wchar_t* query, long flags,
                                     IEnumWbemClassObject** result);

  [[nodiscard]] bool IsConnected() const noexcept { return static_cast<bool>(services_); }
  [[nodiscard]] const std::wstring& NameSpace() const noexcept { return nameSpace_; }

  CWMI_Core(const CWMI_Core&) = delete;
  CWMI_Core& operator=(const CWMI_Core&) = delete;

 private:
  CWMI_Core() = default;
  ~CWMI_Core() = default;  // never destroyed: it lives as long as the process

  korva::win::ComPtr<IWbemLocator> locator_;
  korva::win::ComPtr<IWbemServices> services_;
  std::wstring nameSpace_;
  std::mutex queryLock_;
};

// "0x8004100E": an HRESULT as the log shows it.
std::string HresultText(HRESULT code);

// The HRESULT of the instance's first connection (S_FALSE until it is made).
[[nodiscard]] HRESULT WmiFirstConnectionResult();
