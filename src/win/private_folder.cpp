// Making a folder with the private access list.
#include "win/private_folder.h"

#include <sddl.h>

#include "win/unique_handle.h"

namespace korva::win {

BOOL CreatePrivateFolder(const wchar_t* path) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(kPrivateFolderSecurityDescriptor, SDDL_REVISION_1,
                                                            &descriptor, nullptr)) {
    return FALSE;
  }
  const UniqueLocalMemory owned(descriptor);
  SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor, FALSE};
  return CreateDirectoryW(path, &attributes);
}

}  // namespace korva::win
