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

struct ScCloser {
  void operator()(SC_HANDLE handle) const noexcept { CloseServiceHandle(handle); }
};
using ScHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, ScCloser>;

DWORD WaitForState(SC_HANDLE service, DWORD wanted, DWORD timeoutMs) {
  SERVICE_STATUS status{};
  for (DWORD waited = 0; waited < timeoutMs; waited += 100) {
    if (QueryServiceStatus(service, &status) && status.dwCurrentState == wanted) break;
    Sleep(100);
  }
  return status.dwCurrentState;
}

// A running test_service.exe registered under `name`; removed again on exit.
class RunningService {
 public:
  explicit RunningService(const wchar_t* name) : m_manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)) {
    const std::wstring binary = L"\"" + Kestrel::ModuleDirectory() + L"test_service.exe\"";
    m_service.reset(CreateServiceW(m_manager.get(), name, name, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                                   SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, binary.c_str(), nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
    if (m_service) StartServiceW(m_service.get(), 0, nullptr);
  }
  ~RunningService() {
    if (!m_service) return;
    SERVICE_STATUS status{};
    ControlService(m_service.get(), SERVICE_CONTROL_STOP, &status);
    DeleteService(m_service.get());
  }
  SC_HANDLE Get() const { return m_service.get(); }

 private:
  ScHandle m_manager;
  ScHandle m_service;
};

TEST(HostRun, WatchesPacksAndShutsDownCleanly) {
  const fs::path folder = TestFolder("run");
  const fs::path logs = folder / "logs";
  fs::create_directories(logs);
  WriteFile(logs / "big.log", std::string(2 * 1024 * 1024 + 1, 'x'));
  WriteFile(logs / "small.log", "fresh\r\n");
  RunningService service(L"WD64HostRunVictim");
  ASSERT_NE(service.Get(), nullptr);
  ASSERT_EQ(WaitForState(service.Get(), SERVICE_RUNNING, 10000), static_cast<DWORD>(SERVICE_RUNNING));

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
  ExpectOutput(result, {"log packer: pack run finished", "free-space watcher: stopped", "watchdog: stopped"});

  const std::string entries = ReadUtf16(events);
  EXPECT_NE(entries.find("EventId: 4302; Type: 'Error'(1)"), std::string::npos) << entries;
  EXPECT_NE(entries.find("WD64HostRunVictim"), std::string::npos) << entries;
  EXPECT_EQ(WaitForState(service.Get(), SERVICE_STOPPED, 10000), static_cast<DWORD>(SERVICE_STOPPED));

  EXPECT_FALSE(fs::exists(logs / "big.log"));
  EXPECT_TRUE(fs::exists(logs / "small.log"));
  int archives = 0;
  for (const auto& entry : fs::directory_iterator(logs)) {
    if (entry.path().filename().string().rfind("logs_", 0) == 0) ++archives;
  }
  EXPECT_EQ(archives, 1);
}

TEST(HostRequest, TableAndJsonAgree) {
  const Result table = RunHost(L"request ListDisks");
  ASSERT_EQ(table.exitCode, 0u) << table.output;
  EXPECT_EQ(table.output.rfind("Node ", 0), 0u) << table.output;
  ExpectOutput(table, {"C:\\"});

  const Result json = RunHost(L"request ListDisks --json");
  ASSERT_EQ(json.exitCode, 0u) << json.output;
  const auto parsed = nlohmann::json::parse(json.output);
  EXPECT_EQ(parsed["request"], "ListDisks");
  ASSERT_GE(parsed["items"].size(), 1u);
  const auto& first = parsed["items"][0];
  EXPECT_EQ(first["type"], "Disk");
  EXPECT_EQ(first["name"], first["NtPath"]);
  EXPECT_NE(table.output.find(first["NtPath"].get<std::string>()), std::string::npos);

  const Result space = RunHost(L"request QueryFreeSpace \"DirectoryPaths=C:\\;%TEMP%\" --json");
  ASSERT_EQ(space.exitCode, 0u) << space.output;
  const auto freeSpace = nlohmann::json::parse(space.output)["FreeSpace"];
  ASSERT_EQ(freeSpace.size(), 2u);
  EXPECT_EQ(freeSpace[1]["path"], "%TEMP%");
  EXPECT_GT(freeSpace[0]["freeBytes"].get<long long>(), 0);

  // A module failure reaches the administrator with the module's text.
  const Result missing = RunHost(L"request QueryFreeSpace \"DirectoryPaths=Q:\\nowhere\"");
  EXPECT_EQ(missing.exitCode, 1u);
  // Path or file not found, as the system says it for a missing drive.
  ExpectOutput(missing, {"QueryFreeSpace failed: 0x8007000"});

  const Result unknown = RunHost(L"request listdisks");
  EXPECT_EQ(unknown.exitCode, 2u);
  ExpectOutput(unknown, {"unknown request 'listdisks'"});
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
      {"{ \"watchdg\": {} }", "/watchdg: unknown component"},
      {"{ \"freeSpaceWatcher\": { \"groups\": [ { \"Paths\": [\"C:\\\\\"] } ] } }",
       "/freeSpaceWatcher/groups/0: missing required key \"ServiceNames\""},
      {"{ \"freeSpaceWatcher\": { \"ActionsPerformIntervalSec\": 3000000000 } }",
       "/freeSpaceWatcher/ActionsPerformIntervalSec: number out of the 32-bit range"},
      {"{ \"freeSpaceWatcher\": { \"groups\": [ { \"Paths\": [], \"ServiceNames\": [],"
       " \"FreeSpaceWarningLowerBoundGB\": 1, \"FreeSpaceWarningLowerBoundMB\": 1024 } ] } }",
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
  }
  EXPECT_FALSE(fs::exists(events));
}

TEST(HostCheck, NamesTheFailingGroupWithTheModulesDescription) {
  const fs::path folder = TestFolder("check");
  const fs::path config = folder / "check.jsonc";
  WriteFile(config,
            "{ \"freeSpaceWatcher\": { \"groups\": [\n"
            "  { \"Paths\": [\"C:\\\\\"], \"ServiceNames\": [] },\n"
            "  { \"Paths\": [\"C:\\\\\"], \"ServiceNames\": [], \"FreeSpaceStopServicesLowerBoundGB\": 30 } ] },\n"
            "  \"watchdog\": { \"RefreshIntervalSeconds\": 30 } }\n");
  const Result result = RunHost(L"check --config \"" + config.wstring() + L"\"");
  EXPECT_EQ(result.exitCode, 1u) << result.output;
  ExpectOutput(result, {"ok      /freeSpaceWatcher/groups/0", "FAILED  /freeSpaceWatcher/groups/1: 0x80070057",
                        "ok      /watchdog", "event source 'Vigil Hub'"});

  const Result defaults = RunHost(L"check");
  EXPECT_EQ(defaults.exitCode, 0u) << defaults.output;
  ExpectOutput(defaults, {"configuration is valid"});
}

TEST(HostService, InstallStartStopUninstall) {
  const fs::path folder = TestFolder("service");
  const fs::path config = folder / "service.jsonc";
  WriteFile(config, "{ \"watchdog\": { \"RefreshIntervalSeconds\": 1 } }");
  const wchar_t* name = L"WD64HostServiceTest";
  const Result install =
      RunHost(L"service install --name " + std::wstring(name) + L" --config \"" + config.wstring() + L"\"");
  ASSERT_EQ(install.exitCode, 0u) << install.output;

  ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  ScHandle service(OpenServiceW(manager.get(), name, SERVICE_ALL_ACCESS));
  ASSERT_TRUE(service);
  EXPECT_TRUE(StartServiceW(service.get(), 0, nullptr)) << GetLastError();
  EXPECT_EQ(WaitForState(service.get(), SERVICE_RUNNING, 20000), static_cast<DWORD>(SERVICE_RUNNING));
  SERVICE_STATUS status{};
  EXPECT_TRUE(ControlService(service.get(), SERVICE_CONTROL_STOP, &status));
  EXPECT_EQ(WaitForState(service.get(), SERVICE_STOPPED, 20000), static_cast<DWORD>(SERVICE_STOPPED));
  QueryServiceStatus(service.get(), &status);
  EXPECT_EQ(status.dwWin32ExitCode, static_cast<DWORD>(NO_ERROR));
  service.reset();

  const Result uninstall = RunHost(L"service uninstall --name " + std::wstring(name));
  EXPECT_EQ(uninstall.exitCode, 0u) << uninstall.output;
  ScHandle gone(OpenServiceW(manager.get(), name, SERVICE_QUERY_STATUS));
  EXPECT_FALSE(gone);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST));
}

TEST(HostConfigParse, TypesRangesAndRelativePaths) {
  const Host::Config config = Host::ParseConfig(
      R"({ "logPacker": { "LogsDirectoryPath": "Logs", "LogFileMask": "*.log", "MaxLogFileAgeInHours": 1,
           "MaxLogFileSizeInMegabytes": 9223372036854775807 },
           "watchdog": { "RefreshIntervalSeconds": -5 } })",
      L"inline", L"C:\\Module\\");
  ASSERT_TRUE(config.packer);
  EXPECT_EQ(config.packer->settings.Find(L"LogsDirectoryPath")->text, L"C:\\Module\\Logs");
  EXPECT_EQ(config.packer->settings.Find(L"MaxLogFileSizeInMegabytes")->number, 9223372036854775807LL);
  EXPECT_EQ(config.packer->packIntervalSeconds, 3600);
  EXPECT_EQ(config.watchdog->Find(L"RefreshIntervalSeconds")->number, -5);  // the module decides what it means
  EXPECT_FALSE(config.watcher);

  EXPECT_THROW(Host::ParseConfig(R"({ "watchdog": { "RefreshIntervalSeconds": 1.5 } })", L"inline", L""),
               Host::ConfigError);
  EXPECT_THROW(
      Host::ParseConfig(R"({ "watchdog": { "RefreshIntervalSeconds": 18446744073709551615 } })", L"inline", L""),
      Host::ConfigError);
  EXPECT_THROW(Host::ParseConfig(R"([1, 2])", L"inline", L""), Host::ConfigError);
  const Host::Config defaults = Host::DefaultConfig(L"C:\\Module\\");
  EXPECT_EQ(defaults.source, L"<embedded default>");
  EXPECT_EQ(defaults.watcher->groups.size(), 1u);
}

}  // namespace
