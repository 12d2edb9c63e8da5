// The host's configuration reader, its check against the module and the
// trust decision, in-process; wd64host as a separate process is driven from check_host.py.

#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "ErrorHandling.h"
#include "config/Check.h"
#include "config/Config.h"
#include "config/Trust.h"
#include "module/ModuleHost.h"
#include "platform/ModulePath.h"

namespace {

TEST(HostConfigParse, TypesRangesAndRelativePaths) {
  const Host::Config config = Host::ParseConfig(
      R"({ "logPacker": { "LogsDirectoryPath": "Logs", "LogFileMask": "*.log", "MaxLogFileAgeInHours": 1,
           "MaxLogFileSizeInMegabytes": 17592186044416 },
           "freeSpaceWatcher": { "groups": [ { "name": "audit", "Paths": ["C:\\"], "ServiceNames": [] },
                                             { "Paths": ["D:\\"], "ServiceNames": [] } ] },
           "metrics": { "path": "wd64.prom" },
           "globalSettings": { "logger": { "maxseverity": "info", "KeepOpenInterval": "0x10" } } })",
      L"inline", L"C:\\Module\\");
  ASSERT_TRUE(config.packer);
  EXPECT_EQ(config.packer->settings.Find(L"LogsDirectoryPath")->text, L"C:\\Module\\Logs");
  EXPECT_EQ(config.packer->packIntervalSeconds, 3600);
  EXPECT_EQ(config.GroupLabel(0), L"group 'audit'");
  EXPECT_EQ(config.GroupLabel(1), L"group 1");
  ASSERT_TRUE(config.metrics);
  EXPECT_EQ(config.metrics->path, L"C:\\Module\\wd64.prom");
  EXPECT_EQ(config.metrics->intervalSeconds, 15);
  EXPECT_EQ(config.globalSettings.size(), 2u);  // names compare without case, as the module reads them

  // Every error of one text is found, not only the first, each at its place
  // as a JSON pointer.
  std::vector<Host::Problem> problems;
  Host::ReadConfigText(R"({ "watchdog": { "RefreshIntervalSeconds": 1.5, "RefreshIntervalSeconds": 2 },
                            "logPacker": { "LogsDirectoryPath": "", "LogFileMask": "*.log", "MaxLogFileAgeInHours": 1,
                                           "MaxLogFileSizeInMegabytes": -1 },
                            "freeSpaceWatcher": { "groups": [ { "name": 7, "Paths": [""], "ServiceNames": [] },
                              { "Paths": ["C:\\"], "Paths": ["D:\\"], "FreeSpaceStopServicesLowerBoundGB": 1,
                                "FreeSpaceStopServicesLowerBoundMB": 1 } ] },
                            "metrics": { "path": "m.prom", "every": 5, "intervalSeconds": "5" },
                            "a/b": { "x~y": 1, "x~y": 2 } })",
                       L"inline", L"", problems);
  const char* expected[] = {"/watchdog/RefreshIntervalSeconds: key given twice",
                            "/freeSpaceWatcher/groups/1/Paths: key given twice",
                            "/a~1b/x~0y: key given twice",
                            "/a~1b: unknown section",
                            "/freeSpaceWatcher/groups/0/Paths/0: expected a non-empty string",
                            "/freeSpaceWatcher/groups/0/name: expected a non-empty string",
                            "/freeSpaceWatcher/groups/1: missing required key \"ServiceNames\"",
                            "/freeSpaceWatcher/groups/1/FreeSpaceStopServicesLowerBoundMB: Both",
                            "/logPacker/LogsDirectoryPath: must not be empty",
                            "/logPacker/MaxLogFileSizeInMegabytes: must be 0 to 9223372036854775807",
                            "/metrics/every: unknown key",
                            "/metrics/intervalSeconds: expected a whole number"};
  ASSERT_EQ(problems.size(), std::size(expected));
  for (std::size_t i = 0; i < problems.size(); ++i) {
    const std::string text = Host::Narrow(problems[i].place + L": " + problems[i].message);
    EXPECT_EQ(text.rfind(expected[i], 0), 0u) << text;
  }
  EXPECT_THROW(Host::ParseConfig(R"([1, 2])", L"inline", L""), Host::ConfigError);
  // UTF-16 of an odd length, or with a lone surrogate, is no text.
  std::string utf8;
  EXPECT_FALSE(Host::DecodeText(std::string("\xFF\xFE{\x00x", 5), utf8));
  EXPECT_FALSE(Host::DecodeText(std::string("\xFF\xFE\x00\xD8", 4), utf8));
  const Host::Config defaults = Host::DefaultConfig(L"C:\\Module\\");
  EXPECT_EQ(defaults.source, L"<embedded default>");
  EXPECT_EQ(defaults.watcher->groups.size(), 1u);
}

// Each range key at its exact minimum and maximum, and one beyond each: the
// ranges inside which the module's own arithmetic does not wrap.
TEST(HostConfigParse, EveryRangeKeyTakesItsBoundsAndRefusesOneBeyond) {
  const nlohmann::json base = nlohmann::json::parse(R"({
      "freeSpaceWatcher": { "groups": [ { "Paths": ["C:\\"], "ServiceNames": [] } ] },
      "watchdog": { "RefreshIntervalSeconds": 30 },
      "logPacker": { "LogsDirectoryPath": "C:\\", "LogFileMask": "*.log", "MaxLogFileAgeInHours": 1,
                     "MaxLogFileSizeInMegabytes": 1 },
      "metrics": {} })");
  constexpr std::int64_t kInt32Max = 2147483647, kInt64Max = 9223372036854775807;
  const struct {
    const char* section;
    const char* key;
    std::int64_t minimum, maximum;
  } ranges[] = {
      {"/freeSpaceWatcher", "ActionsPerformIntervalSec", 1, 4294967},
      {"/freeSpaceWatcher/groups/0", "EventResendTimeoutSec", 1, 2147483},
      {"/freeSpaceWatcher/groups/0", "FreeSpaceRecommendedMinimumGB", 0, kInt32Max},
      {"/freeSpaceWatcher/groups/0", "FreeSpaceRecommendedMinimumMB", 0, kInt32Max},
      {"/freeSpaceWatcher/groups/0", "FreeSpaceWarningLowerBoundGB", 0, kInt32Max},
      {"/freeSpaceWatcher/groups/0", "FreeSpaceWarningLowerBoundMB", 0, kInt32Max},
      {"/freeSpaceWatcher/groups/0", "FreeSpaceStopServicesLowerBoundGB", 0, kInt32Max},
      {"/freeSpaceWatcher/groups/0", "FreeSpaceStopServicesLowerBoundMB", 0, kInt32Max},
      {"/freeSpaceWatcher/groups/0", "FreeSpaceRestartServicesLowerBoundGB", 0, kInt32Max},
      {"/freeSpaceWatcher/groups/0", "FreeSpaceRestartServicesLowerBoundMB", 0, kInt32Max},
      {"/watchdog", "RefreshIntervalSeconds", 1, 4294967},
      {"/logPacker", "MaxLogFileAgeInHours", 0, kInt64Max},
      {"/logPacker", "MaxLogFileSizeInMegabytes", 0, kInt64Max},
      {"/logPacker", "MaxArchiveAgeInDays", 0, kInt64Max},
      {"/logPacker", "MaxArchivesTotalSizeInMegabytes", 0, kInt64Max},
      {"/logPacker", "PackIntervalSeconds", 1, 4294967},
      {"/metrics", "intervalSeconds", 1, 86400},
  };
  for (const auto& range : ranges) {
    const std::string place = std::string(range.section) + "/" + range.key;
    const std::pair<nlohmann::json, bool> values[] = {{range.minimum, true},
                                                      {range.maximum, true},
                                                      {range.minimum - 1, false},
                                                      {static_cast<std::uint64_t>(range.maximum) + 1, false}};
    for (const auto& [value, accepted] : values) {
      nlohmann::json document = base;
      document[nlohmann::json::json_pointer(range.section)][range.key] = value;
      std::vector<Host::Problem> problems;
      Host::ReadConfigText(document.dump(), L"inline", L"C:\\Module\\", problems);
      // The bounds' order is judged at the group, not at the key.
      const bool refused = std::any_of(problems.begin(), problems.end(),
                                       [&](const Host::Problem& p) { return Host::Narrow(p.place) == place; });
      EXPECT_EQ(refused, !accepted) << place << " = " << value.dump();
    }
  }
}

// A configuration the reader takes but the module refuses is an error at
// the place of the part the module refused: each watch group is tried alone.
TEST(HostCheck, TheModulesRefusalIsAnErrorAtItsGroup) {
  const std::string folder = Host::Narrow(Kestrel::ModuleDirectory());
  const nlohmann::json group{{"Paths", {folder}}, {"ServiceNames", nlohmann::json::array()}};
  Host::Config config = Host::ParseConfig(nlohmann::json{{"freeSpaceWatcher", {{"groups", {group, group}}}}}.dump(),
                                          L"inline", Kestrel::ModuleDirectory());
  // Past the reader: a stop bound above the warning bound's default.
  config.watcher->groups[1].values.emplace_back(L"FreeSpaceStopServicesLowerBoundGB",
                                                Host::Value{Host::ValueKind::Int32, 50});
  Host::ModuleHost host;
  const Host::CheckReport report = Host::CheckConfiguration(host, config, {});
  ASSERT_EQ(report.Errors(), 1u);
  for (const Host::Problem& problem : report.problems) {
    if (problem.warning) continue;
    EXPECT_EQ(problem.place, L"/freeSpaceWatcher/groups/1");
    EXPECT_EQ(Host::Narrow(problem.message).rfind("the module refuses it: 0x80070057 ", 0), 0u)
        << Host::Narrow(problem.message);
  }
}

// What the service judges before it reads or loads anything, and what an
// administrator reads when it refuses. Wine keeps no owners or DACLs, so the
// files' security descriptors are crafted SDDL, judged for LocalSystem.
TEST(HostTrust, EveryInputAndItsFolderAreJudgedAndRefusalsNameWhoMayWrite) {
  const std::wstring program = L"C:\\Program Files\\WatchDog64", data = L"C:\\ProgramData\\WatchDog64";
  const std::wstring config = data + L"\\w.jsonc", dll = program + L"\\WatchDog64.dll", ini = L"C:\\Ini\\gs.ini";
  const std::wstring exe = program + L"\\wd64host.exe", layer = program + L"\\DataLayer.dll";
  const auto inputs = Host::InputsToTrust(exe, config, ini, {program + L"\\wd64host.ini", program + L"\\G.ini"});
  const std::wstring locked = L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";
  std::map<std::wstring, std::wstring> disk{{L"C:\\", L"O:SYD:(A;OICI;FA;;;SY)(A;CI;LC;;;AU)(A;OICIIO;GA;;;CO)"}};
  for (const std::wstring& path : {program, exe, dll, layer, data, config}) disk[path] = locked;
  std::vector<std::wstring> asked;
  auto refusals = [&] {
    asked.clear();
    std::vector<std::string> texts;
    const auto judge = [&](const std::wstring& path) -> std::optional<Kestrel::TrustVerdict> {
      asked.push_back(path);
      if (!disk.count(path)) return std::nullopt;
      if (disk[path].empty()) Kestrel::ThrowWin32(ERROR_ACCESS_DENIED);
      return Kestrel::JudgeSddl(disk[path], L"S-1-5-18");
    };
    for (const Host::Problem& problem : Host::JudgeInputs(inputs, judge)) texts.push_back(Host::Narrow(problem.Text()));
    return texts;
  };
  const std::string rule = " (only SYSTEM, Administrators, TrustedInstaller and the account the host runs as may own "
                           "or change what it acts on)";

  // Each file with the folder holding it, each folder once; a missing file by
  // the nearest folder that would hold it: the drive's root, where any user
  // may make the missing folder.
  EXPECT_EQ(refusals(), std::vector<std::string>{"C:\\: folder that would hold the settings file (GLOBAL_SETTINGS_INI) "
                                                 "C:\\Ini\\gs.ini: NT AUTHORITY\\Authenticated Users (S-1-5-11) may "
                                                 "write to it" + rule});
  EXPECT_EQ(asked, (std::vector<std::wstring>{program, exe, dll, layer, config, data, ini, L"C:\\Ini", L"C:\\",
                                              program + L"\\wd64host.ini", program + L"\\G.ini"}));

  // A module left open to everyone, one whose descriptor cannot be read, and
  // a configuration a user planted in the folder ProgramData made.
  disk[L"C:\\Ini"] = locked;
  disk[dll] = L"O:BAD:(A;;FA;;;SY)(A;;FA;;;WD)";
  disk[layer] = L"";
  disk[data] = L"O:BAD:(A;OICIID;FA;;;SY)(A;OICIID;FA;;;BA)(A;CIID;DCLCRPCR;;;BU)";
  disk[config] = L"O:S-1-5-21-7-7-7-1001D:(A;;FA;;;S-1-5-21-7-7-7-1001)(A;;FA;;;SY)";
  const auto texts = refusals();
  ASSERT_EQ(texts.size(), 4u);
  EXPECT_EQ(texts[0], Host::Narrow(dll) + ": module: Everyone (S-1-1-0) may write to it" + rule);
  EXPECT_EQ(texts[1].find(": module: its owner and access cannot be read: "), Host::Narrow(program).size() + 14);
  EXPECT_EQ(texts[2], "C:\\ProgramData\\WatchDog64\\w.jsonc: configuration: S-1-5-21-7-7-7-1001 owns it" + rule);
  EXPECT_EQ(texts[3], "C:\\ProgramData\\WatchDog64: folder of the configuration C:\\ProgramData\\WatchDog64\\w.jsonc: "
                      "BUILTIN\\Users (S-1-5-32-545) may write to it" + rule);
}

}  // namespace
