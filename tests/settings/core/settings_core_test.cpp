// The settings' pure core: the settings file's keys, log lines, OS details, registry text, the bounded JSON parse.
#include <gtest/gtest.h>

#include <algorithm>

#include "settings/core/agent_json.h"
#include "settings/core/json_text.h"
#include "settings/core/log_format.h"
#include "settings/core/os_details.h"
#include "settings/core/registry_value_bytes.h"
#include "support/nested.h"

namespace korva {
namespace {

namespace aj = agentjson;
using test::Nested;

aj::JsonSettings Read(const std::string& json, bool wow64 = false) {
  rapidjson::Document document;
  document.Parse(json.c_str());
  EXPECT_FALSE(document.HasParseError()) << json;
  return aj::ReadJsonSettings(document, wow64);
}

bool Noted(const aj::JsonSettings& s, const std::string& key, aj::KeyIssue issue) {
  return std::any_of(s.notes.begin(), s.notes.end(),
                     [&](const aj::KeyNote& n) { return n.key == key && n.issue == issue; });
}

// Keys looked up but never used ("agent_log_level") are not worth a note when missing.
TEST(AgentJson, MissingOrWrongTypedKeysGiveTheirDefaultsAndAreNoted) {
  const aj::JsonSettings s = Read("{}");
  EXPECT_EQ(s.installDirectory + "|" + s.serverInstalledTime + "|" + s.serverName, "DeviceControl\\|0|");
  EXPECT_EQ(s.effectiveServerPort, 0);
  EXPECT_TRUE(Noted(s, "server_port", aj::KeyIssue::kMissing));
  EXPECT_FALSE(Noted(s, "agent_log_level", aj::KeyIssue::kMissing));
  EXPECT_EQ(s.notes.size(), 23u);
  const aj::JsonSettings w = Read(R"({"server_port": "443", "server_sec_port": 4294967295, "server_name": 12,
                                      "server_installed_time": null, "agent_installed_dir": ["x"]})");
  EXPECT_EQ(w.serverSecPort, 0);
  EXPECT_EQ(w.installDirectory, "DeviceControl\\");
  // A NUL would cut the folder short where it is used as a C string: no folder at all instead.
  EXPECT_EQ(Read(R"({"agent_installed_dir": "C:\\Agent\u0000x"})").installDirectory, "");
  for (const char* key :
       {"server_port", "server_sec_port", "server_name", "server_installed_time", "agent_installed_dir"}) {
    EXPECT_TRUE(Noted(w, key, aj::KeyIssue::kWrongType)) << key;
  }
}

// "https" itself selects the secondary port in the settings tests.
TEST(AgentJson, OnlyExactLowerCaseHttpsSelectsTheSecondaryPort) {
  for (const char* protocol : {"HTTPS", "Https", "http", "", "https "}) {
    EXPECT_EQ(aj::EffectiveServerPort(protocol, 80, 443), 80) << '"' << protocol << '"';
  }
}

// 28 labels padded to 33, and the distribution block (padded to 37) only for an exact "yes".
TEST(AgentJson, SummaryIsAFramedBlockWithEveryLabelPaddedAndTheDistributionBlockOnlyForExactYes) {
  aj::SummaryFields f;
  f.distServerName = "dist", f.remoteOfficeId = "ro";
  for (const char* flag : {"no", "Yes", "YES", "yes"}) {
    SCOPED_TRACE(flag);
    f.distributionServerEnabled = flag;
    const std::vector<std::string> lines = aj::SummaryLines(f);
    const bool block = std::string(flag) == "yes";
    ASSERT_EQ(lines.size(), block ? 37u : 30u);
    EXPECT_EQ(lines.front() + lines.back(), std::string(132, '*'));
    for (std::size_t i = 1; i + 1 < lines.size(); ++i) EXPECT_EQ(lines[i].find("->"), i < 29 ? 33u : 37u) << lines[i];
    EXPECT_EQ(lines[20], "Distribution Server Enabled      ->" + std::string(flag));
    EXPECT_TRUE(!block || lines[29] + "|" + lines[35] ==
                              "Distribution Server Name             ->dist|Remote Office ID                     ->ro");
  }
  // A value cannot forge a record of its own, nor make one of megabytes.
  const std::string forged = "x\n[ 2026-01-01 00:00:00:000 ] [ 00000004 ] [ ERROR ] [ TempAccess ] y\r";
  const std::string huge(5000, 'h');
  f.serverName = forged.c_str(), f.customerName = huge.c_str();
  const std::vector<std::string> lines = aj::SummaryLines(f);
  EXPECT_EQ(lines[1], "Server Name                      ->x?[ 2026-01-01 00:00:00:000 ] [ 00000004 ] [ ERROR ] "
                      "[ TempAccess ] y?");
  EXPECT_EQ(lines[13], "Customer Name                    ->" + std::string(1024, 'h') + "...");
}

std::string LogLine(unsigned ms, std::uint32_t tid, int severity, const char* message = "m") {
  char date[logformat::kDateTimeLength];
  logformat::FormatDateTime({2024, 3, 7, 9, 5, 1}, date);
  std::string out;
  logformat::AppendLine(out, std::string_view(date, sizeof date), ms, tid, severity, "f", message);
  return out;
}

// Severity names are right-aligned in five characters or whole.
TEST(LogFormat, LineBreaksAndSeverityNames) {
  EXPECT_EQ(LogLine(42, 4294967295u, 4, "Log\nOpened."),
            "[ 2024-03-07 09:05:01:042 ] [ 4294967295 ] [  INFO ] [ f ] Log\r\nOpened.\r\n");
  const char* names[] = {"[ UNKNOWN ]", "[ FATAL ]", "[ ERROR ]",   "[ WARNING ]",
                         "[  INFO ]",   "[ DEBUG ]", "[ VERBOSE ]", "[ UNKNOWN ]"};
  for (int s = 0; s <= 7; ++s) EXPECT_NE(LogLine(0, 1, s).find(names[s]), std::string::npos) << s;
}

TEST(OsDetails, FamilyAndNameFromVersionAndProductType) {
  const struct { osdetails::OsVersion version; int family; const char* name; } cases[] = {
      {{5, 1, 2600, 1}, 1, "Windows XP"}, {{6, 0, 6002, 1}, 2, "Windows Vista"},
      {{6, 1, 7601, 3}, 3, "Windows Server 2008 R2"}, {{6, 2, 9200, 1}, 4, "Windows 8"},
      {{6, 3, 9600, 3}, 5, "Windows Server 2012 R2"}, {{10, 0, 21999, 1}, 6, "Windows 10"},
      {{10, 0, 22000, 1}, 7, "Windows 11"}, {{10, 0, 20348, 2}, 6, "Windows Server 2022"},
      {{10, 0, 26100, 3}, 7, "Windows Server 2025"}, {{12, 3, 1, 1}, 7, "Windows 12.3"},
      {{4, 0, 1381, 1}, 0, "Windows 4.0"}};
  for (const auto& c : cases) {
    EXPECT_EQ(osdetails::OsFamily(c.version), c.family) << c.name;
    EXPECT_EQ(osdetails::OsName(c.version), c.name);
  }
}

TEST(OsDetails, SecondsSinceEpochOfCalendarTimesAndNothingOutOfRange) {
  const std::pair<osdetails::CalendarTime, long long> cases[] = {
      {{1969, 12, 31, 23, 59, 59}, -1}, {{2000, 2, 29, 12, 0, 0}, 951825600}, {{2024, 12, 31, 23, 59, 59}, 1735689599},
      {{2106, 2, 7, 6, 28, 16}, 4294967296LL}, {{1601, 1, 1, 0, 0, 0}, -11644473600LL},
      {{30827, 12, 31, 23, 59, 59}, 910670515199LL}};
  for (const auto& [time, seconds] : cases) EXPECT_EQ(osdetails::SecondsSinceEpoch(time), seconds) << time.year;
  const osdetails::CalendarTime bad[] = {{2023, 2, 29, 0, 0, 0}, {1900, 2, 29, 0, 0, 0}, {2024, 4, 31, 0, 0, 0},
                                         {2024, 13, 1, 0, 0, 0}, {2024, 1, 1, 24, 0, 0}, {2024, 1, 1, 0, 0, 60},
                                         {1600, 12, 31, 0, 0, 0}, {30828, 1, 1, 0, 0, 0}, {2024, 1, 1, -1, 0, 0}};
  for (const auto& t : bad) EXPECT_FALSE(osdetails::SecondsSinceEpoch(t).has_value()) << t.year << "-" << t.month;
}

TEST(OsDetails, AddressTexts) {
  const unsigned char mac[] = {0x00, 0x1a, 0x2b, 0xc3, 0xd4, 0xff};
  EXPECT_EQ(osdetails::FormatMacAddress(mac, sizeof mac), "00-1A-2B-C3-D4-FF");
  for (const auto& [length, mask] : {std::pair{0, "0.0.0.0"}, {20, "255.255.240.0"}, {32, "255.255.255.255"}}) {
    EXPECT_EQ(osdetails::Ipv4MaskFromPrefixLength(length), mask);
  }
  EXPECT_FALSE(osdetails::Ipv4MaskFromPrefixLength(33).has_value());
}

TEST(RegistryValue, DecimalParsingFollowsTheCLibraryRules) {
  const std::pair<const char*, std::int64_t> cases[] = {{"12abc", 12}, {"abc", 0},  {"", 0},
                                                        {"  42", 42},  {"-7x", -7}, {"- 5", 0}};
  for (const auto& [text, value] : cases) EXPECT_EQ(registry::ParseDecimal(text), value) << text;
  EXPECT_EQ(registry::ParseDecimal("99999999999999999999999"), 200376420520689663LL);
}

// DWORDs and multi-strings are shown on the real registry.
TEST(RegistryValue, BytesByType) {
  using Bytes = std::vector<std::uint8_t>;
  EXPECT_EQ(registry::ValueBytesForType(11, "4294967296").data, (Bytes{0, 0, 0, 0, 1, 0, 0, 0}));
  EXPECT_EQ(registry::ValueBytesForType(2, "abc").data, (Bytes{'a', 'b', 'c', 0}));
  for (std::uint32_t type : {0u, 6u, 8u, 0xFFFFFFFFu})
    EXPECT_FALSE(registry::ValueBytesForType(type, "1").writable) << type;
}

// A failed parse leaves the document as it was and says why, and where it stopped: at a too deep
// nesting, the index of the bracket that opened one level too many.
TEST(JsonText, EveryShapeParsesOrReportsWhereItStopped) {
  const struct { const char* name; std::string text; bool ok, tooDeep; std::size_t stop; } cases[] = {
      {"object", R"({"a":1,"b":[true,null,"x"]})", true, false, 0},
      {"cut at a NUL byte", std::string("{\"a\":1}\0garbage", 15), true, false, 0},
      {"NUL inside the object", std::string("{\"a\":\0 1}", 9), false, false, 5},
      {"trailing comma", R"({"a":1,})", false, false, 7},
      {"deepest allowed arrays", Nested(64, "[", ']'), true, false, 0},
      {"one level too deep", Nested(65, "[", ']'), false, true, 64},
      {"a million arrays", Nested(1000000, "[", ']'), false, true, 64},
      {"a million objects", Nested(1000000, "{\"a\":", '}'), false, true, 320},
      {"unclosed million arrays", std::string(1000000, '['), false, true, 64},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    rapidjson::Document document;
    const auto outcome = json::ParseBounded(c.text, document);
    EXPECT_EQ(outcome.ok, c.ok);
    EXPECT_EQ(outcome.tooDeep, c.tooDeep);
    EXPECT_EQ(outcome.reason.empty(), c.ok);
    EXPECT_EQ(outcome.reason == "nesting deeper than 64 levels", c.tooDeep) << outcome.reason;
    EXPECT_TRUE(c.ok || document.IsNull());
    EXPECT_TRUE(c.ok || outcome.offset == c.stop) << outcome.offset;
  }
}

}  // namespace
}  // namespace korva
