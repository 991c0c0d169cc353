// The handles a child process may inherit, named one by one.
#pragma once

#include <windows.h>

#include <vector>

namespace korva::win {

// A process attribute list (STARTUPINFOEX) that lets a child inherit exactly the listed handles.
// Without it a start with inheritance on hands the child every inheritable handle the process has
// open at that moment: another launch's pipe end, a file some library opened inheritable. The
// handles must stay open until the process is created; the list must outlive that call too, and
// so is neither copied nor moved (the system keeps pointers into it).
class InheritedHandles {
 public:
  explicit InheritedHandles(std::vector<HANDLE> handles);
  ~InheritedHandles();
  InheritedHandles(const InheritedHandles&) = delete;
  InheritedHandles& operator=(const InheritedHandles&) = delete;
  InheritedHandles(InheritedHandles&&) = delete;
  InheritedHandles& operator=(InheritedHandles&&) = delete;

  // 0 when the list is ready, otherwise the system error that stopped it.
  [[nodiscard]] DWORD error() const noexcept { return error_; }
  // For STARTUPINFOEX::lpAttributeList; only when error() is 0.
  [[nodiscard]] LPPROC_THREAD_ATTRIBUTE_LIST list() noexcept;

 private:
  std::vector<HANDLE> handles_;
  std::vector<unsigned char> storage_;
  bool initialized_ = false;
  DWORD error_ = ERROR_SUCCESS;
};

}  // namespace korva::win
