// The host's metrics file on the real platform: free space of real folders,
// services in Wine's service manager, pack runs, and the file's replacement
// under readers, a second writer, killed writers and held or missing files.
// Each written file gets an expectations file beside it; check_metrics.py
// parses both afterwards with the Prometheus client's own text parser.

#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "Config.h"
#include "Metrics.h"
#include "ModuleHost.h"
#include "ModulePath.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr const char* kLastLine = "wd64_build_info{version=\"7.0.127.0\"} 1\n";
constexpr std::int64_t kMB = std::int64_t{1} << 20;

fs::path Artifacts() {
  wchar_t value[MAX_PATH * 2];
  const DWORD length = GetEnvironmentVariableW(L"WD64_METRICS_ARTIFACTS", value, MAX_PATH * 2);
  const fs::path folder = length > 0 && length < MAX_PATH * 2
                              ? fs::path(value)
                              : fs::path(Kestrel::ModuleDirectory()) / L"metrics-artifacts";
  fs::create_directories(folder);
  return folder;
}

fs::path TestFolder(const wchar_t* name) {
  const fs::path folder = fs::path(Kestrel::ModuleDirectory()) / L"metrics-tests" / name;
  fs::remove_all(folder);
  fs::create_directories(folder);
  return folder;
}

std::string Utf8(const std::wstring& text) { return Host::Narrow(text); }

std::uint64_t TotalFree(const fs::path& path) {
  ULARGE_INTEGER total{};
  EXPECT_TRUE(GetDiskFreeSpaceExW(path.c_str(), nullptr, nullptr, &total)) << path.string();
  return total.QuadPart;
}

Host::Config ConfigOf(const json& document) {
  return Host::ParseConfig(document.dump(), L"metrics test", Kestrel::ModuleDirectory());
}

json Group(const std::vector<std::wstring>& paths, const std::vector<std::wstring>& services) {
  json group{{"Paths", json::array()}, {"ServiceNames", json::array()}};
  for (const auto& path : paths) group["Paths"].push_back(Utf8(path));
  for (const auto& name : services) group["ServiceNames"].push_back(Utf8(name));
  return group;
}

std::string ReadAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

bool Whole(const std::string& text) {
  return text.rfind("# HELP wd64_free_bytes ", 0) == 0 && text.size() > std::strlen(kLastLine) &&
         text.compare(text.size() - std::strlen(kLastLine), std::string::npos, kLastLine) == 0;
}

// Temporaries in `folder`, but for those of a writer that is still at work.
int Temporaries(const fs::path& folder, DWORD livingPid = 0) {
  const std::wstring living = L"." + std::to_wstring(livingPid) + L"-";
  int count = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::wstring name = entry.path().filename().wstring();
    count += entry.path().extension() == L".tmp" && (livingPid == 0 || name.find(living) == std::wstring::npos);
  }
  return count;
}

// The file's text once it can be opened: a replace in progress refuses
// readers for a moment.
std::string ReadWhenOpen(const fs::path& path) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    HANDLE file =
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
      Sleep(10);
      continue;
    }
    std::string text;
    char buffer[4096];
    DWORD got = 0;
    while (ReadFile(file, buffer, sizeof buffer, &got, nullptr) && got > 0) text.append(buffer, got);
    CloseHandle(file);
    return text;
  }
  return "<never opened>";
}

// What check_metrics.py must find in one written file.
class Expectations {
 public:
  explicit Expectations(std::string file) : m_document{{"file", std::move(file)}, {"samples", json::array()}} {}
  // `{}` for no labels arrives as null.
  static json Labels(json labels) { return labels.is_null() ? json::object() : labels; }
  Expectations& Value(const char* name, json labels, double value) {
    m_document["samples"].push_back({{"name", name}, {"labels", Labels(std::move(labels))}, {"value", value}});
    return *this;
  }
  Expectations& Range(const char* name, json labels, double low, double high) {
    m_document["samples"].push_back(
        {{"name", name}, {"labels", Labels(std::move(labels))}, {"min", low}, {"max", high}});
    return *this;
  }
  Expectations& Absent(const char* name, json labels = json::object()) {
    m_document["samples"].push_back({{"name", name}, {"labels", Labels(std::move(labels))}, {"absent", true}});
    return *this;
  }
  void Save() const {
    const fs::path file = Artifacts() / (m_document["file"].get<std::string>() + ".json");
    std::ofstream(file, std::ios::binary) << m_document.dump(2);
  }

 private:
  json m_document;
};

struct ScCloser {
  void operator()(SC_HANDLE handle) const noexcept { CloseServiceHandle(handle); }
};
using ScHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, ScCloser>;

DWORD ServiceState(SC_HANDLE service) {
  SERVICE_STATUS status{};
  return QueryServiceStatus(service, &status) ? status.dwCurrentState : 0;
}

bool WaitForState(SC_HANDLE service, DWORD wanted) {
  for (int i = 0; i < 200 && ServiceState(service) != wanted; ++i) Sleep(100);
  return ServiceState(service) == wanted;
}

// test_service.exe registered under `name` and started; removed on exit.
class TestService {
 public:
  explicit TestService(const wchar_t* name) : m_manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)) {
    if (ScHandle stale{OpenServiceW(m_manager.get(), name, SERVICE_ALL_ACCESS)}) Remove(stale.get());
    const std::wstring binary = L"\"" + Kestrel::ModuleDirectory() + L"test_service.exe\"";
    m_service.reset(CreateServiceW(m_manager.get(), name, name, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                                   SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE, binary.c_str(), nullptr, nullptr,
                                   nullptr, nullptr, nullptr));
    EXPECT_TRUE(m_service) << "CreateServiceW: " << GetLastError();
    EXPECT_TRUE(StartServiceW(m_service.get(), 0, nullptr) && WaitForState(m_service.get(), SERVICE_RUNNING));
  }
  ~TestService() {
    if (m_service) Remove(m_service.get());
  }
  bool Stop() {
    SERVICE_STATUS status{};
    ControlService(m_service.get(), SERVICE_CONTROL_STOP, &status);
    return WaitForState(m_service.get(), SERVICE_STOPPED);
  }

 private:
  static void Remove(SC_HANDLE service) {
    SERVICE_STATUS status{};
    ControlService(service, SERVICE_CONTROL_STOP, &status);
    WaitForState(service, SERVICE_STOPPED);
    DeleteService(service);
  }
  ScHandle m_manager;
  ScHandle m_service;
};

// This test program again, as a second writer of `target` (see MetricsChild).
class ChildWriter {
 public:
  ChildWriter(const fs::path& target, int count) {
    wchar_t self[MAX_PATH * 2];
    GetModuleFileNameW(nullptr, self, MAX_PATH * 2);
    std::wstring command = L"\"" + std::wstring(self) + L"\" --gtest_filter=MetricsChild.* --gtest_brief=1";
    SetEnvironmentVariableW(L"WD64_METRICS_CHILD_TARGET", target.c_str());
    SetEnvironmentVariableW(L"WD64_METRICS_CHILD_COUNT", std::to_wstring(count).c_str());
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    m_started = CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr,
                               &startup, &m_process) != FALSE;
    SetEnvironmentVariableW(L"WD64_METRICS_CHILD_TARGET", nullptr);
    SetEnvironmentVariableW(L"WD64_METRICS_CHILD_COUNT", nullptr);
    EXPECT_TRUE(m_started) << GetLastError();
  }
  ~ChildWriter() {
    if (!m_started) return;
    Kill();
    CloseHandle(m_process.hProcess);
    CloseHandle(m_process.hThread);
  }
  // The child's failed writes, or -1 when it did not end by itself.
  int Wait() {
    DWORD code = 0;
    if (!m_started || WaitForSingleObject(m_process.hProcess, 300000) != WAIT_OBJECT_0) return -1;
    GetExitCodeProcess(m_process.hProcess, &code);
    return static_cast<int>(code);
  }
  DWORD Pid() const { return m_process.dwProcessId; }
  void Kill() {
    TerminateProcess(m_process.hProcess, 999);
    WaitForSingleObject(m_process.hProcess, INFINITE);
  }

 private:
  PROCESS_INFORMATION m_process{};
  bool m_started = false;
};

// Reads `target` the way a collector does (sharing read and write, not
// delete, so a replace has to wait for it) until told to stop, counting whole
// and partial reads.
class Reader {
 public:
  explicit Reader(fs::path target) : m_target(std::move(target)), m_thread([this] { Run(); }) {}
  ~Reader() { Stop(); }
  void Stop() {
    m_stop = true;
    if (m_thread.joinable()) m_thread.join();
  }
  int reads = 0, partial = 0, unopened = 0;
  std::set<DWORD> openErrors;
  std::string Codes() const {
    std::string codes;
    for (DWORD code : openErrors) {
      if (!codes.empty()) codes += ',';
      codes += std::to_string(code);
    }
    return codes;
  }
  std::string firstPartial;

 private:
  void Run() {
    while (!m_stop) {
      HANDLE file = CreateFileW(m_target.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_EXISTING, 0, nullptr);
      if (file == INVALID_HANDLE_VALUE) {
        // Refused (sharing violation) while a writer holds the file for its
        // replace, or not there yet before the first write.
        ++unopened;
        openErrors.insert(GetLastError());
        continue;
      }
      std::string text;
      char buffer[4096];
      DWORD got = 0;
      while (ReadFile(file, buffer, sizeof buffer, &got, nullptr) && got > 0) text.append(buffer, got);
      CloseHandle(file);
      ++reads;
      if (!Whole(text)) {
        if (partial++ == 0) firstPartial = text;
      }
      Sleep(1);  // a collector never reads back to back; without a gap a replace can starve
    }
  }
  fs::path m_target;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

}  // namespace

// Runs only as the child of ChildWriter: writes the metrics file COUNT times
// (0: until killed) and exits with the number of failed writes.
TEST(MetricsChild, WritesWhenStartedAsASecondProcess) {
  wchar_t target[MAX_PATH * 2], count[32];
  if (GetEnvironmentVariableW(L"WD64_METRICS_CHILD_TARGET", target, MAX_PATH * 2) == 0 ||
      GetEnvironmentVariableW(L"WD64_METRICS_CHILD_COUNT", count, 32) == 0) {
    GTEST_SKIP() << "runs as a second writer only";
  }
  const fs::path folder = fs::path(target).parent_path();
  const auto config =
      ConfigOf({{"freeSpaceWatcher", {{"groups", {Group({folder.wstring()}, {L"WD64NoSuchService"})}}}}});
  Host::ModuleHost host;
  Host::MetricsWriter writer(target, config, host);
  const int writes = std::stoi(count);
  int failures = 0;
  for (int i = 0; writes == 0 || i < writes; ++i) failures += !writer.Write();
  std::fflush(nullptr);
  ExitProcess(static_cast<UINT>(failures));
}

TEST(MetricsRules, LevelsBoundsPathsAndEscaping) {
  const Host::GroupBounds bounds{300, 200, 100};
  const std::pair<std::vector<std::optional<std::uint64_t>>, int> levels[] = {
      {{}, 0},
      {{300}, 0},
      {{299}, 1},
      {{200}, 1},  // equal to the warning bound is not below it
      {{199}, 2},
      {{100}, 2},  // equal to the stop bound is not below it
      {{99}, 3},
      {{std::nullopt}, 0},  // unreadable paths do not count
      {{std::nullopt, 50}, 3},
      {{1000, 150, 250}, 2},
      {{~std::uint64_t{0}}, 0},  // beyond the signed range: far above every bound
  };
  for (const auto& [samples, level] : levels) EXPECT_EQ(Host::GroupLevel(samples, bounds), level) << samples.size();

  const auto config = ConfigOf({{"freeSpaceWatcher",
                                 {{"groups",
                                   {Group({L"C:\\"}, {}), json{{"Paths", {"C:\\"}},
                                                               {"ServiceNames", json::array()},
                                                               {"FreeSpaceRecommendedMinimumGB", 3},
                                                               {"FreeSpaceWarningLowerBoundMB", 2048},
                                                               {"FreeSpaceStopServicesLowerBoundMB", 1}}}}}}});
  const auto defaults = Host::ReadBounds(config.watcher->groups[0]);
  EXPECT_EQ(defaults.recommended, 107374182400);
  EXPECT_EQ(defaults.warning, 21474836480);
  EXPECT_EQ(defaults.stop, 5368709120);
  const auto given = Host::ReadBounds(config.watcher->groups[1]);
  EXPECT_EQ(given.recommended, 3 * 1024 * kMB);
  EXPECT_EQ(given.warning, 2048 * kMB);
  EXPECT_EQ(given.stop, kMB);
  EXPECT_EQ(Host::GroupLabel(config.watcher->groups[1], 1), L"1");

  const std::wstring module = Kestrel::ModuleDirectory();
  SetEnvironmentVariableW(L"WD64_METRICS_BASE", L"C:\\base");
  const std::wstring longValue = L"C:\\" + std::wstring(300, L'x');
  SetEnvironmentVariableW(L"WD64_METRICS_LONG", longValue.c_str());
  EXPECT_EQ(Host::WatchedPath(L"%WD64_METRICS_BASE%\\data", module), L"C:\\base\\data");
  EXPECT_EQ(Host::WatchedPath(L"%WD64_METRICS_LONG%\\d", module), longValue + L"\\d");
  EXPECT_EQ(Host::WatchedPath(L"logs", module), module + L"logs");
  EXPECT_EQ(Host::WatchedPath(L"%WD64_METRICS_UNSET%\\d", module), module + L"%WD64_METRICS_UNSET%\\d");
  EXPECT_EQ(Host::WatchedPath(L"", module), module);
  SetEnvironmentVariableW(L"WD64_METRICS_BASE", nullptr);
  SetEnvironmentVariableW(L"WD64_METRICS_LONG", nullptr);

  EXPECT_EQ(Host::EscapeLabelValue(L"C:\\a \"b\"\nc"), "C:\\\\a \\\"b\\\"\\nc");
  EXPECT_EQ(Host::EscapeLabelValue(L"\u0434\u0430\u043d\u043d\u044b\u0435 \u6570\u636e \U0001F600"),
            "\xD0\xB4\xD0\xB0\xD0\xBD\xD0\xBD\xD1\x8B\xD0\xB5 \xE6\x95\xB0\xE6\x8D\xAE \xF0\x9F\x98\x80");
}

TEST(MetricsWriter, ReportsRealFoldersServicesAndPackRuns) {
  const fs::path folder = TestFolder(L"real");
  const fs::path named =
      folder / L"\u0434\u0430\u043d\u043d\u044b\u0435 \u6570\u636e \U0001F600";  // no code page holds these
  const fs::path relative = folder / L"relative";
  const fs::path viaVariable = folder / L"variable";
  for (const auto& path : {named, relative, viaVariable}) fs::create_directories(path);
  SetEnvironmentVariableW(L"WD64_METRICS_FOLDER", folder.c_str());
  const std::wstring missing = (folder / L"no-such-folder" / L"below").wstring();
  const std::wstring quoted = folder.wstring() + L"\\say \"cheese\"";  // not a possible name: never readable

  const std::uint64_t freeNow = TotalFree(folder);
  const std::int64_t stopMB = static_cast<std::int64_t>(freeNow / kMB) + 100 * 1024;  // 100 GB above: level 3
  json critical =
      Group({named.wstring(), missing, quoted, L"metrics-tests\\real\\relative", L"%WD64_METRICS_FOLDER%\\variable"},
            {L"WD64MetricsRunning", L"WD64MetricsNoSuchService"});
  critical["FreeSpaceStopServicesLowerBoundMB"] = stopMB;
  critical["FreeSpaceWarningLowerBoundMB"] = stopMB + 1024;
  critical["FreeSpaceRecommendedMinimumMB"] = stopMB + 2048;
  json quiet = Group({folder.wstring(), folder.wstring()}, {L"WD64MetricsRunning"});  // the path twice: one series
  quiet["FreeSpaceStopServicesLowerBoundMB"] = 1;
  quiet["FreeSpaceWarningLowerBoundMB"] = 2;
  quiet["FreeSpaceRecommendedMinimumMB"] = 3;
  const json defaults = Group({folder.wstring()}, {});
  const auto config = ConfigOf({{"freeSpaceWatcher", {{"groups", {critical, quiet, defaults}}}}});
  Host::ModuleHost host;
  TestService service(L"WD64MetricsRunning");

  const fs::path artifacts = Artifacts();
  const std::string running = "real-service-running.prom", stopped = "real-service-stopped.prom";
  std::uint64_t low = TotalFree(folder);
  std::wstring error;
  Host::MetricsWriter first((artifacts / running).wstring(), config, host);
  ASSERT_TRUE(first.Write(&error)) << Utf8(error);
  std::uint64_t high = TotalFree(folder);
  if (low > high) std::swap(low, high);

  // Other programs share the disk: its free space may move a little between
  // the test's look and the writer's.
  const double slack = 512.0 * kMB;
  auto pathExpectations = [&](Expectations& file) {
    const std::pair<std::wstring, std::wstring> readable[] = {
        {L"0", named.wstring()},
        {L"0", Kestrel::ModuleDirectory() + L"metrics-tests\\real\\relative"},
        {L"0", folder.wstring() + L"\\variable"},
        {L"1", folder.wstring()},
        {L"2", folder.wstring()}};
    for (const auto& [group, path] : readable) {
      const json labels{{"group", Utf8(group)}, {"path", Utf8(path)}};
      file.Range("wd64_free_bytes", labels, static_cast<double>(low) - slack, static_cast<double>(high) + slack);
      file.Value("wd64_path_readable", labels, 1);
    }
    for (const std::wstring& path : {missing, quoted}) {
      const json labels{{"group", "0"}, {"path", Utf8(path)}};
      file.Absent("wd64_free_bytes", labels).Value("wd64_path_readable", labels, 0);
    }
    file.Value("wd64_group_level", {{"group", "0"}}, 3).Value("wd64_group_level", {{"group", "1"}}, 0);
    file.Value("wd64_bound_bytes", {{"group", "0"}, {"bound", "stop"}}, static_cast<double>(stopMB * kMB))
        .Value("wd64_bound_bytes", {{"group", "1"}, {"bound", "recommended"}}, 3.0 * kMB)
        .Value("wd64_bound_bytes", {{"group", "2"}, {"bound", "recommended"}}, 107374182400.0)
        .Value("wd64_bound_bytes", {{"group", "2"}, {"bound", "warning"}}, 21474836480.0)
        .Value("wd64_bound_bytes", {{"group", "2"}, {"bound", "stop"}}, 5368709120.0);
    // With the default bounds the level follows the real free space, unless
    // it is too close to a bound to be certain.
    const double bytes = static_cast<double>(freeNow);
    const double defaultBounds[] = {5368709120.0, 21474836480.0, 107374182400.0};
    if (std::none_of(std::begin(defaultBounds), std::end(defaultBounds),
                     [&](double bound) { return std::abs(bytes - bound) < 2 * slack; })) {
      const int level = bytes < defaultBounds[0] ? 3 : bytes < defaultBounds[1] ? 2 : bytes < defaultBounds[2] ? 1 : 0;
      file.Value("wd64_group_level", {{"group", "2"}}, level);
    }
    file.Value("wd64_service_exists", {{"group", "0"}, {"service", "WD64MetricsRunning"}}, 1)
        .Value("wd64_service_exists", {{"group", "0"}, {"service", "WD64MetricsNoSuchService"}}, 0)
        .Value("wd64_service_up", {{"group", "0"}, {"service", "WD64MetricsNoSuchService"}}, 0);
    file.Value("wd64_build_info", {{"version", "7.0.127.0"}}, 1);
  };
  Expectations before(running);
  pathExpectations(before);
  before.Value("wd64_service_up", {{"group", "0"}, {"service", "WD64MetricsRunning"}}, 1)
      .Value("wd64_service_up", {{"group", "1"}, {"service", "WD64MetricsRunning"}}, 1)
      .Value("wd64_logpacker_runs_total", {}, 0)
      .Value("wd64_logpacker_failures_total", {}, 0)
      .Value("wd64_logpacker_files_packed_total", {}, 0)
      .Absent("wd64_logpacker_last_run_timestamp_seconds")
      .Absent("wd64_logpacker_last_run_success");
  FILETIME created{}, unused{};
  GetProcessTimes(GetCurrentProcess(), &created, &unused, &unused, &unused);
  const double startSeconds =
      static_cast<double>((static_cast<std::uint64_t>(created.dwHighDateTime) << 32 | created.dwLowDateTime) -
                          116444736000000000ull) /
      1e7;
  before.Range("wd64_host_start_time_seconds", {}, startSeconds - 0.01, startSeconds + 0.01);
  before.Save();

  ASSERT_TRUE(service.Stop());
  Host::MetricsWriter second((artifacts / stopped).wstring(), config, host);
  const auto finished = std::chrono::system_clock::now();
  second.RecordPackRun({finished - std::chrono::hours(1), S_OK, L"C:\\logs\\logs_1.zip", 4, 4000, 1});
  second.RecordPackRun({finished - std::chrono::minutes(1), E_ACCESSDENIED, L"", 0, 0, 3});
  second.RecordPackRun({finished, S_OK, L"C:\\logs\\logs_2.zip", 2, 123456789012, 0});
  low = TotalFree(folder);
  ASSERT_TRUE(second.Write(&error)) << Utf8(error);
  high = TotalFree(folder);
  if (low > high) std::swap(low, high);
  const double finishedSeconds = std::chrono::duration<double>(finished.time_since_epoch()).count();
  Expectations after(stopped);
  pathExpectations(after);
  after.Value("wd64_service_up", {{"group", "0"}, {"service", "WD64MetricsRunning"}}, 0)
      .Value("wd64_service_up", {{"group", "1"}, {"service", "WD64MetricsRunning"}}, 0)
      .Value("wd64_logpacker_runs_total", {}, 3)
      .Value("wd64_logpacker_failures_total", {}, 1)
      .Value("wd64_logpacker_files_packed_total", {}, 6)
      .Value("wd64_logpacker_bytes_packed_total", {}, 123456793012.0)
      .Value("wd64_logpacker_files_skipped_total", {}, 4)
      .Range("wd64_logpacker_last_run_timestamp_seconds", {}, finishedSeconds - 0.001, finishedSeconds + 0.001)
      .Value("wd64_logpacker_last_run_success", {}, 1)
      .Save();
  SetEnvironmentVariableW(L"WD64_METRICS_FOLDER", nullptr);
  EXPECT_EQ(Temporaries(artifacts), 0);
}

TEST(MetricsWriter, MissingHeldOrVanishedTargetsFailCleanly) {
  const fs::path folder = TestFolder(L"faults");
  const auto config = ConfigOf({{"freeSpaceWatcher", {{"groups", {Group({folder.wstring()}, {})}}}}});
  Host::ModuleHost host;
  std::wstring error;

  // A folder that does not exist.
  const fs::path nowhere = folder / L"no-such-folder" / L"m.prom";
  Host::MetricsWriter lost(nowhere.wstring(), config, host);
  EXPECT_FALSE(lost.Write(&error));
  EXPECT_NE(error.find(L"cannot write the metrics file " + nowhere.wstring() + L": creating "), std::wstring::npos)
      << Utf8(error);
  EXPECT_GT(error.size(), error.find(L".tmp: ") + 6) << "no system text: " << Utf8(error);
  EXPECT_FALSE(fs::exists(nowhere.parent_path()));

  // A target that a reader holds without letting it be replaced: the old
  // text stays whole, and the next write after the reader is done succeeds.
  const fs::path target = folder / L"held.prom";
  Host::MetricsWriter writer(target.wstring(), config, host);
  ASSERT_TRUE(writer.Write(&error)) << Utf8(error);
  const std::string old = ReadAll(target);
  {
    HANDLE held = CreateFileW(target.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    error.clear();
    const bool written = writer.Write(&error);
    CloseHandle(held);
    EXPECT_FALSE(written);
    EXPECT_NE(error.find(L"replacing it with "), std::wstring::npos) << Utf8(error);
    EXPECT_EQ(ReadAll(target), old);
    EXPECT_EQ(Temporaries(folder), 0);
  }
  EXPECT_TRUE(writer.Write(&error)) << Utf8(error);
  EXPECT_EQ(ReadAll(target).size(), old.size());

  // A folder in the target's place.
  const fs::path directory = folder / L"directory.prom";
  fs::create_directories(directory);
  Host::MetricsWriter blocked(directory.wstring(), config, host);
  EXPECT_FALSE(blocked.Write(&error));
  EXPECT_NE(error.find(L"replacing it with "), std::wstring::npos) << Utf8(error);
  EXPECT_EQ(Temporaries(folder), 0);

  // The folder vanishes between two writes, then comes back; its name is
  // one no code page holds.
  const fs::path comesAndGoes = folder / L"\u043c\u0435\u0442\u0440\u0438\u043a\u0438 \U0001F4C8";
  fs::create_directories(comesAndGoes);
  Host::MetricsWriter vanishing((comesAndGoes / L"m.prom").wstring(), config, host);
  EXPECT_TRUE(vanishing.Write(&error)) << Utf8(error);
  fs::remove_all(comesAndGoes);
  EXPECT_FALSE(vanishing.Write(&error));
  EXPECT_FALSE(fs::exists(comesAndGoes));
  fs::create_directories(comesAndGoes);
  EXPECT_TRUE(vanishing.Write(&error)) << Utf8(error);
  fs::remove(comesAndGoes / L"m.prom");  // the file alone deleted by someone
  EXPECT_TRUE(vanishing.Write(&error)) << Utf8(error);
  EXPECT_TRUE(Whole(ReadAll(comesAndGoes / L"m.prom")));
  EXPECT_EQ(Temporaries(comesAndGoes), 0);
}

TEST(MetricsWriter, ReadersNeverSeeAPartialFileAndKilledWritersLoseNothing) {
  const fs::path folder = TestFolder(L"replace");
  const fs::path target = folder / L"wd64.prom";
  const auto config =
      ConfigOf({{"freeSpaceWatcher", {{"groups", {Group({folder.wstring()}, {L"WD64NoSuchService"})}}}}});
  Host::ModuleHost host;
  Host::MetricsWriter writer(target.wstring(), config, host);

  // This process rewrites the file while a reader thread reads it.
  int failed = 0;
  std::wstring firstError;
  auto write = [&] {
    std::wstring error;
    if (writer.Write(&error)) return;
    if (failed++ == 0) firstError = error;
  };
  {
    Reader reader(target);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 200; ++i) write();
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
    reader.Stop();
    std::printf("one writer: 200 writes (%.1f ms each), %d failed; %d reads, %d partial, %d not opened (errors %s)\n",
                took.count() / 200, failed, reader.reads, reader.partial, reader.unopened, reader.Codes().c_str());
    EXPECT_EQ(failed, 0) << Utf8(firstError);
    EXPECT_GT(reader.reads, 0);
    EXPECT_EQ(reader.partial, 0) << reader.firstPartial;
  }

  // Two more processes write the same file at once with this one.
  {
    Reader reader(target);
    ChildWriter one(target, 100), two(target, 100);
    for (int i = 0; i < 100; ++i) write();
    const int failedOne = one.Wait(), failedTwo = two.Wait();
    reader.Stop();
    std::printf("three writers: 300 writes, %d/%d/%d failed; %d reads, %d partial, %d not opened (errors %s)\n", failed,
                failedOne, failedTwo, reader.reads, reader.partial, reader.unopened, reader.Codes().c_str());
    EXPECT_EQ(failed, 0) << Utf8(firstError);
    EXPECT_EQ(failedOne, 0);
    EXPECT_EQ(failedTwo, 0);
    EXPECT_EQ(reader.partial, 0) << reader.firstPartial;
    EXPECT_EQ(Temporaries(folder), 0);
  }

  // Writers killed at random moments: the file stays whole after every kill,
  // and the temporaries they leave are gone after the next write. A kill
  // rarely lands inside the short write itself, so each victim also gets the
  // half-written temporary such a kill leaves; a living writer's is kept.
  std::mt19937 random(std::random_device{}());
  int partialAfterKill = 0;
  auto halfWritten = [&](DWORD pid) {
    const fs::path temporary = target.wstring() + L"." + std::to_wstring(pid) + L"-999999.tmp";
    std::ofstream(temporary, std::ios::binary) << "# HELP wd64_free_bytes Free";
    return temporary;
  };
  ChildWriter living(target, 0);
  const fs::path livingTemporary = halfWritten(living.Pid());
  for (int round = 0; round < 8; ++round) {
    ChildWriter victim(target, 0);
    Sleep(std::uniform_int_distribution<DWORD>(200, 1200)(random));
    victim.Kill();
    halfWritten(victim.Pid());
    partialAfterKill += !Whole(ReadWhenOpen(target));
  }
  const int left = Temporaries(folder);
  ASSERT_TRUE(writer.Write());
  const int afterWrite = Temporaries(folder, living.Pid());
  EXPECT_TRUE(fs::exists(livingTemporary));
  living.Kill();
  ASSERT_TRUE(writer.Write());
  std::printf(
      "8 writers killed beside a living one: %d partial files after a kill, %d temporaries, %d of the "
      "killed ones after the next write, %d once the living one was killed too\n",
      partialAfterKill, left, afterWrite, Temporaries(folder));
  EXPECT_EQ(partialAfterKill, 0);
  EXPECT_EQ(afterWrite, 0);
  EXPECT_EQ(Temporaries(folder), 0);
  EXPECT_TRUE(Whole(ReadAll(target)));
  ASSERT_TRUE(CopyFileW(target.c_str(), (Artifacts() / L"after-kills.prom").c_str(), FALSE));
  Expectations("after-kills.prom")
      .Value("wd64_path_readable", {{"group", "0"}, {"path", Utf8(folder.wstring())}}, 1)
      .Value("wd64_service_exists", {{"group", "0"}, {"service", "WD64NoSuchService"}}, 0)
      .Save();
}
