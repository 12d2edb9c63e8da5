// The host's metrics file on the real platform: free space of real folders,
// services in Wine's service manager, pack runs, and the file's replacement
// under readers, a second writer, killed writers and held or missing files.
// Each written file gets an expectations file beside it, which
// check_metrics.py checks with the Prometheus client's own text parser.

#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <thread>

#include "config/Config.h"
#include "Files.h"
#include "Links.h"
#include "metrics/Metrics.h"
#include "module/ModuleHost.h"
#include "platform/ModulePath.h"
#include "Processes.h"
#include "platform/FileTrust.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr const char* kLastLine = "wd64_build_info{version=\"7.0.127.0\"} 1\n";
constexpr std::int64_t kMB = std::int64_t{1} << 20;

std::string Utf8(const std::wstring& text) { return Host::Narrow(text); }

fs::path Artifacts() {
  const wchar_t* given = _wgetenv(L"WD64_METRICS_ARTIFACTS");
  const fs::path folder = given ? fs::path(given) : fs::path(Kestrel::ModuleDirectory()) / L"metrics-artifacts";
  fs::create_directories(folder);
  return folder;
}

fs::path TestFolder(const wchar_t* name) {
  const fs::path folder = fs::path(Kestrel::ModuleDirectory()) / L"metrics-tests" / name;
  fs::remove_all(folder);
  fs::create_directories(folder);
  return folder;
}

json Group(const std::vector<std::wstring>& paths, const std::vector<std::wstring>& services = {}) {
  json group{{"Paths", json::array()}, {"ServiceNames", json::array()}};
  for (const auto& path : paths) group["Paths"].push_back(Utf8(path));
  for (const auto& name : services) group["ServiceNames"].push_back(Utf8(name));
  return group;
}

Host::Config Watching(const std::vector<json>& groups) {
  return Host::ParseConfig(json{{"freeSpaceWatcher", {{"ActionsPerformIntervalSec", 1}, {"groups", groups}}}}.dump(),
                           L"metrics test", Kestrel::ModuleDirectory());
}

bool Whole(const std::string& text) {
  return text.rfind("# HELP wd64_free_bytes ", 0) == 0 && text.size() > std::strlen(kLastLine) &&
         text.compare(text.size() - std::strlen(kLastLine), std::string::npos, kLastLine) == 0;
}

// The file read the way a collector does: sharing read and write but not
// delete, so a replace has to wait for it. Nothing while refused.
std::optional<std::string> Collect(const fs::path& path, DWORD* error = nullptr) {
  Handle file(
      CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
  if (!file) {
    if (error) *error = GetLastError();
    return std::nullopt;
  }
  std::string text;
  char buffer[4096];
  DWORD got = 0;
  while (ReadFile(file.Get(), buffer, sizeof buffer, &got, nullptr) && got > 0) text.append(buffer, got);
  return text;
}

// A replace in progress refuses readers for a moment.
std::string ReadWhenOpen(const fs::path& path) {
  for (int attempt = 0; attempt < 100; ++attempt, Sleep(10)) {
    if (auto text = Collect(path)) return *text;
  }
  return "<never opened>";
}

// Temporaries in `folder`, but for those of a writer that is still at work.
int Temporaries(const fs::path& folder, DWORD livingPid = 0) {
  const std::wstring living = L"." + std::to_wstring(livingPid) + L"-";
  int count = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    count += entry.path().extension() == L".tmp" &&
             (livingPid == 0 || entry.path().filename().wstring().find(living) == std::wstring::npos);
  }
  return count;
}

// What check_metrics.py must find in one written file.
class Expectations {
 public:
  explicit Expectations(std::string file) : m_document{{"file", std::move(file)}, {"samples", json::array()}} {}
  Expectations& Value(const char* name, json labels, double value) { return Add(name, labels, {{"value", value}}); }
  Expectations& Range(const char* name, json labels, double low, double high) {
    return Add(name, labels, {{"min", low}, {"max", high}});
  }
  Expectations& Absent(const char* name, json labels = {}) { return Add(name, labels, {{"absent", true}}); }
  void Save() const {
    TestSupport::WriteText(Artifacts() / (m_document["file"].get<std::string>() + ".json"), m_document.dump(2));
  }

 private:
  Expectations& Add(const char* name, const json& labels, json sample) {
    sample["name"] = name;
    sample["labels"] = labels.is_null() ? json::object() : labels;  // `{}` arrives as null
    m_document["samples"].push_back(std::move(sample));
    return *this;
  }
  json m_document;
};

// This test program again, as a writer of `target` (see MetricsChild).
TestSupport::Process StartWriter(const fs::path& target, int count) {
  return TestSupport::StartSelf(L"MetricsChild.*",
                                {{L"WD64_METRICS_CHILD", std::to_wstring(count) + L"|" + target.wstring()}});
}

// What a collector saw of a file while it was rewritten.
struct Reads {
  int whole = 0, partial = 0, unopened = 0;
  DWORD lastError = 0;  // why the last read was refused
  std::string firstPartial;
};

// Reads `target` as a collector does while `work` runs.
Reads ReadWhile(const fs::path& target, const std::function<void()>& work) {
  Reads seen;
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    while (!stop) {
      const auto text = Collect(target, &seen.lastError);
      if (!text) {  // refused while a writer replaces it, or not there yet
        ++seen.unopened;
        continue;
      }
      if (!Whole(*text) && seen.partial++ == 0) seen.firstPartial = *text;
      seen.whole += Whole(*text);
      Sleep(1);  // a collector never reads back to back; without a gap a replace can starve
    }
  });
  work();
  stop = true;
  reader.join();
  return seen;
}

}  // namespace

// Runs only as the child of StartWriter: writes the metrics file COUNT times
// (0: until killed) and exits with the number of failed writes.
TEST(MetricsChild, WritesWhenStartedAsASecondProcess) {
  const wchar_t* given = _wgetenv(L"WD64_METRICS_CHILD");
  const std::wstring order = given ? given : L"";
  if (order.find(L'|') == std::wstring::npos) GTEST_SKIP() << "runs as a second writer only";
  const fs::path target = order.substr(order.find(L'|') + 1);
  const auto config = Watching({Group({target.parent_path().wstring()}, {L"WD64NoSuchService"})});
  Host::ModuleHost host;
  Host::MetricsWriter writer(target, config, host);  // keeps both by reference
  const int writes = std::stoi(order);
  int failures = 0;
  for (int i = 0; writes == 0 || i < writes; ++i) failures += !writer.Write();
  std::fflush(nullptr);
  ExitProcess(static_cast<UINT>(failures));
}

TEST(MetricsRules, GroupLevelIsTheWorstReadablePathInAnyOrderAndLabelsAreEscaped) {
  const Kestrel::Rules::WatchGroupBounds bounds{300, 200, 100, std::nullopt};
  const std::pair<std::vector<std::optional<std::uint64_t>>, int> levels[] = {
      {{}, 0}, {{300}, 0}, {{299}, 1}, {{200}, 1}, {{199}, 2}, {{100}, 2}, {{99}, 3},  // equal is not below
      {{std::nullopt}, 0},                                                              // unreadable paths do not count
      {{std::nullopt, 50, 1000}, 3}, {{1000, 150, 250, std::nullopt}, 2}, {{250, 301, 1000}, 1},
      {{~std::uint64_t{0}, 0}, 3},  // beyond the signed range: far above every bound, yet 0 is below them all
  };
  for (auto [samples, level] : levels) {
    std::sort(samples.begin(), samples.end());
    do {
      EXPECT_EQ(static_cast<int>(Host::GroupLevel(samples, bounds)), level) << samples.size();
    } while (std::next_permutation(samples.begin(), samples.end()));
  }
  EXPECT_EQ(Host::EscapeLabelValue(L"C:\\a \"b\"\nc"), "C:\\\\a \\\"b\\\"\\nc");
}

TEST(MetricsWriter, ReportsRealFoldersServicesAndPackRuns) {
  const fs::path folder = TestFolder(L"real");
  const fs::path named = folder / L"\u0434\u0430\u043d\u043d\u044b\u0435 \u6570\u636e \U0001F600";  // in no code page
  for (const auto& path : {named, folder / L"relative", folder / L"variable"}) fs::create_directories(path);
  SetEnvironmentVariableW(L"WD64_METRICS_FOLDER", folder.c_str());
  const std::wstring missing = (folder / L"no-such-folder" / L"below").wstring();
  const std::wstring quoted = folder.wstring() + L"\\say \"cheese\"";  // not a possible name: never readable

  const auto stopMB = static_cast<std::int64_t>(fs::space(folder).free / kMB) + 100 * 1024;  // 100 GB above: level 3
  json critical =
      Group({named.wstring(), missing, quoted, L"metrics-tests\\real\\relative", L"%WD64_METRICS_FOLDER%\\variable"},
            {L"WD64MetricsRunning", L"WD64MetricsNoSuchService"});
  critical.update({{"FreeSpaceStopServicesLowerBoundMB", stopMB}, {"FreeSpaceWarningLowerBoundMB", stopMB + 1024},
                   {"FreeSpaceRecommendedMinimumMB", stopMB + 2048}});
  json quiet = Group({folder.wstring(), folder.wstring()}, {L"WD64MetricsRunning"});  // the path twice: one series
  quiet.update({{"FreeSpaceStopServicesLowerBoundMB", 1}, {"FreeSpaceWarningLowerBoundMB", 2},
                {"FreeSpaceRecommendedMinimumMB", 3}});
  const auto config = Watching({critical, quiet, Group({folder.wstring()})});
  Host::ModuleHost host;
  TestSupport::TestService service(L"WD64MetricsRunning");

  // Writes `file` and expects what does not depend on the service or the
  // pack runs. Other programs share the disk: its free space may move a
  // little between the test's look and the writer's.
  const double slack = 512.0 * kMB;
  auto write = [&](Host::MetricsWriter& writer, const std::string& file, double serviceUp) {
    std::wstring error;
    const double low = static_cast<double>(fs::space(folder).free);
    EXPECT_TRUE(writer.Write(&error)) << Utf8(error);
    const double high = static_cast<double>(fs::space(folder).free);
    Expectations expect(file);
    const std::pair<const char*, std::wstring> readable[] = {
        {"0", named.wstring()},
        {"0", Kestrel::ModuleDirectory() + L"metrics-tests\\real\\relative"},
        {"0", folder.wstring() + L"\\variable"},
        {"1", folder.wstring()},
        {"2", folder.wstring()}};
    for (const auto& [group, path] : readable) {
      const json labels{{"group", group}, {"path", Utf8(path)}};
      expect.Range("wd64_free_bytes", labels, std::min(low, high) - slack, std::max(low, high) + slack)
          .Value("wd64_path_readable", labels, 1);
    }
    for (const std::wstring& path : {missing, quoted}) {
      const json labels{{"group", "0"}, {"path", Utf8(path)}};
      expect.Absent("wd64_free_bytes", labels).Value("wd64_path_readable", labels, 0);
    }
    expect.Value("wd64_group_level", {{"group", "0"}}, 3)
        .Value("wd64_group_level", {{"group", "1"}}, 0)
        .Value("wd64_bound_bytes", {{"group", "0"}, {"bound", "stop"}}, static_cast<double>(stopMB * kMB))
        .Value("wd64_bound_bytes", {{"group", "1"}, {"bound", "recommended"}}, 3.0 * kMB)
        .Value("wd64_bound_bytes", {{"group", "2"}, {"bound", "recommended"}}, 107374182400.0)
        .Value("wd64_bound_bytes", {{"group", "2"}, {"bound", "warning"}}, 21474836480.0)
        .Value("wd64_bound_bytes", {{"group", "2"}, {"bound", "stop"}}, 5368709120.0)
        .Value("wd64_service_exists", {{"group", "0"}, {"service", "WD64MetricsRunning"}}, 1)
        .Value("wd64_service_exists", {{"group", "0"}, {"service", "WD64MetricsNoSuchService"}}, 0)
        .Value("wd64_service_up", {{"group", "0"}, {"service", "WD64MetricsNoSuchService"}}, 0)
        .Value("wd64_service_up", {{"group", "0"}, {"service", "WD64MetricsRunning"}}, serviceUp)
        .Value("wd64_service_up", {{"group", "1"}, {"service", "WD64MetricsRunning"}}, serviceUp)
        .Value("wd64_build_info", {{"version", "7.0.127.0"}}, 1);
    return expect;
  };

  Host::MetricsWriter first((Artifacts() / "real-service-running.prom").wstring(), config, host);
  FILETIME created{}, unused{};
  GetProcessTimes(GetCurrentProcess(), &created, &unused, &unused, &unused);
  const double startSeconds = static_cast<double>(ULARGE_INTEGER{{created.dwLowDateTime, created.dwHighDateTime}}.QuadPart -
                                                  116444736000000000ull) / 1e7;
  write(first, "real-service-running.prom", 1)
      .Value("wd64_logpacker_runs_total", {}, 0)
      .Value("wd64_logpacker_failures_total", {}, 0)
      .Value("wd64_logpacker_files_packed_total", {}, 0)
      .Absent("wd64_logpacker_last_run_timestamp_seconds")
      .Absent("wd64_logpacker_last_run_success")
      .Absent("wd64_logpacker_archives")
      .Absent("wd64_group_services_stopped", {{"group", "0"}})  // no watcher is running
      .Absent("wd64_group_recoveries_total", {{"group", "0"}})
      .Range("wd64_host_start_time_seconds", {}, startSeconds - 0.01, startSeconds + 0.01)
      .Save();

  // The watcher itself stops the service for group 0, and says so.
  auto watcher = host.Create<IVHConfigurable>(WatchDog64::CLSID_FreeSpaceWatcher, L"watcher");
  ASSERT_EQ(watcher->Configure(config.WatcherNode().Get()), S_OK);
  Host::MetricsWriter second((Artifacts() / "real-service-stopped.prom").wstring(), config, host);
  second.WatchedBy(watcher.As<IVHRequestProcessor>());
  for (int waited = 0; waited < 60000 && second.Write() &&
                       ReadWhenOpen(second.Path()).find("services_stopped{group=\"0\"} 1") == std::string::npos;
       waited += 20)
    Sleep(20);
  const auto finished = std::chrono::system_clock::now();
  second.RecordPackRun({finished - std::chrono::hours(1), S_OK, L"C:\\logs\\logs_1.zip", 4, 4000, 1, 2, 5, 9000});
  second.RecordPackRun({finished - std::chrono::minutes(1), E_ACCESSDENIED, L"", 0, 0, 3, 0, {}, {}});
  second.RecordPackRun({finished, S_OK, L"C:\\logs\\logs_2.zip", 2, 123456789012, 0, 1, 3, 5000});
  const double finishedSeconds = std::chrono::duration<double>(finished.time_since_epoch()).count();
  write(second, "real-service-stopped.prom", 0)
      .Value("wd64_logpacker_runs_total", {}, 3)
      .Value("wd64_logpacker_failures_total", {}, 1)
      .Value("wd64_logpacker_files_packed_total", {}, 6)
      .Value("wd64_logpacker_bytes_packed_total", {}, 123456793012.0)
      .Value("wd64_logpacker_files_skipped_total", {}, 4)
      .Range("wd64_logpacker_last_run_timestamp_seconds", {}, finishedSeconds - 0.001, finishedSeconds + 0.001)
      .Value("wd64_logpacker_last_run_success", {}, 1)
      .Value("wd64_logpacker_archives_deleted_total", {}, 3)
      .Value("wd64_logpacker_archives", {}, 3)
      .Value("wd64_logpacker_archive_bytes", {}, 5000)
      .Value("wd64_group_services_stopped", {{"group", "0"}}, 1)
      .Value("wd64_group_services_stopped", {{"group", "1"}}, 0)
      .Value("wd64_group_recoveries_total", {{"group", "0"}}, 0)
      .Save();
  EXPECT_EQ(watcher.As<IVHShutdownable>()->Shutdown(), S_OK);
  SetEnvironmentVariableW(L"WD64_METRICS_FOLDER", nullptr);
  EXPECT_EQ(Temporaries(Artifacts()), 0);
}

TEST(MetricsWriter, MissingHeldOrVanishedTargetsFailCleanly) {
  const fs::path folder = TestFolder(L"faults");
  const auto config = Watching({Group({folder.wstring()})});
  Host::ModuleHost host;
  std::wstring error;

  const fs::path nowhere = folder / L"no-such-folder" / L"m.prom";
  Host::MetricsWriter lost(nowhere.wstring(), config, host);
  EXPECT_FALSE(lost.Write(&error));
  EXPECT_NE(error.find(L"cannot write the metrics file " + nowhere.wstring() + L": opening its folder " +
                       nowhere.parent_path().wstring() + L": "),
            std::wstring::npos)
      << Utf8(error);
  EXPECT_GT(error.size(), error.find(L"no-such-folder: ") + 16) << "no system text: " << Utf8(error);
  EXPECT_FALSE(fs::exists(nowhere.parent_path()));

  // A reader that does not let the target be replaced: the old text stays
  // whole, and the next write after the reader is done succeeds.
  const fs::path target = folder / L"held.prom";
  Host::MetricsWriter writer(target.wstring(), config, host);
  ASSERT_TRUE(writer.Write(&error)) << Utf8(error);
  const std::string old = ReadWhenOpen(target);
  HANDLE held = CreateFileW(target.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(held, INVALID_HANDLE_VALUE);
  error.clear();
  const bool written = writer.Write(&error);
  EXPECT_EQ(ReadWhenOpen(target), old);
  CloseHandle(held);
  EXPECT_FALSE(written);
  EXPECT_NE(error.find(L"replacing it with "), std::wstring::npos) << Utf8(error);
  EXPECT_EQ(Temporaries(folder), 0);
  EXPECT_TRUE(writer.Write(&error)) << Utf8(error);
  EXPECT_EQ(ReadWhenOpen(target).size(), old.size());

  // A folder in the target's place.
  fs::create_directories(folder / L"directory.prom");
  Host::MetricsWriter blocked((folder / L"directory.prom").wstring(), config, host);
  EXPECT_FALSE(blocked.Write(&error));
  EXPECT_NE(error.find(L"replacing it with "), std::wstring::npos) << Utf8(error);
  EXPECT_EQ(Temporaries(folder), 0);

  // A folder no code page can name vanishes between two writes and comes
  // back; then the file alone is deleted.
  const fs::path comesAndGoes = folder / L"\u043c\u0435\u0442\u0440\u0438\u043a\u0438 \U0001F4C8";
  fs::create_directories(comesAndGoes);
  Host::MetricsWriter vanishing((comesAndGoes / L"m.prom").wstring(), config, host);
  EXPECT_TRUE(vanishing.Write(&error)) << Utf8(error);
  fs::remove_all(comesAndGoes);
  EXPECT_FALSE(vanishing.Write(&error));
  EXPECT_FALSE(fs::exists(comesAndGoes));
  fs::create_directories(comesAndGoes);
  EXPECT_TRUE(vanishing.Write(&error)) << Utf8(error);
  fs::remove(comesAndGoes / L"m.prom");
  EXPECT_TRUE(vanishing.Write(&error)) << Utf8(error);
  EXPECT_TRUE(Whole(ReadWhenOpen(comesAndGoes / L"m.prom")));
  EXPECT_EQ(Temporaries(comesAndGoes), 0);
}

// Links planted where the writer works, as anyone could plant them in a
// folder that let them: no victim outside changes, and what the writer left
// alone or refused it says.
TEST(MetricsWriter, LinksAndPlantedTemporariesChangeNothingOutside) {
  const fs::path base = fs::path(Kestrel::ModuleDirectory()) / L"metrics-tests";
  const fs::path links = base / L"links", victims = base / L"victims", open = links / L"open";
  TestSupport::RemoveTree(links.wstring());  // links as links, never their targets
  fs::remove_all(victims);
  fs::create_directories(open);
  fs::create_directories(victims / L"folder");
  const std::string kVictim = "a victim: stays as it is\n";
  auto victim = [&](const wchar_t* name) {
    std::ofstream(victims / name, std::ios::binary) << kVictim;
    return (victims / name).wstring();
  };
  const auto config = Watching({Group({base.wstring()})});
  Host::ModuleHost host;
  std::wstring error, notes;
  auto write = [&](const fs::path& target) {
    return Host::MetricsWriter(target.wstring(), config, host).Write(&error, &notes);
  };

  // A symbolic or hard link at the file's name is replaced, not written through.
  TestSupport::MakeLink(victim(L"symbolic.txt"), (links / L"s.prom").wstring(), true);
  TestSupport::MakeLink(victim(L"hard.txt"), (links / L"h.prom").wstring(), false);
  EXPECT_TRUE(write(links / L"s.prom") && write(links / L"h.prom")) << Utf8(error);
  EXPECT_TRUE(Whole(ReadWhenOpen(links / L"s.prom")) && Whole(ReadWhenOpen(links / L"h.prom")));

  // Temporaries as an ended writer left them: links to victims are left
  // alone and named, a plain file goes. Names this process would once have
  // taken next no longer block it.
  const std::wstring stale = (links / L"w.prom.4000000000-").wstring();
  const std::wstring own = (links / L"w.prom.").wstring() + std::to_wstring(GetCurrentProcessId()) + L"-0.tmp";
  TestSupport::MakeLink(victim(L"stale-symbolic.txt"), stale + L"0.tmp", true);
  TestSupport::MakeLink(victim(L"stale-hard.txt"), stale + L"1.tmp", false);
  for (const std::wstring& planted : {stale + L"2.tmp", own}) TestSupport::WriteText(planted, "planted");
  EXPECT_TRUE(write(links / L"w.prom")) << Utf8(error);
  EXPECT_NE(notes.find(L"left w.prom.4000000000-0.tmp alone: a link"), std::wstring::npos) << Utf8(notes);
  EXPECT_NE(notes.find(L"left w.prom.4000000000-1.tmp alone: a file with more than one name"), std::wstring::npos);
  EXPECT_FALSE(fs::exists(stale + L"2.tmp"));
  EXPECT_TRUE(fs::exists(own));  // a living writer's, as far as anyone can tell

  // A folder that is a link, or one that others may write to (Wine shows a
  // Unix mode open to all as Everyone writing), is refused before anything
  // is written into or removed from it.
  victim(L"folder\\w.prom");
  victim(L"folder\\w.prom.4000000000-0.tmp");
  TestSupport::MakeLink((victims / L"folder").wstring(), (links / L"folder").wstring(), true);
  EXPECT_FALSE(write(links / L"folder" / L"w.prom"));
  EXPECT_NE(error.find(L"is a link or junction"), std::wstring::npos) << Utf8(error);
  TestSupport::RunUnix(L"/bin/chmod", "777 \"" + TestSupport::UnixPath(open.wstring()) + "\"",
                       [&] { return !Kestrel::JudgeFile(open.wstring()).bTrusted; });
  EXPECT_FALSE(write(open / L"w.prom"));
  EXPECT_NE(error.find(L"is not safe to write into: Everyone (S-1-1-0) may write to it"), std::wstring::npos);
  EXPECT_TRUE(fs::is_empty(open));

  int count = 0, touched = 0;
  for (const auto& entry : fs::recursive_directory_iterator(victims))
    if (entry.is_regular_file()) ++count, touched += TestSupport::ReadBytes(entry.path()) != kVictim;
  EXPECT_EQ(6 - count + touched, 0) << "of 6 victims changed or gone";
  TestSupport::RemoveTree(links.wstring());
}

TEST(MetricsWriter, ReadersNeverSeeAPartialFileAndKilledWritersLoseNothing) {
  const fs::path folder = TestFolder(L"replace");
  const fs::path target = folder / L"wd64.prom";
  const auto config = Watching({Group({folder.wstring()}, {L"WD64NoSuchService"})});
  Host::ModuleHost host;
  Host::MetricsWriter writer(target.wstring(), config, host);
  int failed = 0;
  std::wstring error;  // the last failure's

  // This process rewrites the file under a reader, alone and then with two
  // more processes writing it at once.
  DWORD failedOne = 0, failedTwo = 0;
  const Reads seen = ReadWhile(target, [&] {
    for (int i = 0; i < 50; ++i) failed += !writer.Write(&error);
    TestSupport::Process one = StartWriter(target, 100), two = StartWriter(target, 100);
    for (int i = 0; i < 100; ++i) failed += !writer.Write(&error);
    failedOne = one.Wait(300000);
    failedTwo = two.Wait(300000);
  });
  std::printf("three writers: 350 writes, %d/%lu/%lu failed; %d reads, %d partial, %d refused (last error %lu)\n",
              failed, failedOne, failedTwo, seen.whole + seen.partial, seen.partial, seen.unopened, seen.lastError);
  EXPECT_EQ(failed, 0) << Utf8(error);
  EXPECT_EQ(failedOne + failedTwo, 0u);
  EXPECT_GT(seen.whole, 0);
  EXPECT_EQ(seen.partial, 0) << seen.firstPartial;
  EXPECT_EQ(Temporaries(folder), 0);

  // Writers killed at random moments: the file stays whole after every kill,
  // and their temporaries are gone after the next write. A kill rarely lands
  // inside the short write, so each victim also gets the half-written
  // temporary such a kill leaves; a living writer's is kept.
  std::mt19937 random(std::random_device{}());
  auto halfWritten = [&](DWORD pid) {
    const fs::path temporary = target.wstring() + L"." + std::to_wstring(pid) + L"-999999.tmp";
    TestSupport::WriteText(temporary, "# HELP wd64_free_bytes Free");
    return temporary;
  };
  TestSupport::Process living = StartWriter(target, 0);
  const fs::path livingTemporary = halfWritten(living.Pid());
  int partialAfterKill = 0;
  for (int round = 0; round < 8; ++round) {
    TestSupport::Process victim = StartWriter(target, 0);
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
  std::printf("8 writers killed beside a living one: %d partial files after a kill, %d temporaries, %d of the killed "
              "ones after the next write, %d once the living one was killed too\n",
              partialAfterKill, left, afterWrite, Temporaries(folder));
  EXPECT_EQ(partialAfterKill, 0);
  EXPECT_EQ(afterWrite, 0);
  EXPECT_EQ(Temporaries(folder), 0);
  EXPECT_TRUE(Whole(ReadWhenOpen(target)));
  ASSERT_TRUE(CopyFileW(target.c_str(), (Artifacts() / L"after-kills.prom").c_str(), FALSE));
  Expectations("after-kills.prom").Value("wd64_path_readable", {{"group", "0"}, {"path", Utf8(folder.wstring())}}, 1)
      .Value("wd64_service_exists", {{"group", "0"}, {"service", "WD64NoSuchService"}}, 0).Save();
}
