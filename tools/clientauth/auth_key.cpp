// Test-only DLL that the importing variant of the decryption library stand-in needs: the cipher key.
extern "C" __declspec(dllexport) int __cdecl KorvaAuthKey() { return 0x5A; }
