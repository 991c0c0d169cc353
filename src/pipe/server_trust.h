// Whether the program behind the pipe is the maker's: a valid Authenticode signature whose chain
// ends in a trusted root and whose signer is the maker's organisation.
#pragma once

#include <string>

#include "pipe/core/trust_verdict.h"

namespace korva::pipe {

inline constexpr wchar_t kTrustedOrganisation[] = L"Kestrelix";

// WinVerifyTrust on the image, then a chain check of its signer with the Authenticode policy of
// its own (some platforms accept an untrusted root in WinVerifyTrust alone), then the signer's
// organisation. The image is opened once with writing and deleting shut out and checked through
// that handle, so what is checked cannot change or be swapped before the check ends; an image
// someone holds open for writing is refused.
TrustVerdict VerifyServerImage(const std::wstring& imagePath);

// Test seam: roots the chain check trusts besides the machine's (a certificate store; null: none).
// Wine's chain engine trusts only the host's roots, whatever is added to the prefix's root store.
void SetTrustedRootsForTest(void* certificateStore);

}  // namespace korva::pipe
