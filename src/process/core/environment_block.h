// Environment blocks as CreateProcess* takes them with CREATE_UNICODE_ENVIRONMENT ("NAME=value"
// texts, each ended by a NUL, the whole ended by one more NUL), and the folder lists of a PATH. No
// Win32 here, so it is tested natively.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace korva::process {

// The characters of `block` up to and including its closing NUL (the empty text that ends it).
std::size_t EnvironmentBlockChars(const wchar_t* block) noexcept;

// The "NAME=value" texts of `block` (as EnvironmentBlockChars measures it), up to the empty one.
std::vector<std::wstring_view> EnvironmentEntries(std::wstring_view block);

// Whether `entry` sets `name`: the name, in any ASCII case, then '='. Hidden entries ("=C:=C:\x")
// set no name.
bool SetsVariable(std::wstring_view entry, std::wstring_view name) noexcept;

// `block` with each entry that sets `name` given `value` instead (the name as the entry spells it),
// every other entry as it was; closed by its NULs. A block without the name is returned whole.
std::wstring WithVariableValue(std::wstring_view block, std::wstring_view name, std::wstring_view value);

// The value `name` has in `block`: the first entry that sets it; empty when none does.
std::wstring_view VariableValue(std::wstring_view block, std::wstring_view name);

// The folders of a PATH list: the texts between its ';', the empty ones left out.
std::vector<std::wstring_view> PathListEntries(std::wstring_view list);
// A PATH folder without the double quotes that may surround it ("C:\Program Files\x").
std::wstring_view WithoutSurroundingQuotes(std::wstring_view entry) noexcept;

}  // namespace korva::process
