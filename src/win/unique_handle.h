// Move-only owners for Win32 handles: one type per kind of handle, closed exactly once.
#pragma once

#include <windows.h>
#include <winsvc.h>
#include <userenv.h>
#include <wtsapi32.h>

#include <utility>

namespace korva::win {

// Owns a value of Traits::Type; closes it with Traits::Close unless it equals Traits::Invalid().
// Closing keeps GetLastError intact, so an owner going out of scope between a failed call and
// the read of its error code does not hide that code.
template <typename Traits>
class UniqueAny {
 public:
  using Type = typename Traits::Type;

  UniqueAny() noexcept = default;
  explicit UniqueAny(Type value) noexcept : value_(value) {}
  UniqueAny(const UniqueAny&) = delete;
  UniqueAny& operator=(const UniqueAny&) = delete;
  UniqueAny(UniqueAny&& other) noexcept : value_(other.release()) {}
  UniqueAny& operator=(UniqueAny&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~UniqueAny() { reset(); }

  [[nodiscard]] Type get() const noexcept { return value_; }
  [[nodiscard]] bool valid() const noexcept { return value_ != Traits::Invalid(); }
  explicit operator bool() const noexcept { return valid(); }

  // For out-parameters: closes what is held and hands out the slot.
  Type* put() noexcept {
    reset();
    return &value_;
  }

  Type release() noexcept { return std::exchange(value_, Traits::Invalid()); }

  void reset(Type value = Traits::Invalid()) noexcept {
    const Type old = std::exchange(value_, value);
    if (old != Traits::Invalid()) {
      const DWORD error = GetLastError();
      Traits::Close(old);
      SetLastError(error);
    }
  }

 private:
  Type value_ = Traits::Invalid();
};

struct HandleTraits {  // kernel objects whose "none" is NULL: events, threads, processes, tokens
  using Type = HANDLE;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type h) noexcept { CloseHandle(h); }
};
struct FileHandleTraits {  // CreateFileW, snapshots: "none" is INVALID_HANDLE_VALUE
  using Type = HANDLE;
  static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static void Close(Type h) noexcept { CloseHandle(h); }
};
struct RegKeyTraits {
  using Type = HKEY;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type h) noexcept { RegCloseKey(h); }
};
struct ServiceHandleTraits {
  using Type = SC_HANDLE;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type h) noexcept { CloseServiceHandle(h); }
};
struct FindVolumeTraits {  // FindFirstVolumeW: "none" is INVALID_HANDLE_VALUE, closed with FindVolumeClose
  using Type = HANDLE;
  static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static void Close(Type h) noexcept { FindVolumeClose(h); }
};
struct EventSourceTraits {
  using Type = HANDLE;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type h) noexcept { DeregisterEventSource(h); }
};
struct LibraryTraits {
  using Type = HMODULE;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type h) noexcept { FreeLibrary(h); }
};
struct LocalMemoryTraits {
  using Type = HLOCAL;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type h) noexcept { LocalFree(h); }
};

struct WtsMemoryTraits {  // what WTSEnumerateSessions* and WTSQuerySessionInformation* hand out
  using Type = void*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type p) noexcept { WTSFreeMemory(p); }
};
struct EnvironmentBlockTraits {  // CreateEnvironmentBlock
  using Type = void*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type p) noexcept { DestroyEnvironmentBlock(p); }
};

using UniqueHandle = UniqueAny<HandleTraits>;
using UniqueFileHandle = UniqueAny<FileHandleTraits>;
using UniqueFindVolume = UniqueAny<FindVolumeTraits>;
using UniqueRegKey = UniqueAny<RegKeyTraits>;
using UniqueServiceHandle = UniqueAny<ServiceHandleTraits>;
using UniqueEventSource = UniqueAny<EventSourceTraits>;
using UniqueLibrary = UniqueAny<LibraryTraits>;
using UniqueLocalMemory = UniqueAny<LocalMemoryTraits>;
using UniqueWtsMemory = UniqueAny<WtsMemoryTraits>;
using UniqueEnvironmentBlock = UniqueAny<EnvironmentBlockTraits>;

}  // namespace korva::win
