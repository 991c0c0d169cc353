// Test stand-in for "ClientAuthHandler.dll". Its cipher is a toy: the cipher text is the plain
// text's bytes XOR 0x5A, written as two lowercase hex digits each. The export keeps the real
// library's contract: the size needed including the terminating NUL, 0 on failure, and nothing
// written when `capacity` is too small. A cipher text "wait<ms>" stands for a library that hangs:
// it sleeps that long and then refuses the text.
#include <windows.h>

#include <cstdlib>
#include <cstring>

#ifdef KORVA_KEY_FROM_IMPORT
// The importing variant: the key comes from korvaAuthKey.dll, which must be found for it to load.
extern "C" __declspec(dllimport) int __cdecl KorvaAuthKey();
#else
namespace {
int KorvaAuthKey() { return 0x5A; }
}  // namespace
#endif

namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

extern "C" __declspec(dllexport) int __cdecl GetDecryptedStrDll(const char* cipher, char* plain, int capacity) {
  if (cipher == nullptr) return 0;
  if (std::strncmp(cipher, "wait", 4) == 0) {
    Sleep(static_cast<DWORD>(std::strtoul(cipher + 4, nullptr, 10)));
    return 0;
  }
  const std::size_t length = std::strlen(cipher);
  if (length % 2 != 0) return 0;
  const int needed = static_cast<int>(length / 2) + 1;
  for (std::size_t i = 0; i < length; ++i) {
    if (HexDigit(cipher[i]) < 0) return 0;
  }
  if (plain == nullptr || capacity < needed) return needed;
  const int key = KorvaAuthKey();
  for (std::size_t i = 0; i < length / 2; ++i) {
    // Every digit was checked above, so neither half is negative.
    const auto high = static_cast<unsigned>(HexDigit(cipher[2 * i]));
    const auto low = static_cast<unsigned>(HexDigit(cipher[2 * i + 1]));
    plain[i] = static_cast<char>(((high << 4U) | low) ^ static_cast<unsigned>(key));
  }
  plain[length / 2] = '\0';
  return needed;
}
