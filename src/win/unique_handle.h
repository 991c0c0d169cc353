// Move-only owners for Win32 handles, BSTRs, malloc'd text and process information, a handle published
// through a process-wide slot, and COM initialisation: one type per kind, freed exactly once.
#pragma once

// clang-format off
#include <windows.h>
#include <objbase.h>
#include <oleauto.h>
#include <userenv.h>
#include <winsvc.h>
#include <wtsapi32.h>
// clang-format on

#include <cstdlib>
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

// Traits of a handle kind whose "none" is `None` and that `CloseFn` closes.
template <typename T, auto CloseFn, T (*None)() = nullptr>
struct Traits {
  using Type = T;
  static Type Invalid() noexcept {
    if constexpr (None == nullptr) {
      return nullptr;
    } else {
      return None();
    }
  }
  static void Close(Type h) noexcept { CloseFn(h); }
};

inline HANDLE InvalidHandleValue() noexcept { return INVALID_HANDLE_VALUE; }

using HandleTraits = Traits<HANDLE, &CloseHandle>;  // events, threads, processes, tokens: "none" is NULL
using FileHandleTraits = Traits<HANDLE, &CloseHandle, &InvalidHandleValue>;      // files, snapshots
using FindVolumeTraits = Traits<HANDLE, &FindVolumeClose, &InvalidHandleValue>;  // FindFirstVolumeW
using RegKeyTraits = Traits<HKEY, &RegCloseKey>;
using ServiceHandleTraits = Traits<SC_HANDLE, &CloseServiceHandle>;
using EventSourceTraits = Traits<HANDLE, &DeregisterEventSource>;
using LibraryTraits = Traits<HMODULE, &FreeLibrary>;
using LocalMemoryTraits = Traits<HLOCAL, &LocalFree>;
using WtsMemoryTraits = Traits<void*, &WTSFreeMemory>;  // WTSEnumerateSessions*, WTSQuerySessionInformation*
using EnvironmentBlockTraits = Traits<void*, &DestroyEnvironmentBlock>;       // CreateEnvironmentBlock
using EnvironmentStringsTraits = Traits<wchar_t*, &FreeEnvironmentStringsW>;  // GetEnvironmentStringsW
using BstrTraits = Traits<BSTR, &SysFreeString>;                              // SysAllocString
template <typename Char>
using MallocTextTraits = Traits<Char*, &std::free>;

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
using UniqueEnvironmentStrings = UniqueAny<EnvironmentStringsTraits>;
using UniqueBstr = UniqueAny<BstrTraits>;
// NUL-terminated text in a heap block of the malloc family: what the agent's copy routines, the
// launchers' remarks and output, and the settings record hand around as `char*` (or `wchar_t*`).
template <typename Char>
using UniqueMallocText = UniqueAny<MallocTextTraits<Char>>;

// Owns the process and thread handles that CreateProcess* hands back in one PROCESS_INFORMATION.
class UniqueProcessInformation {
 public:
  UniqueProcessInformation() noexcept = default;
  UniqueProcessInformation(const UniqueProcessInformation&) = delete;
  UniqueProcessInformation& operator=(const UniqueProcessInformation&) = delete;
  ~UniqueProcessInformation() { reset(); }

  // For CreateProcess*'s out-parameter: closes what is held and hands out the record.
  PROCESS_INFORMATION* put() noexcept {
    reset();
    return &info_;
  }
  [[nodiscard]] HANDLE process() const noexcept { return info_.hProcess; }
  [[nodiscard]] DWORD processId() const noexcept { return info_.dwProcessId; }
  // Hands the process handle to a new owner (the record keeps the thread's).
  [[nodiscard]] UniqueHandle releaseProcess() noexcept { return UniqueHandle(std::exchange(info_.hProcess, nullptr)); }
  // The primary thread's handle is not needed once the child runs; closing it early is harmless.
  void closeThread() noexcept { Close(info_.hThread); }

  void reset() noexcept {
    closeThread();
    Close(info_.hProcess);
    info_ = PROCESS_INFORMATION{};
  }

 private:
  // Takes the handle out of the record and closes it, keeping GetLastError as every owner does.
  static void Close(HANDLE& field) noexcept { const UniqueHandle closing(std::exchange(field, nullptr)); }

  PROCESS_INFORMATION info_{};
};

// Keeps an owned handle reachable through a process-wide slot (a named global other threads use)
// for as long as this owner lives; the slot is emptied before the handle is closed.
class PublishedHandle {
 public:
  explicit PublishedHandle(HANDLE& slot) noexcept : slot_(slot) {}
  PublishedHandle(const PublishedHandle&) = delete;
  PublishedHandle& operator=(const PublishedHandle&) = delete;
  ~PublishedHandle() { slot_ = nullptr; }

  void publish(UniqueHandle handle) noexcept {
    owner_ = std::move(handle);
    slot_ = owner_.get();
  }

 private:
  HANDLE& slot_;
  UniqueHandle owner_;
};

// COM on the calling thread for as long as this object lives; uninitialised only when this
// object's own initialisation succeeded.
class ComInitialization {
 public:
  explicit ComInitialization(DWORD model) noexcept : result_(CoInitializeEx(nullptr, model)) {}
  ComInitialization(const ComInitialization&) = delete;
  ComInitialization& operator=(const ComInitialization&) = delete;
  ~ComInitialization() {
    if (SUCCEEDED(result_)) CoUninitialize();
  }
  [[nodiscard]] HRESULT result() const noexcept { return result_; }

 private:
  HRESULT result_;
};

}  // namespace korva::win
