// A library the dependent decryption stand-in imports: loading that stand-in needs this file.
extern "C" __declspec(dllexport) int __cdecl ClientAuthCipherMask() { return 0x5A; }
