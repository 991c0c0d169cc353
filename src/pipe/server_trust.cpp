// Whether the program behind the pipe is the maker's.
#include "pipe/server_trust.h"

#include <windows.h>
#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

#include <atomic>
#include <cstdio>
#include <string>

#include "win/process_image.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace korva::pipe {

namespace {

std::string Code(const char* what, unsigned long code) {
  char text[96];  // a longer name is cut: the text is for the log only
  static_cast<void>(std::snprintf(text, sizeof text, "%s: 0x%08lX", what, code));
  return text;
}

// Closes the verification state WinVerifyTrust keeps for the signer's data.
class TrustState {
 public:
  TrustState(GUID action, WINTRUST_DATA& data) : action_(action), data_(data) {}
  TrustState(const TrustState&) = delete;
  ~TrustState() {
    data_.dwStateAction = WTD_STATEACTION_CLOSE;
    WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &action_, &data_);
  }

 private:
  GUID action_;
  WINTRUST_DATA& data_;
};

std::atomic<HCERTSTORE> g_testRoots{nullptr};

using UniqueCertificate = korva::win::UniqueAny<korva::win::Traits<PCCERT_CONTEXT, &CertFreeCertificateContext>>;
using UniqueChain = korva::win::UniqueAny<korva::win::Traits<PCCERT_CHAIN_CONTEXT, &CertFreeCertificateChain>>;

// True when the chain ends in a root of the test's own trusted roots.
bool EndsInTestRoot(PCCERT_CHAIN_CONTEXT chain, HCERTSTORE testRoots) {
  if (testRoots == nullptr || chain->cChain == 0) return false;
  const CERT_SIMPLE_CHAIN* simple = chain->rgpChain[chain->cChain - 1];
  if (simple->cElement == 0) return false;
  PCCERT_CONTEXT root = simple->rgpElement[simple->cElement - 1]->pCertContext;
  const UniqueCertificate found(
      CertFindCertificateInStore(testRoots, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, root, nullptr));
  return found.valid();
}

// What a chain's revocation check may leave unknown without failing it: the check reads only what
// the machine has cached (a service never waits for the network here), so a list not cached, or
// out of reach, says nothing either way. A certificate found revoked still fails.
constexpr DWORD kRevocationUnknown = CERT_TRUST_REVOCATION_STATUS_UNKNOWN | CERT_TRUST_IS_OFFLINE_REVOCATION;

// `asOf`: the time the signature is vouched for (its timestamp's, else now). A certificate that
// has expired since a timestamped signing still vouches for it, as Windows' own check has it.
TrustVerdict CheckChain(PCCERT_CONTEXT signer, HCERTSTORE extra, const FILETIME* asOf) {
  CERT_CHAIN_PARA parameters{};
  parameters.cbSize = sizeof parameters;
  // Made for code signing: a certificate of the maker's made for anything else vouches for no program.
  LPSTR codeSigning[] = {const_cast<LPSTR>(szOID_PKIX_KP_CODE_SIGNING)};
  parameters.RequestedUsage.dwType = USAGE_MATCH_TYPE_AND;
  parameters.RequestedUsage.Usage.cUsageIdentifier = 1;
  parameters.RequestedUsage.Usage.rgpszUsageIdentifier = codeSigning;
  UniqueChain owned;
  const HCERTSTORE testRoots = g_testRoots.load();
  // The machine's chain engine: a service trusts what the machine trusts, not one user.
  // Revocation is the cache's. Other retrievals are left to the chain engine: Windows fetches many
  // roots only when a chain first needs them, and a fleet machine imaged yesterday may not have the
  // maker's yet. Only a server whose account passed the check before this gets here.
  constexpr DWORD kFlags = CERT_CHAIN_REVOCATION_CHECK_CHAIN_EXCLUDE_ROOT | CERT_CHAIN_REVOCATION_CHECK_CACHE_ONLY;
  if (!CertGetCertificateChain(HCCE_LOCAL_MACHINE, signer, const_cast<FILETIME*>(asOf),
                               testRoots != nullptr ? testRoots : extra, &parameters, kFlags, nullptr, owned.put())) {
    return {false, Code("CertGetCertificateChain", GetLastError())};
  }
  const PCCERT_CHAIN_CONTEXT chain = owned.get();
  // The chain's own verdict first: Wine's Authenticode policy lets a chain that ends in no trusted
  // root (a partial chain) through. A root of the test's own is vouched for here and nowhere else.
  DWORD chainErrors = chain->TrustStatus.dwErrorStatus & ~kRevocationUnknown;
  const bool vouched = (chainErrors & CERT_TRUST_IS_UNTRUSTED_ROOT) != 0 && EndsInTestRoot(chain, testRoots);
  if (vouched) chainErrors &= ~static_cast<DWORD>(CERT_TRUST_IS_UNTRUSTED_ROOT);
  if (chainErrors != CERT_TRUST_NO_ERROR) {
    return {false, Code((chainErrors & (CERT_TRUST_IS_UNTRUSTED_ROOT | CERT_TRUST_IS_PARTIAL_CHAIN)) != 0
                            ? "untrusted root, chain status"
                            : "chain status",
                        chainErrors)};
  }
  CERT_CHAIN_POLICY_PARA policy{};
  policy.cbSize = sizeof policy;
  // The policy reads the chain's own status: revocation left unknown by the cache-only check is
  // let through there too (a certificate found revoked is not).
  policy.dwFlags =
      CERT_CHAIN_POLICY_IGNORE_ALL_REV_UNKNOWN_FLAGS | (vouched ? CERT_CHAIN_POLICY_ALLOW_UNKNOWN_CA_FLAG : 0);
  CERT_CHAIN_POLICY_STATUS status{};
  status.cbSize = sizeof status;
  const BOOL checked = CertVerifyCertificateChainPolicy(CERT_CHAIN_POLICY_AUTHENTICODE, chain, &policy, &status);
  if (!checked) return {false, Code("CertVerifyCertificateChainPolicy", GetLastError())};
  if (status.dwError != 0) return {false, Code("Authenticode chain policy", status.dwError)};
  return {true, ""};
}

TrustVerdict CheckOrganisation(PCCERT_CONTEXT signer) {
  wchar_t organisation[256] = {};
  CertGetNameStringW(signer, CERT_NAME_ATTR_TYPE, 0, const_cast<char*>(szOID_ORGANIZATION_NAME), organisation, 256);
  if (std::wstring(organisation) != kTrustedOrganisation) {
    return {false, "signed by another organisation (\"" + korva::win::WideToUtf8(organisation) + "\")"};
  }
  return {true, ""};
}

}  // namespace

TrustVerdict VerifyServerImage(const std::wstring& imagePath) {
  // Read sharing only: while this handle lives nobody can write, truncate, rename or delete the
  // file, and an open that finds it already held for writing fails (32) instead of checking bytes
  // that may still change. Opened as the path names it, with no WOW64 redirection: a server in
  // System32 is judged on its own image, not on a file of the same name in SysWOW64. WinVerifyTrust
  // reads the file through this handle.
  const win::UniqueFileHandle image(win::OpenFileAsNamed(imagePath.c_str(), GENERIC_READ, FILE_SHARE_READ));
  if (!image) {
    return {false, "its image cannot be opened with writing shut out (error " + std::to_string(GetLastError()) + ")"};
  }
  WINTRUST_FILE_INFO file{};
  file.cbStruct = sizeof file;
  file.pcwszFilePath = imagePath.c_str();
  file.hFile = image.get();
  WINTRUST_DATA data{};
  data.cbStruct = sizeof data;
  data.dwUIChoice = WTD_UI_NONE;
  data.fdwRevocationChecks = WTD_REVOKE_NONE;
  data.dwUnionChoice = WTD_CHOICE_FILE;
  data.pFile = &file;
  data.dwStateAction = WTD_STATEACTION_VERIFY;
  GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
  const LONG verified = WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data);
  const TrustState state(action, data);
  if (verified != ERROR_SUCCESS) return {false, Code("WinVerifyTrust", static_cast<unsigned long>(verified))};
  CRYPT_PROVIDER_DATA* provider = WTHelperProvDataFromStateData(data.hWVTStateData);
  CRYPT_PROVIDER_SGNR* signer = provider != nullptr ? WTHelperGetProvSignerFromChain(provider, 0, FALSE, 0) : nullptr;
  if (signer == nullptr || signer->csCertChain == 0 || signer->pasCertChain == nullptr ||
      signer->pasCertChain[0].pCert == nullptr) {
    return {false, "no signer certificate"};
  }
  PCCERT_CONTEXT leaf = signer->pasCertChain[0].pCert;
  // WinVerifyTrust fills in when the signature is vouched for; a time it left empty means now.
  const FILETIME& vouchedAt = signer->sftVerifyAsOf;
  const bool timed = vouchedAt.dwHighDateTime != 0 || vouchedAt.dwLowDateTime != 0;
  TrustVerdict chain =
      CheckChain(leaf, provider->chStores > 0 ? provider->pahStores[0] : nullptr, timed ? &vouchedAt : nullptr);
  if (!chain.trusted) return chain;
  return CheckOrganisation(leaf);
}

void SetTrustedRootsForTest(void* certificateStore) { g_testRoots.store(static_cast<HCERTSTORE>(certificateStore)); }

}  // namespace korva::pipe
