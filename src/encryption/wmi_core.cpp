// The process's one WMI connection.
#include "encryption/wmi_core.h"

#include <atomic>
#include <cstdio>

#include "settings/error_text.h"
#include "settings/log.h"
#include "win/unique_handle.h"

namespace {

// WBEM_E_NOT_AVAILABLE as an HRESULT (the enumeration's value does not fit a signed long).
constexpr HRESULT kNotAvailable = static_cast<HRESULT>(0x80041009UL);

// Published once connected (or once the connection failed): a thread never sees it half made.
std::atomic<CWMI_Core*> g_instance{nullptr};
// Set by the thread that makes it.
std::atomic<bool> g_making{false};
std::atomic<HRESULT> g_firstConnection{S_FALSE};
std::atomic<bool> g_securityInitialised{false};

// The blanket both the namespace and every enumerator get.
[[nodiscard]] HRESULT SetBlanket(IUnknown* proxy) {
  return CoSetProxyBlanket(proxy, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr, RPC_C_AUTHN_LEVEL_PKT,
                           RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE);
}

}  // namespace

CWMI_Core* CWMI_Core::GetWMIInstance(const std::wstring& nameSpace) {
  return korva::log::ScopedGuarded(
      "CWMI_Core::GetWMIInstance", g_instance.load(),
      [&]() -> CWMI_Core* {
        if (CWMI_Core* made = g_instance.load(std::memory_order_acquire); made != nullptr) return made;
        // Another thread is connecting (the connection has no time limit): no instance yet.
        if (g_making.exchange(true)) return nullptr;
        auto* made = new CWMI_Core();
        const HRESULT connected = made->ConnectServer(nameSpace);
        g_firstConnection.store(connected);
        if (SUCCEEDED(connected)) made->nameSpace_ = nameSpace;
        g_instance.store(made, std::memory_order_release);
        return made;
      },
      "Exception Caught.");
}

int CWMI_Core::Init() {
  return korva::log::ScopedGuarded("CWMI_Core::Init", 0, [&] {
    constexpr const char* kName = "CWMI_Core::Init";
    if (!g_securityInitialised.load()) {
      const HRESULT security = CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_NONE,
                                                    RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
      if (FAILED(security)) {
        KLOG_ERROR_AS(kName) << "Failed in CoInitializeSecurity.";
        DisplayErrorInfo(static_cast<DWORD>(security));
        return 0;
      }
      g_securityInitialised.store(true);
    }
    locator_.reset();
    const HRESULT created = CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER | CLSCTX_LOCAL_SERVER,
                                             IID_IWbemLocator, reinterpret_cast<void**>(locator_.put()));
    if (FAILED(created)) {
      KLOG_ERROR_AS(kName) << "Failed in CoCreateInstance.";
      DisplayErrorInfo(static_cast<DWORD>(created));
      return 0;
    }
    return 1;
  });
}

HRESULT CWMI_Core::ConnectServer(const std::wstring& nameSpace) {
  return korva::log::ScopedGuarded("CWMI_Core::ConnectServer", E_UNEXPECTED, [&]() -> HRESULT {
    constexpr const char* kName = "CWMI_Core::ConnectServer";
    const int initialised = Init();
    KLOG_INFO_AS(kName) << "Init :" << initialised;
    if (initialised != 1) return E_FAIL;
    KLOG_INFO_AS(kName) << "Connect server initiated.";
    services_.reset();
    const korva::win::UniqueBstr name(SysAllocString(nameSpace.c_str()));
    const korva::win::UniqueBstr locale(SysAllocString(L"MS_409"));
    const HRESULT connected =
        locator_->ConnectServer(name.get(), nullptr, nullptr, locale.get(), 0, nullptr, nullptr, services_.put());
    if (FAILED(connected)) {
      KLOG_ERROR_AS(kName) << "ConnectServer Failed with errorcode -" << HresultText(connected);
    } else if (const HRESULT blanket = SetBlanket(services_.get()); FAILED(blanket)) {
      KLOG_ERROR_AS(kName) << "CoSetProxyBlanket Failed with errorcode :" << HresultText(blanket);
    }
    KLOG_INFO_AS(kName) << "Connect server Ended.";
    return connected;
  });
}

HRESULT CWMI_Core::ExecuteQuery(const wchar_t* queryLanguage, const wchar_t* query, long flags,
                                IEnumWbemClassObject** result) {
  return korva::log::ScopedGuarded("CWMI_Core::ExecuteQuery", E_UNEXPECTED, [&]() -> HRESULT {
    constexpr const char* kName = "CWMI_Core::ExecuteQuery";
    if (!services_) {
      KLOG_ERROR_AS(kName) << "ExecuteQuery : errorcode :" << HresultText(kNotAvailable) << " (not connected)";
      return kNotAvailable;
    }
    const std::lock_guard<std::mutex> lock(queryLock_);
    KLOG_DEBUG_AS(kName) << "Entered critical.";
    korva::win::ComPtr<IEnumWbemClassObject> enumerator;
    const korva::win::UniqueBstr language(SysAllocString(queryLanguage));
    const korva::win::UniqueBstr text(SysAllocString(query));
    const HRESULT executed = services_->ExecQuery(language.get(), text.get(), flags, nullptr, enumerator.put());
    KLOG_DEBUG_AS(kName) << "Executed query.";
    if (FAILED(executed)) {
      KLOG_ERROR_AS(kName) << "ExecuteQuery : errorcode :" << HresultText(executed);
      return executed;
    }
    KLOG_DEBUG_AS(kName) << "ExecQuery success.";
    KLOG_DEBUG_AS(kName) << "in CoSetProxyBlanket.";
    const HRESULT blanket = SetBlanket(enumerator.get());
    if (FAILED(blanket)) {
      DisplayErrorInfo(static_cast<DWORD>(blanket));
      return blanket;
    }
    KLOG_DEBUG_AS(kName) << "CoSetProxyBlanket success.";
    *result = enumerator.detach();
    return executed;
  });
}

std::string HresultText(HRESULT code) {
  char text[16];  // "0x" and eight digits always fit
  static_cast<void>(std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(code)));
  return text;
}

HRESULT WmiFirstConnectionResult() { return g_firstConnection.load(); }
