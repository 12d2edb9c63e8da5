// wd64host run as a separate process under Wine, the way an administrator
// runs it: the exit code and output of each command, configuration errors,
// and the service's life in Wine's service manager.

#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "Config.h"
#include "ModulePath.h"
#include "Processes.h"

namespace fs = std::filesystem;

namespace {

struct Result {
  DWORD exitCode = 0xFFFFFFFF;
  std::string output;  // stdout and stderr together
};

// Runs wd64host.exe with `arguments` and waits at most `timeoutMs`.
Result RunHost(const std::wstring& arguments, DWORD timeoutMs = 60000) {
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  HANDLE readPipe = nullptr, writePipe = nullptr;
  CreatePipe(&readPipe, &writePipe, &inherit, 0);
  SetHandleInformation(readPipe, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = writePipe;
  startup.hStdError = writePipe;
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  std::wstring command = L"\"" + Kestrel::ModuleDirectory() + L"wd64host.exe\" " + arguments;
  PROCESS_INFORMATION process{};
  Result result;
  if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
    result.output = "cannot start wd64host.exe";
    CloseHandle(readPipe);
    CloseHandle(writePipe);
    return result;
  }
  CloseHandle(writePipe);
  char buffer[4096];
  DWORD read = 0;
  while (ReadFile(readPipe, buffer, sizeof buffer, &read, nullptr) && read > 0) result.output.append(buffer, read);
  CloseHandle(readPipe);
  if (WaitForSingleObject(process.hProcess, timeoutMs) != WAIT_OBJECT_0) TerminateProcess(process.hProcess, 999);
  GetExitCodeProcess(process.hProcess, &result.exitCode);
  CloseHandle(process.hProcess);
  CloseHandle(process.hThread);
  return result;
}

// Every piece must appear in the output.
void ExpectOutput(const Result& result, std::initializer_list<const char*> pieces) {
  for (const char* piece : pieces) {
    EXPECT_NE(result.output.find(piece), std::string::npos) << piece << "\n" << result.output;
  }
}

fs::path TestFolder(const char* name) {
  const fs::path folder = fs::path(Kestrel::ModuleDirectory()) / L"host-tests" / name;
  fs::remove_all(folder);
  fs::create_directories(folder);
  return folder;
}

void WriteFile(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::string ReadUtf16(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return Host::Narrow(std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / 2));
}

std::string Json(const fs::path& path) {
  std::string text = Host::Narrow(path.wstring());
  std::string escaped;
  for (char c : text) {
    if (c == '\\') escaped += '\\';
    escaped += c;
  }
  return "\"" + escaped + "\"";
}

TEST(HostRun, WatchesPacksAndShutsDownCleanly) {
  const fs::path folder = TestFolder("run");
  const fs::path logs = folder / "logs";
  fs::create_directories(logs);
  WriteFile(logs / "big.log", std::string(2 * 1024 * 1024 + 1, 'x'));
  WriteFile(logs / "small.log", "fresh\r\n");
  // A victim left by an interrupted run goes first; this one is stopped and
  // gone before the next run can ask for the name.
  TestSupport::TestService service(L"WD64HostRunVictim");
  ASSERT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));

  ULARGE_INTEGER available{};
  ASSERT_TRUE(GetDiskFreeSpaceExW(folder.c_str(), &available, nullptr, nullptr));
  const long long freeMb = static_cast<long long>(available.QuadPart >> 20);
  const fs::path events = folder / "events.log";
  const fs::path config = folder / "config.jsonc";
  WriteFile(config,
            "{\n"
            "  // everything at once, on short intervals\n"
            "  \"globalSettings\": { \"EventReporting\": { \"EventsLogFile\": " +
                Json(events) +
                " } },\n"
                "  \"freeSpaceWatcher\": { \"ActionsPerformIntervalSec\": 1, \"groups\": [ {\n"
                "    \"FreeSpaceStopServicesLowerBoundMB\": " +
                std::to_string(freeMb + 1024) +
                ",\n"
                "    \"FreeSpaceWarningLowerBoundMB\": " +
                std::to_string(freeMb + 2048) +
                ",\n"
                "    \"FreeSpaceRecommendedMinimumMB\": " +
                std::to_string(freeMb + 4096) +
                ",\n"
                "    \"Paths\": [ " +
                Json(folder) +
                " ], \"ServiceNames\": [ \"WD64HostRunVictim\" ] } ] },\n"
                "  \"watchdog\": { \"RefreshIntervalSeconds\": 1 },\n"
                "  \"logPacker\": { \"LogsDirectoryPath\": " +
                Json(logs) +
                ", \"LogFileMask\": \"*.log\",\n"
                "    \"MaxLogFileAgeInHours\": 24, \"MaxLogFileSizeInMegabytes\": 2 }\n"
                "}\n");

  const Result result = RunHost(L"run --for 5 --config \"" + config.wstring() + L"\"");
  EXPECT_EQ(result.exitCode, 0u) << result.output;
  ExpectOutput(result, {"log packer: packed 1 file, 2097153 bytes into logs_", "free-space watcher: configured, 1 group(s)",
                        "watchdog: configured, heartbeat every 1 s", "free-space watcher: stopped", "watchdog: stopped",
                        "log packer: released"});

  const std::string entries = ReadUtf16(events);
  EXPECT_NE(entries.find("EventId: 4302; Type: 'Error'(1)"), std::string::npos) << entries;
  EXPECT_NE(entries.find("WD64HostRunVictim"), std::string::npos) << entries;
  EXPECT_TRUE(TestSupport::WaitForServiceState(service.service, SERVICE_STOPPED));

  EXPECT_FALSE(fs::exists(logs / "big.log"));
  EXPECT_TRUE(fs::exists(logs / "small.log"));
  int archives = 0;
  for (const auto& entry : fs::directory_iterator(logs)) {
    if (entry.path().filename().string().rfind("logs_", 0) == 0) ++archives;
  }
  EXPECT_EQ(archives, 1);
}

TEST(HostConfig, ErrorsNameTheFileAndThePlaceAndNothingStarts) {
  const fs::path folder = TestFolder("config");
  const fs::path events = folder / "events.log";
  struct Case {
    std::string text;
    std::string expected;
  };
  const Case cases[] = {
      {"{ \"watchdog\": { \"RefreshIntervalSeconds\": 30, } ",
       "line 2, column 46: syntax error while parsing object key"},
      {"{ \"watchdog\": { \"RefreshIntervalSeconds\": \"30\" } }",
       "/watchdog/RefreshIntervalSeconds: expected a whole number"},
      {"{ \"watchdg\": {} }", "/watchdg: unknown section"},
      {"{ \"freeSpaceWatcher\": { \"groups\": [ { \"Paths\": [\"C:\\\\\"] } ] } }",
       "/freeSpaceWatcher/groups/0: missing required key \"ServiceNames\""},
      {"{ \"freeSpaceWatcher\": { \"ActionsPerformIntervalSec\": 3000000000 } }",
       "/freeSpaceWatcher/ActionsPerformIntervalSec: must be 1 to 4294967"},
      {"{ \"freeSpaceWatcher\": { \"groups\": [ { \"Paths\": [], \"ServiceNames\": [],"
       " \"FreeSpaceWarningLowerBoundGB\": 1, \"FreeSpaceWarningLowerBoundMB\": 1024, \"FreeSpaceWarningLowerBoundGB\": 2 } ] } }",
       "/freeSpaceWatcher/groups/0/FreeSpaceWarningLowerBoundMB: give"},
  };
  for (const Case& c : cases) {
    const fs::path config = folder / "bad.jsonc";
    WriteFile(config, "{ \"globalSettings\": { \"EventReporting\": { \"EventsLogFile\": " + Json(events) + " } },\n" +
                          c.text.substr(1));
    const Result result = RunHost(L"run --for 1 --config \"" + config.wstring() + L"\"");
    EXPECT_EQ(result.exitCode, 2u) << c.text << "\n" << result.output;
    ExpectOutput(result, {"bad.jsonc: "});
    EXPECT_NE(result.output.find(c.expected), std::string::npos) << result.output;
    EXPECT_EQ(result.output.find("running"), std::string::npos) << result.output;
    EXPECT_EQ(result.output.find("configured"), std::string::npos) << result.output;
  }
  EXPECT_FALSE(fs::exists(events));
}

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

  // Every error of one text is found, not only the first.
  std::vector<Host::Problem> problems;
  Host::ReadConfigText(R"({ "watchdog": { "RefreshIntervalSeconds": 1.5, "RefreshIntervalSeconds": 2 },
                            "logPacker": { "LogsDirectoryPath": "", "LogFileMask": "*.log", "MaxLogFileAgeInHours": 1,
                                           "MaxLogFileSizeInMegabytes": -1 },
                            "freeSpaceWatcher": { "groups": [ { "name": 7, "Paths": [""], "ServiceNames": [] } ] },
                            "metrics": { "path": "m.prom", "every": 5 } })",
                       L"inline", L"", problems);
  std::vector<std::wstring> places;
  for (const Host::Problem& problem : problems) places.push_back(problem.place);
  EXPECT_EQ(places, (std::vector<std::wstring>{L"/watchdog/RefreshIntervalSeconds", L"/freeSpaceWatcher/groups/0/Paths/0",
                                               L"/freeSpaceWatcher/groups/0/name", L"/logPacker/LogsDirectoryPath",
                                               L"/logPacker/MaxLogFileSizeInMegabytes", L"/metrics/every"}));
  EXPECT_THROW(Host::ParseConfig(R"([1, 2])", L"inline", L""), Host::ConfigError);
  const Host::Config defaults = Host::DefaultConfig(L"C:\\Module\\");
  EXPECT_EQ(defaults.source, L"<embedded default>");
  EXPECT_EQ(defaults.watcher->groups.size(), 1u);
}

TEST(HostConfigParse, DuplicateKeysAndEncodings) {
  std::vector<Host::Problem> problems;
  Host::ReadConfigText(R"({ "freeSpaceWatcher": { "groups": [ { "Paths": ["C:\\"], "ServiceNames": [] },
                             { "Paths": ["C:\\"], "Paths": ["D:\\"], "ServiceNames": [] } ] },
                            "a/b": { "x~y": 1, "x~y": 2 } })",
                       L"inline", L"", problems);
  ASSERT_GE(problems.size(), 2u);
  EXPECT_EQ(problems[0].place, L"/freeSpaceWatcher/groups/1/Paths");
  EXPECT_EQ(problems[1].place, L"/a~1b/x~0y");

  const std::wstring text = L"{ \"watchdog\": { \"RefreshIntervalSeconds\": 30 } } \u00DF\u65E5";
  std::string little = "\xFF\xFE", big = "\xFE\xFF";
  for (wchar_t c : text) {
    little += static_cast<char>(c & 0xFF);
    little += static_cast<char>(c >> 8);
    big += static_cast<char>(c >> 8);
    big += static_cast<char>(c & 0xFF);
  }
  std::string utf8;
  ASSERT_TRUE(Host::DecodeText(little, utf8));
  EXPECT_EQ(Host::Widen(utf8), text);
  ASSERT_TRUE(Host::DecodeText(big, utf8));
  EXPECT_EQ(Host::Widen(utf8), text);
  ASSERT_TRUE(Host::DecodeText("\xEF\xBB\xBF{}", utf8));
  EXPECT_EQ(utf8, "{}");
  EXPECT_FALSE(Host::DecodeText(little + "x", utf8));                 // odd length
  EXPECT_FALSE(Host::DecodeText(std::string("\xFF\xFE\x00\xD8", 4), utf8));  // a lone surrogate
}

}  // namespace
