// The handles a child process may inherit, named one by one.
#include "win/inherited_handles.h"

#include <utility>

namespace korva::win {

InheritedHandles::InheritedHandles(std::vector<HANDLE> handles) : handles_(std::move(handles)) {
  SIZE_T size = 0;
  // Asks for the size only: fails with ERROR_INSUFFICIENT_BUFFER by design.
  (void)InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
  if (size == 0) {
    error_ = GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_INVALID_PARAMETER;
    return;
  }
  storage_.resize(size);
  if (!InitializeProcThreadAttributeList(list(), 1, 0, &size)) {
    error_ = GetLastError();
    return;
  }
  initialized_ = true;
  if (!UpdateProcThreadAttribute(list(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles_.data(),
                                 handles_.size() * sizeof(HANDLE), nullptr, nullptr)) {
    error_ = GetLastError();
  }
}

InheritedHandles::~InheritedHandles() {
  if (initialized_) DeleteProcThreadAttributeList(list());
}

LPPROC_THREAD_ATTRIBUTE_LIST InheritedHandles::list() noexcept {
  return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage_.data());
}

}  // namespace korva::win
