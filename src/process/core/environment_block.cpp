// Reading and rewriting environment blocks and PATH lists.
#include "process/core/environment_block.h"

namespace korva::process {

namespace {
wchar_t AsciiUpper(wchar_t c) noexcept { return c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - L'a' + L'A') : c; }
}  // namespace

std::size_t EnvironmentBlockChars(const wchar_t* block) noexcept {
  if (block == nullptr) return 0;
  std::size_t at = 0;
  while (block[at] != L'\0') {
    while (block[at] != L'\0') ++at;
    ++at;  // past the entry's NUL
  }
  return at + 1;
}

std::vector<std::wstring_view> EnvironmentEntries(std::wstring_view block) {
  std::vector<std::wstring_view> entries;
  std::size_t at = 0;
  while (at < block.size() && block[at] != L'\0') {
    std::size_t end = block.find(L'\0', at);
    if (end == std::wstring_view::npos) end = block.size();
    entries.push_back(block.substr(at, end - at));
    at = end + 1;
  }
  return entries;
}

bool SetsVariable(std::wstring_view entry, std::wstring_view name) noexcept {
  if (name.empty() || entry.size() <= name.size() || entry[name.size()] != L'=') return false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (AsciiUpper(entry[i]) != AsciiUpper(name[i])) return false;
  }
  return true;
}

std::wstring WithVariableValue(std::wstring_view block, std::wstring_view name, std::wstring_view value) {
  std::wstring rewritten;
  rewritten.reserve(block.size() + value.size());
  for (const std::wstring_view entry : EnvironmentEntries(block)) {
    if (SetsVariable(entry, name)) {
      rewritten.append(entry.substr(0, name.size() + 1));
      rewritten.append(value);
    } else {
      rewritten.append(entry);
    }
    rewritten.push_back(L'\0');
  }
  // An empty block is two NULs; any other ends with one more after its last entry's.
  if (rewritten.empty()) rewritten.push_back(L'\0');
  rewritten.push_back(L'\0');
  return rewritten;
}

std::wstring_view VariableValue(std::wstring_view block, std::wstring_view name) {
  for (const std::wstring_view entry : EnvironmentEntries(block)) {
    if (SetsVariable(entry, name)) return entry.substr(name.size() + 1);
  }
  return {};
}

std::vector<std::wstring_view> PathListEntries(std::wstring_view list) {
  std::vector<std::wstring_view> entries;
  std::size_t at = 0;
  while (at <= list.size()) {
    std::size_t end = list.find(L';', at);
    if (end == std::wstring_view::npos) end = list.size();
    if (end > at) entries.push_back(list.substr(at, end - at));
    at = end + 1;
  }
  return entries;
}

std::wstring_view WithoutSurroundingQuotes(std::wstring_view entry) noexcept {
  if (entry.size() >= 2 && entry.front() == L'"' && entry.back() == L'"') return entry.substr(1, entry.size() - 2);
  return entry;
}

}  // namespace korva::process
