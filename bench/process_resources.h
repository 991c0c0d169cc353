// A process's resources as the benchmarks and the soak report them: handles, private bytes and
// threads. Wine 8 answers GetProcessHandleCount with 0 and leaves PrivateUsage at 0; then the
// handles are counted in the system's handle table and the commit charge is read from
// PagefileUsage (which Windows reports equal to PrivateUsage).
#pragma once

#include <windows.h>
#include <psapi.h>
#include <tlhelp32.h>

#include <cstring>
#include <vector>

namespace korva::bench {

struct Resources {
  DWORD handles = 0;
  SIZE_T privateBytes = 0;
  DWORD threads = 0;
  const char* handleSource = "GetProcessHandleCount";
  const char* memorySource = "PrivateUsage";
};

namespace detail {

struct HandleTableEntry {  // SYSTEM_HANDLE_TABLE_ENTRY_INFO
  USHORT processId;
  USHORT creatorBackTraceIndex;
  UCHAR objectType;
  UCHAR attributes;
  USHORT handle;
  PVOID object;
  ULONG access;
};
using QuerySystemInformationFn = LONG(WINAPI*)(ULONG, PVOID, ULONG, PULONG);
constexpr ULONG kSystemHandleInformation = 16;
constexpr LONG kInfoLengthMismatch = static_cast<LONG>(0xC0000004L);

inline DWORD HandlesInSystemTable(DWORD processId) {
  const auto query = reinterpret_cast<QuerySystemInformationFn>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll"), "NtQuerySystemInformation")));
  if (query == nullptr) return 0;
  std::vector<char> buffer(1 << 20);
  ULONG length = 0;
  LONG status = 0;
  while ((status = query(kSystemHandleInformation, buffer.data(), static_cast<ULONG>(buffer.size()), &length)) ==
         kInfoLengthMismatch) {
    buffer.resize(buffer.size() * 2);
  }
  if (status != 0) return 0;
  ULONG count = 0;
  std::memcpy(&count, buffer.data(), sizeof count);
  const auto* entries = reinterpret_cast<const HandleTableEntry*>(buffer.data() + sizeof(ULONG_PTR));
  const auto id = static_cast<USHORT>(processId & 0xFFFF);
  DWORD handles = 0;
  for (ULONG i = 0; i < count; ++i) handles += entries[i].processId == id ? 1 : 0;
  return handles;
}

inline DWORD ThreadsOf(DWORD processId) {
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return 0;
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  DWORD threads = 0;
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
    threads += entry.th32OwnerProcessID == processId ? 1 : 0;
  }
  CloseHandle(snapshot);
  return threads;
}

}  // namespace detail

// `process` must allow PROCESS_QUERY_INFORMATION | PROCESS_VM_READ.
inline Resources Measure(HANDLE process, DWORD processId) {
  Resources r;
  if (!GetProcessHandleCount(process, &r.handles) || r.handles == 0) {
    r.handles = detail::HandlesInSystemTable(processId);
    r.handleSource = "system handle table (GetProcessHandleCount gives 0 here)";
  }
  PROCESS_MEMORY_COUNTERS_EX counters{};
  counters.cb = sizeof counters;
  if (GetProcessMemoryInfo(process, reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters), sizeof counters)) {
    r.privateBytes = counters.PrivateUsage;
    if (r.privateBytes == 0) {
      r.privateBytes = counters.PagefileUsage;
      r.memorySource = "PagefileUsage (PrivateUsage gives 0 here)";
    }
  }
  r.threads = detail::ThreadsOf(processId);
  return r;
}

}  // namespace korva::bench
