// Pipe control channel client: one connection at a time to the companion's pipe, its server
// verified before anything is read, one control code per message.
#include "pipe/pipe_client.h"

#include <string>
#include <vector>

#include "pipe/core/pipe_protocol.h"
#include "pipe/server_account.h"
#include "pipe/server_trust.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/service_control.h"
#include "shared/service_state.h"
#include "win/process_image.h"
#include "win/strings.h"
#include "win/thread_name.h"
#include "win/thread_stack.h"
#include "win/unique_handle.h"

namespace {

namespace pipe = korva::pipe;

constexpr const char* kName = "PipeConnect";
constexpr wchar_t kPipeName[] = L"\\\\.\\pipe\\qvpservice";
// Larger messages are read in pieces and refused as a whole.
constexpr DWORD kReadSize = 512;
// What is kept of a message; the rest is read and dropped.
constexpr std::size_t kMaxMessageBytes = std::size_t{64} * 1024;

enum class Outcome { kStopped, kServed, kFailed };
enum class Io { kDone, kStopped, kFailed };

// One overlapped read or write on the pipe, waited for together with the stop event.
Io Complete(HANDLE pipeHandle, OVERLAPPED& overlapped, BOOL started, DWORD& transferred, DWORD& error) {
  error = started ? ERROR_SUCCESS : GetLastError();
  if (!started && error != ERROR_IO_PENDING && error != ERROR_MORE_DATA) return Io::kFailed;
  if (!started && error == ERROR_IO_PENDING) {
    const HANDLE handles[] = {ServiceStopEvent, overlapped.hEvent};
    if (WaitForMultipleObjects(2, handles, FALSE, INFINITE) != WAIT_OBJECT_0 + 1) {
      CancelIoEx(pipeHandle, &overlapped);
      GetOverlappedResult(pipeHandle, &overlapped, &transferred, TRUE);  // the buffer is free again
      return Io::kStopped;
    }
  }
  error = GetOverlappedResult(pipeHandle, &overlapped, &transferred, FALSE) ? ERROR_SUCCESS : GetLastError();
  return error == ERROR_SUCCESS || error == ERROR_MORE_DATA ? Io::kDone : Io::kFailed;
}

bool StopRequested() { return WaitForSingleObject(ServiceStopEvent, 0) != WAIT_TIMEOUT; }

// Reads one whole message into `message`. The stop is looked at before each piece: a read that
// completes at once never waits, so a server that keeps the pipe full, or sends one endless
// message, would otherwise keep the client serving it after the stop.
Io ReadMessage(HANDLE pipeHandle, HANDLE event, std::vector<unsigned char>& message) {
  message.clear();
  for (;;) {
    if (StopRequested()) return Io::kStopped;
    unsigned char piece[kReadSize];
    OVERLAPPED overlapped{};
    overlapped.hEvent = event;
    DWORD read = 0;
    DWORD error = 0;
    const Io io =
        Complete(pipeHandle, overlapped, ReadFile(pipeHandle, piece, kReadSize, nullptr, &overlapped), read, error);
    if (io != Io::kDone) return io;
    if (message.size() < kMaxMessageBytes) message.insert(message.end(), piece, piece + read);
    if (error != ERROR_MORE_DATA) return Io::kDone;
  }
}

Io WriteResult(HANDLE pipeHandle, HANDLE event, DWORD result) {
  const auto bytes = pipe::EncodeResult(result);
  OVERLAPPED overlapped{};
  overlapped.hEvent = event;
  DWORD written = 0;
  DWORD error = 0;
  return Complete(pipeHandle, overlapped,
                  WriteFile(pipeHandle, bytes.data(), static_cast<DWORD>(bytes.size()), nullptr, &overlapped), written,
                  error);
}

// The process serving the pipe, opened once for both of its checks; empty when it cannot be.
korva::win::UniqueHandle OpenServer(HANDLE pipeHandle, ULONG& pid) {
  pid = 0;
  if (!GetNamedPipeServerProcessId(pipeHandle, &pid)) return {};
  return korva::win::UniqueHandle(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
}

std::wstring ServerImage(HANDLE process) {
  DWORD error = ERROR_SUCCESS;
  return korva::win::ProcessImagePath(process, error);
}

// The pipe must belong to a service and be kept from everyone else, its server must run as one,
// and its image must be the maker's. The process is found by the ID the pipe recorded when it was
// made, which may since have passed to another process (its maker handed the pipe on and ended),
// while no user can make a pipe a service owns, nor add an instance to one that keeps them out.
// The pipe and the account come first: they cost a few calls, while the image check reads and
// hashes the whole file and builds a certificate chain, so a program a user started is turned
// away before the service spends that on it at every reconnection.
pipe::TrustVerdict VerifyServer(HANDLE pipeHandle, HANDLE process, ULONG pid, const std::wstring& image) {
  if (image.empty()) return {false, "its image cannot be found"};
  pipe::TrustVerdict pipeAndAccount = pipe::VerifyPipeAndServerAccount(pipeHandle, process, pid);
  if (!pipeAndAccount.trusted) return pipeAndAccount;
  return pipe::VerifyServerImage(image);
}

// Answers the server's messages until it goes or the service stops.
Outcome Serve(HANDLE pipeHandle) {
  const korva::win::UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!event) {
    korva::LogLastError(kName, "Unable to create the pipe's event.");
    return Outcome::kFailed;
  }
  std::vector<unsigned char> message;
  for (;;) {
    const Io read = ReadMessage(pipeHandle, event.get(), message);
    if (read == Io::kStopped) return Outcome::kStopped;
    if (read == Io::kFailed) {
      KLOG_INFO_AS(kName) << "The pipe server closed the connection (" << GetLastError() << ").";
      return Outcome::kServed;
    }
    const auto code = pipe::DecodeControlCode(message.data(), message.size());
    DWORD result = pipe::kMalformedMessage;
    if (code) {
      KLOG_INFO_AS(kName) << "Control code received :" << *code;
      result = SendControl(*code);
    } else {
      KLOG_WARNING_AS(kName) << "A message of " << message.size() << " bytes is not a control code; refused.";
    }
    const Io written = WriteResult(pipeHandle, event.get(), result);
    if (written == Io::kStopped) return Outcome::kStopped;
    if (written == Io::kFailed) return Outcome::kServed;
  }
}

// One connection: open, verify the server, serve it. A pipe that is absent is reported once per
// outage (`reported`), for it may be absent for the whole run.
Outcome Connect(bool& reported) {
  korva::win::UniqueFileHandle pipeHandle(
      CreateFileW(kPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                  FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
  if (!pipeHandle) {
    const DWORD error = GetLastError();
    if (!reported) KLOG_WARNING_AS(kName) << "Unable to connect to the pipe with error code :" << error;
    reported = true;
    return Outcome::kFailed;
  }
  reported = false;
  DWORD mode = PIPE_READMODE_MESSAGE;
  if (!SetNamedPipeHandleState(pipeHandle.get(), &mode, nullptr, nullptr)) {
    korva::LogLastError(kName, "Unable to switch the pipe to message mode.");
    return Outcome::kFailed;
  }
  ULONG pid = 0;
  const korva::win::UniqueHandle process = OpenServer(pipeHandle.get(), pid);
  const std::wstring image = process ? ServerImage(process.get()) : std::wstring();
  const pipe::TrustVerdict verdict = VerifyServer(pipeHandle.get(), process.get(), pid, image);
  if (!verdict.trusted) {
    KLOG_ERROR_AS(kName) << "The pipe server [" << image << "] (process " << pid
                         << ") is not trusted: " << verdict.reason << ". Disconnecting.";
    return Outcome::kFailed;
  }
  KLOG_INFO_AS(kName) << "Connected to the pipe server [" << image << "] (process " << pid << ").";
  return Serve(pipeHandle.get());
}

}  // namespace

DWORD WINAPI PipeConnect(LPVOID /*parameter*/) {
  korva::win::NameCurrentThread(L"PipeConnect");
  korva::win::ReleaseUnusedStack();
  korva::log::ScopedGuardedVoid(kName, [] {
    unsigned backoffMs = 0;
    bool reported = false;
    for (;;) {
      // One attempt that throws (memory short for a moment) fails as any other and is tried again.
      const Outcome outcome = korva::log::Guarded(kName, Outcome::kFailed, [&reported] { return Connect(reported); });
      if (outcome == Outcome::kStopped) return;
      backoffMs = outcome == Outcome::kServed ? pipe::kFirstBackoffMs : pipe::NextBackoffMs(backoffMs);
      KLOG_DEBUG_AS(kName) << "Connecting again in " << backoffMs << " ms.";
      korva::win::ReleaseUnusedStack();  // what the attempt's checks used, until the next attempt
      if (WaitForSingleObject(ServiceStopEvent, backoffMs) != WAIT_TIMEOUT) return;
    }
  });
  return 0;
}
