// Test-only stand-in for the companion service's pipe server: serves "\\.\pipe\qvpservice" to one
// client, sends the messages its command line names, and appends each answer to a file.
//   pipeserver <answers file> [sd:<security descriptor>] [next-client] <message>...
// A message is the hex of its bytes ("c1000000" is control code 193), "empty" (no bytes), "big"
// (4,096 bytes), "silent:<ms>" (send nothing for that long) or "close" (hang up at once). With
// "next-client" before the messages, a client that hangs up before answering the first message is let go and
// the next one served instead (at most five), as when another client reaches the pipe first.
// The pipe gets the security a service's pipe gets by default (owned by SYSTEM; SYSTEM and
// Administrators may do anything, everyone may read) unless "sd:" gives another, as the text of a
// security descriptor ("sd:D:(A;;GA;;;WD)": no owner named, so the server's account owns it).
// Exit code 6: an answer could not be written to the file; 7: the security descriptor's text is
// not one.
#include <windows.h>
#include <sddl.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::vector<unsigned char> Bytes(const std::wstring& message) {
  if (message == L"empty") return {};
  if (message == L"big") {
    std::vector<unsigned char> big(4096, 0x80);  // (not {4096, 0x80}: that would be two bytes)
    return big;
  }
  std::vector<unsigned char> bytes;
  for (std::size_t i = 0; i + 1 < message.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::wcstoul(message.substr(i, 2).c_str(), nullptr, 16)));
  }
  return bytes;
}

// The message as written in the answers (its tokens are plain ASCII).
std::string Narrow(const std::wstring& text) { return {text.begin(), text.end()}; }

// "<message> error <code>": the client hung up instead of answering.
std::string ErrorLine(const std::wstring& message, DWORD error) {
  return Narrow(message) + " error " + std::to_string(error) + "\n";
}

// "<message> <answer> (<n> bytes)", the answer read as a little-endian number.
std::string AnswerLine(const std::wstring& message, unsigned long value, DWORD bytes) {
  return Narrow(message) + " " + std::to_string(value) + " (" + std::to_string(bytes) + " bytes)\n";
}

// Appends one answer line and flushes it; false when it could not be written.
bool WriteAnswer(std::FILE* answers, const std::string& line) {
  return std::fputs(line.c_str(), answers) >= 0 && std::fflush(answers) == 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc < 2) return 2;
  int i = 2;
  std::wstring sddl = L"O:SYD:(A;;GA;;;SY)(A;;GA;;;BA)(A;;GR;;;WD)";
  if (i < argc && std::wstring(argv[i]).rfind(L"sd:", 0) == 0) sddl = argv[i++] + 3;
  const bool nextClient = i < argc && std::wstring(argv[i]) == L"next-client";
  if (nextClient) ++i;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1, &descriptor, nullptr)) {
    return 7;
  }
  SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor, FALSE};
  const HANDLE pipe =
      CreateNamedPipeW(L"\\\\.\\pipe\\qvpservice", PIPE_ACCESS_DUPLEX,
                       PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, 1, 8192, 8192, 0, &attributes);
  LocalFree(descriptor);
  if (pipe == INVALID_HANDLE_VALUE) return 3;
  if (!ConnectNamedPipe(pipe, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED) return 4;
  FILE* answers = _wfopen(argv[1], L"ab");
  if (answers == nullptr) return 5;
  int clientsLeft = nextClient ? 5 : 1;
  bool written = true;
  for (; i < argc; ++i) {
    const std::wstring message = argv[i];
    if (message == L"close") break;
    if (message.rfind(L"silent:", 0) == 0) {
      Sleep(std::wcstoul(message.c_str() + 7, nullptr, 10));
      continue;
    }
    const std::vector<unsigned char> bytes = Bytes(message);
    DWORD done = 0;
    unsigned char answer[8] = {};
    if (!WriteFile(pipe, bytes.data(), static_cast<DWORD>(bytes.size()), &done, nullptr) ||
        !ReadFile(pipe, answer, sizeof answer, &done, nullptr)) {
      const DWORD error = GetLastError();
      if (--clientsLeft > 0) {
        DisconnectNamedPipe(pipe);
        if (ConnectNamedPipe(pipe, nullptr) || GetLastError() == ERROR_PIPE_CONNECTED) {
          --i;  // the same message to the next client
          continue;
        }
      }
      written = WriteAnswer(answers, ErrorLine(message, error)) && written;
      break;
    }
    const unsigned long value =
        answer[0] | answer[1] << 8 | answer[2] << 16 | static_cast<unsigned long>(answer[3]) << 24;
    written = WriteAnswer(answers, AnswerLine(message, value, done)) && written;
  }
  written = std::fclose(answers) == 0 && written;
  FlushFileBuffers(pipe);
  DisconnectNamedPipe(pipe);
  CloseHandle(pipe);
  return written ? 0 : 6;
}
