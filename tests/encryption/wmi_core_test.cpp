// The process's one WMI connection against Wine's real WMI, which lacks the volume-encryption namespace.
#include <windows.h>
#include <wbemidl.h>

#include <gtest/gtest.h>

#include "encryption/wmi_core.h"
#include "support/test_support.h"

namespace korva::test {
namespace {

constexpr HRESULT kInvalidNamespace = static_cast<HRESULT>(0x8004100EUL);
constexpr long kForwardOnly = WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY;

TEST(WmiCore, OneConnectionBoundToItsFirstNamespaceAnswersQueries) {
  const win::ComInitialization com(COINIT_MULTITHREADED);
  LogCapture log;
  CWMI_Core* wmi = CWMI_Core::GetWMIInstance(L"root\\cimv2");
  ASSERT_NE(wmi, nullptr);
  EXPECT_EQ(WmiFirstConnectionResult(), S_OK);
  EXPECT_EQ(CWMI_Core::GetWMIInstance(L"root\\default"), wmi);
  EXPECT_EQ(wmi->NameSpace(), L"root\\cimv2");
  win::ComPtr<IEnumWbemClassObject> objects;
  ASSERT_TRUE(SUCCEEDED(wmi->ExecuteQuery(L"WQL", L"SELECT Caption FROM Win32_OperatingSystem", kForwardOnly,
                                          objects.put())));
  win::ComPtr<IWbemClassObject> object;
  ULONG returned = 0;
  EXPECT_EQ(objects->Next(10000, 1, object.put(), &returned), WBEM_S_NO_ERROR);

  // The namespace of the volume-encryption provider is missing here: the connection fails with
  // its code, logged, and the instance is unconnected until it connects again.
  EXPECT_EQ(wmi->ConnectServer(L"root\\cimv2\\Security\\MicrosoftVolumeEncryption"), kInvalidNamespace);
  EXPECT_FALSE(wmi->IsConnected());
  IEnumWbemClassObject* none = nullptr;
  EXPECT_TRUE(FAILED(wmi->ExecuteQuery(L"WQL", L"SELECT * FROM Win32_EncryptableVolume", kForwardOnly, &none)));
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(wmi->ConnectServer(L"root\\cimv2"), S_OK);
  EXPECT_LOG_ORDER(log.Text(), {{"CWMI_Core::ConnectServer", "Init :1"},
                                {"CWMI_Core::ConnectServer", "ConnectServer Failed with errorcode -0x8004100E"},
                                {"CWMI_Core::ExecuteQuery", "ExecuteQuery : errorcode :0x80041009", LogLine::kPrefix},
                                {"CWMI_Core::ConnectServer", "Connect server Ended."}});
}

}  // namespace
}  // namespace korva::test
