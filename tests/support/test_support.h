// Helpers shared by the Wine tests: temporary folders, whole-file reads, registry cleaning.
#pragma once

#include <string>

namespace korva::test {

// A fresh, empty folder under %TEMP% removed with everything in it when the object goes away.
class TempDir {
 public:
  TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir();
  const std::wstring& path() const { return path_; }
  std::wstring File(const std::wstring& name) const { return path_ + L"\\" + name; }
  std::string NarrowPath() const;

 private:
  std::wstring path_;
};

// The whole file as bytes; empty when it cannot be read.
std::string ReadFileBytes(const std::wstring& path);
bool FileExists(const std::wstring& path);
void WriteFileBytes(const std::wstring& path, const std::string& bytes);

// Folder holding the running test program (the build's bin folder).
std::wstring ProgramFolder();

// Deletes "SOFTWARE\Kestrelix" in the service's (32-bit) registry view and the log-level key.
void CleanAgentRegistry();

}  // namespace korva::test
