// CRapidJSONClass: whole files to text, text to a RapidJSON document, and documents back to text.
#include "settings/rapidjson_class.h"

#include <fcntl.h>
#include <io.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "settings/core/json_text.h"
#include "settings/log.h"
#include "win/unique_handle.h"

namespace {

struct FileCloser {
  // Files are only read here: a failed close loses nothing.
  void operator()(std::FILE* file) const noexcept { static_cast<void>(std::fclose(file)); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

constexpr int kFailure = -1;

// Opens `path` for binary reading, sharing it as the C library's "rb" does; logs and gives the
// error when that fails. Only a file on a disk is read: a named pipe or a device would have the
// agent wait on, or be read by, whoever serves it. A file `rules` do not accept gives -1.
[[nodiscard]] int OpenForReading(const std::wstring& path, UniqueFile& file, const CRapidJSONClass::OpenRules& rules) {
  korva::win::UniqueFileHandle handle(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                  nullptr, OPEN_EXISTING, rules.flags, nullptr));
  const DWORD error = handle ? ERROR_SUCCESS : GetLastError();
  if (error != ERROR_SUCCESS || GetFileType(handle.get()) != FILE_TYPE_DISK) {
    KLOG_ERROR_AS("CRapidJSONClass::FileToString") << "The file [" << path << "] open failed";
    return error != ERROR_SUCCESS ? static_cast<int>(error) : kFailure;
  }
  if (rules.accept && !rules.accept(handle.get())) return kFailure;
  const int descriptor = _open_osfhandle(reinterpret_cast<intptr_t>(handle.get()), _O_RDONLY | _O_BINARY);
  if (descriptor == -1) {
    KLOG_ERROR_AS("CRapidJSONClass::FileToString") << "The file [" << path << "] open failed NULL";
    return kFailure;
  }
  static_cast<void>(handle.release());  // the descriptor's now
  file.reset(_fdopen(descriptor, "rb"));
  if (!file) {
    static_cast<void>(_close(descriptor));
    KLOG_ERROR_AS("CRapidJSONClass::FileToString") << "The file [" << path << "] open failed NULL";
    return kFailure;
  }
  return 0;
}

// Size of an open file, leaving it positioned at the start; negative when it cannot be had.
long SizeOf(std::FILE* file) {
  if (std::fseek(file, 0, SEEK_END) != 0) return -1;
  const long size = std::ftell(file);
  if (std::fseek(file, 0, SEEK_SET) != 0) return -1;
  return size;
}

}  // namespace

int CRapidJSONClass::FileToString(const std::wstring& path, std::string& out, const OpenRules& rules) {
  return korva::log::ScopedGuarded("CRapidJSONClass::FileToString", kFailure, [&] {
    out.clear();
    UniqueFile file;
    if (const int error = OpenForReading(path, file, rules); error != 0) return error;
    const long size = SizeOf(file.get());
    if (size < 0) {
      KLOG_ERROR_AS("CRapidJSONClass::FileToString") << "The file [" << path << "] size unknown";
      return kFailure;
    }
    // A file this large is not one of ours: refuse it before any of it is read.
    if (static_cast<unsigned long long>(size) > korva::json::kMaxWholeFileBytes) {
      KLOG_ERROR_AS("CRapidJSONClass::FileToString")
          << "The file [" << path << "] is " << size << " bytes, more than the "
          << static_cast<unsigned long long>(korva::json::kMaxWholeFileBytes) << " bytes read whole; not read";
      return kFailure;
    }
    std::vector<char> buffer(static_cast<std::size_t>(size) + 1, '\0');
    const std::size_t read = std::fread(buffer.data(), 1, static_cast<std::size_t>(size), file.get());
    if (read == static_cast<std::size_t>(size)) out.assign(buffer.data());
    return 0;
  });
}

bool CRapidJSONClass::StringToJsonDom(const std::string& text, rapidjson::Document& document) {
  return korva::log::ScopedGuarded("CRapidJSONClass::StringToJsonDom", false, [&] {
    const korva::json::ParseOutcome outcome = korva::json::ParseBounded(text, document);
    if (!outcome.ok) {
      KLOG_ERROR_AS("CRapidJSONClass::StringToJsonDom") << "Unable to parse string json.";
      KLOG_ERROR_AS("CRapidJSONClass::StringToJsonDom")
          << "JSON parse stopped at offset " << static_cast<unsigned long long>(outcome.offset) << ": "
          << outcome.reason;
      return false;
    }
    return true;
  });
}

bool CRapidJSONClass::LoadJsonFromFile(const std::wstring& path, rapidjson::Document& document,
                                       const OpenRules& rules) {
  return korva::log::ScopedGuarded("CRapidJSONClass::LoadJsonFromFile", false, [&] {
    std::string text;
    if (FileToString(path, text, rules) != 0) {
      KLOG_ERROR_AS("CRapidJSONClass::LoadJsonFromFile") << "Unable to convert json file to string.";
      return false;
    }
    if (!StringToJsonDom(text, document)) {
      KLOG_ERROR_AS("CRapidJSONClass::LoadJsonFromFile") << "Unable to convert json string to Json DOM.";
      return false;
    }
    return true;
  });
}

bool CRapidJSONClass::JsonDomToString(const rapidjson::Document& document, std::string& out) {
  return korva::log::ScopedGuarded("CRapidJSONClass::JsonDomToString", false, [&] {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    document.Accept(writer);
    out.assign(buffer.GetString(), buffer.GetSize());
    return true;
  });
}
