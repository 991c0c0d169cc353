// The process's one WMI connection against Wine's real WMI: "root\cimv2" answers a query, and the
// volume-encryption namespace, which Wine lacks, fails as it does on a machine without it.
#include <windows.h>
#include <wbemidl.h>

#include <gtest/gtest.h>

#include "encryption/wmi_core.h"
#include "support/test_support.h"

namespace korva::test {
namespace {

constexpr HRESULT kInvalidNamespace = static_cast<HRESULT>(0x8004100EUL);
constexpr long kForwardOnly = WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY;

// The text of `property` of the first object `query` returns; empty when there is none.
std::wstring FirstText(CWMI_Core& wmi, const wchar_t* query, const wchar_t* property) {
  win::ComPtr<IEnumWbemClassObject> objects;
  if (FAILED(wmi.ExecuteQuery(L"WQL", query, kForwardOnly, objects.put()))) return L"";
  win::ComPtr<IWbemClassObject> object;
  ULONG returned = 0;
  if (objects->Next(10000, 1, object.put(), &returned) != WBEM_S_NO_ERROR || returned != 1) return L"";
  VARIANT value;
  VariantInit(&value);
  std::wstring text;
  if (SUCCEEDED(object->Get(property, 0, &value, nullptr, nullptr)) && value.vt == VT_BSTR) text = value.bstrVal;
  VariantClear(&value);
  return text;
}

TEST(WmiCore, OneConnectionBoundToItsFirstNamespaceAnswersQueries) {
  const win::ComInitialization com(COINIT_MULTITHREADED);
  LogCapture log;
  CWMI_Core* wmi = CWMI_Core::GetWMIInstance(L"root\\cimv2");
  ASSERT_NE(wmi, nullptr);
  EXPECT_EQ(WmiFirstConnectionResult(), S_OK);
  EXPECT_EQ(CWMI_Core::GetWMIInstance(L"root\\default"), wmi);
  EXPECT_EQ(wmi->NameSpace(), L"root\\cimv2");
  EXPECT_NE(FirstText(*wmi, L"SELECT Caption FROM Win32_OperatingSystem", L"Caption"), L"");

  // The namespace of the volume-encryption provider is missing here: the connection fails with
  // its code, logged, and the instance is unconnected until it connects again.
  EXPECT_EQ(wmi->ConnectServer(L"root\\cimv2\\Security\\MicrosoftVolumeEncryption"), kInvalidNamespace);
  EXPECT_FALSE(wmi->IsConnected());
  IEnumWbemClassObject* none = nullptr;
  EXPECT_TRUE(FAILED(wmi->ExecuteQuery(L"WQL", L"SELECT * FROM Win32_EncryptableVolume", kForwardOnly, &none)));
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(wmi->ConnectServer(L"root\\cimv2"), S_OK);
  EXPECT_LOG_LINES(log.Text(), {{"CWMI_Core::ConnectServer", "Init :1"},
                                {"CWMI_Core::ConnectServer", "ConnectServer Failed with errorcode -0x8004100E"},
                                {"CWMI_Core::ExecuteQuery", "ExecuteQuery : errorcode :0x80041009", LogLine::kPrefix},
                                {"CWMI_Core::ConnectServer", "Connect server Ended."}},
                   true);
}

}  // namespace
}  // namespace korva::test
