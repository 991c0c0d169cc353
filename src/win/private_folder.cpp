// Making a folder with the private access list.
#include "win/private_folder.h"

#include <sddl.h>

#include "win/unique_handle.h"

namespace korva::win {

namespace {

// The security descriptor of `sddl`; empty (the conversion's error left) when it cannot be built.
UniqueLocalMemory Descriptor(const wchar_t* sddl) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &descriptor, nullptr)) return {};
  return UniqueLocalMemory(descriptor);
}

}  // namespace

BOOL CreatePrivateFolder(const wchar_t* path) {
  const UniqueLocalMemory descriptor = Descriptor(kPrivateFolderSecurityDescriptor);
  if (!descriptor) return FALSE;
  SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor.get(), FALSE};
  return CreateDirectoryW(path, &attributes);
}

HANDLE CreatePrivateFile(const wchar_t* path, DWORD access, DWORD share, DWORD disposition, DWORD flags) {
  const UniqueLocalMemory descriptor = Descriptor(kPrivateFileSecurityDescriptor);
  if (!descriptor) return INVALID_HANDLE_VALUE;
  SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor.get(), FALSE};
  return CreateFileW(path, access, share, &attributes, disposition, flags, nullptr);
}

}  // namespace korva::win
