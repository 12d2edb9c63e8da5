// The watcher component as the host drives it, on real disks, real services
// in Wine's service manager and the real events file.

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "DataLayer/NodePtr.h"
#include "FreeSpaceChecker.h"
#include "Handle.h"
#include "LogCapture.h"
#include "Files.h"
#include "platform/ModulePath.h"
#include "Processes.h"
#include "ServiceHandle.h"
#include "WorkerPeriod.h"
#include "components/ComponentsCommon.h"

namespace {

constexpr wchar_t kCriticalEntry[] = L"EventId: 4302; Type: 'Error'(1)";
constexpr wchar_t kWarningEntry[] = L"EventId: 4301; Type: 'Warning'(2)";
constexpr std::int32_t kAboveAnyDisk = 0x7FFF0000;  // MB

void SetInt(NodePtr& node, const wchar_t* name, std::int32_t value) {
  node.SetAttribute(name, VHN_TYPE_INT32, &value, sizeof(value));
}

// The recommended minimum 1024 units above the warning bound; `omit` names a list left out.
NodePtr Group(const std::vector<std::wstring>& paths, const std::vector<std::wstring>& services, std::int32_t warning,
              std::int32_t stop, std::int32_t resendSec = 3600, const std::wstring& unit = L"MB",
              const std::wstring& omit = L"") {
  NodePtr group;
  group.SetName(L"Group");
  SetInt(group, (L"FreeSpaceRecommendedMinimum" + unit).c_str(), warning + 1024);
  SetInt(group, (L"FreeSpaceWarningLowerBound" + unit).c_str(), warning);
  SetInt(group, (L"FreeSpaceStopServicesLowerBound" + unit).c_str(), stop);
  SetInt(group, L"EventResendTimeoutSec", resendSec);
  for (const auto& [name, items] : {std::pair{L"Paths", &paths}, std::pair{L"ServiceNames", &services}}) {
    if (omit == name) continue;
    std::wstring raw;
    for (const auto& item : *items) raw += item + L'\0';
    group.SetAttribute(name, VHN_TYPE_STRING_ARRAY, raw.empty() ? nullptr : raw.data(), raw.size() * sizeof(wchar_t));
  }
  return group;
}

NodePtr Config(std::initializer_list<NodePtr> groups) {
  NodePtr config;
  config.SetName(L"FreeSpaceWatcher");
  SetInt(config, L"ActionsPerformIntervalSec", 1);
  for (const NodePtr& group : groups) config.AddChild(group);
  return config;
}

// A folder of its own under the test program's directory (a real disk).
std::wstring TestFolder(const std::wstring& name) {
  const std::wstring folder = Kestrel::ModuleDirectory() + L"watcher-tests\\" + name;
  std::filesystem::create_directories(folder);
  return folder;
}

std::wstring Quoted(const std::wstring& path) { return L"\"" + path + L"\""; }

std::size_t CountOf(const std::wstring& text, const std::wstring& needle) {
  std::size_t count = 0;
  for (auto at = text.find(needle); at != std::wstring::npos; at = text.find(needle, at + needle.size())) ++count;
  return count;
}

// The limit only keeps a broken build from hanging; nothing is timed with it.
bool WaitFor(const std::function<bool()>& done, std::chrono::seconds limit = std::chrono::seconds(60)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  return done();
}

using TestSupport::LogCapture;

// Named at load time: the event writers read the setting once per process.
const std::wstring g_sEventsFile = [] {
  std::wstring file = TestFolder(L"") + L"events.log";
  ::DeleteFileW(file.c_str());
  ::SetEnvironmentVariableW(L"GS_EventReporting_EventsLogFile", file.c_str());
  return file;
}();

// The text from a character offset on.
std::wstring ReadEvents(std::size_t fromChar = 0) {
  const std::wstring text = TestSupport::ReadUtf16(g_sEventsFile);
  return fromChar < text.size() ? text.substr(fromChar) : std::wstring();
}

// Made through the module's class registry, as the host makes it.
struct Watcher {
  Watcher() {
    EXPECT_EQ(GetComponentsModule().CreateComponent(&WatchDog64::CLSID_FreeSpaceWatcher, &IVHConfigurable::IID,
                                                    reinterpret_cast<void**>(&pConfigurable)),
              S_OK);
    pConfigurable->QueryInterface(&IVHShutdownable::IID, reinterpret_cast<void**>(&pShutdownable));
    pConfigurable->QueryInterface(&IVHRequestProcessor::IID, reinterpret_cast<void**>(&pProcessor));
  }
  ~Watcher() { pProcessor->Release(), pShutdownable->Release(), pConfigurable->Release(); }
  HRESULT Configure(const NodePtr& config) { return pConfigurable->Configure(config.Get()); }
  HRESULT Shutdown() { return pShutdownable->Shutdown(); }
  // "ListGroups" as "NAME:TYPE:State,ServicesStopped,Recoveries " per group; "" when refused.
  std::wstring Groups(const wchar_t* name = L"ListGroups") {
    NodePtr request;
    request.SetName(name);
    HVHNODE response = nullptr;
    if (pProcessor->ProcessRequest(request.Get(), &response) != S_OK) return L"";
    std::wstring text;
    NodePtr(response).ForEachChild([&](NodePtr& group) {
      std::int32_t state = -1, stopped = -1;
      std::int64_t recoveries = -1;
      group.TryGetAttribute(L"State", VHN_TYPE_INT32, &state, sizeof(state));
      group.TryGetAttribute(L"ServicesStopped", VHN_TYPE_INT32, &stopped, sizeof(stopped));
      group.TryGetAttribute(L"Recoveries", VHN_TYPE_INT64, &recoveries, sizeof(recoveries));
      text += group.GetName() + L":" + group.GetType() + L":" + std::to_wstring(state) + L"," +
              std::to_wstring(stopped) + L"," + std::to_wstring(recoveries) + L" ";
    });
    return text;
  }
  IVHConfigurable* pConfigurable = nullptr;
  IVHShutdownable* pShutdownable = nullptr;
  IVHRequestProcessor* pProcessor = nullptr;
};

using TestSupport::TestService;
using TestSupport::WaitForServiceState;

}  // namespace

TEST(FreeSpaceWatcherConfigure, InvalidSettingsReturnTheirCodeAndLogWhy) {
  EXPECT_EQ(Watcher().Shutdown(), S_OK);  // never configured

  // Code, case, and the change to a valid configuration (interval, group).
  const std::tuple<const wchar_t*, const char*, void (*)(NodePtr&, NodePtr&)> cases[] = {
      {L"0x80070057", "interval 0", [](NodePtr& c, NodePtr&) { SetInt(c, L"ActionsPerformIntervalSec", 0); }},
      {L"0x80070057", "GB and MB", [](NodePtr&, NodePtr& g) { SetInt(g, L"FreeSpaceStopServicesLowerBoundGB", 1); }},
      {L"0x80070057", "warning", [](NodePtr&, NodePtr& g) { SetInt(g, L"FreeSpaceWarningLowerBoundMB", 10); }},
      {L"0x80070057", "recommended", [](NodePtr&, NodePtr& g) { SetInt(g, L"FreeSpaceRecommendedMinimumMB", 20); }},
      {L"0x80070057", "resend 0", [](NodePtr&, NodePtr& g) { SetInt(g, L"EventResendTimeoutSec", 0); }},
      {L"0x80070057", "resend < 0", [](NodePtr&, NodePtr& g) { SetInt(g, L"EventResendTimeoutSec", -5); }},
      {L"0x80070057 \"FreeSpaceRestartServicesLowerBoundMB\" must be at or above the warning bound", "restart",
       [](NodePtr&, NodePtr& g) { SetInt(g, L"FreeSpaceRestartServicesLowerBoundMB", 19); }},
      {L"0x80070057", "GB < 0", [](NodePtr&, NodePtr& g) { g = Group({L"C:\\"}, {}, -1, -2, 1, L"GB"); }},
      {L"0x80070490", "no Paths", [](NodePtr&, NodePtr& g) { g = Group({}, {}, 20, 10, 1, L"MB", L"Paths"); }},
      {L"0x80070490", "no names", [](NodePtr&, NodePtr& g) { g = Group({}, {}, 20, 10, 1, L"MB", L"ServiceNames"); }},
      {L"0x8007065D", "text", [](NodePtr&, NodePtr& g) { g.SetAttribute(L"FreeSpaceWarningLowerBoundGB", L"20"); }},
  };
  for (const auto& [code, name, edit] : cases) {
    SCOPED_TRACE(name);
    NodePtr config = Config({}), group = Group({L"C:\\"}, {}, 20, 10);
    edit(config, group);
    config.AddChild(group);
    LogCapture log;
    Watcher watcher;
    EXPECT_EQ(watcher.Configure(config), static_cast<HRESULT>(std::wcstoul(code, nullptr, 16)));
    const std::wstring line = L"\\| ERR  \\|.*FreeSpaceWatcher:.*Failed to configure Free Space Watcher: ";
    EXPECT_TRUE(std::regex_search(log.Text(), std::wregex(line + code))) << log.Text();
    EXPECT_EQ(watcher.Shutdown(), S_OK);  // no worker to join
  }
}

TEST(FreeSpaceWatcherConfigure, ASecondConfigureWhileRunningFailsAndTheWorkerGoesOn) {
  const std::wstring folder = TestFolder(L"reconfigured");
  LogCapture log;
  // A sleeping worker ends as soon as it is told, whatever its interval.
  Watcher sleeper;
  NodePtr hourly = Config({Group({folder}, {}, 2, 1)});
  SetInt(hourly, L"ActionsPerformIntervalSec", 3600);
  ASSERT_EQ(sleeper.Configure(hourly), S_OK);
  auto shutdown = std::async(std::launch::async, [&] { return sleeper.Shutdown(); });
  ASSERT_EQ(shutdown.wait_for(std::chrono::seconds(60)), std::future_status::ready);

  const auto wakeUps = Kestrel::Detail::WakeUpCounts().watcher.load();
  Watcher watcher;
  ASSERT_EQ(watcher.Configure(Config({Group({folder}, {}, 2, 1)})), S_OK);
  EXPECT_EQ(watcher.Configure(Config({})), static_cast<HRESULT>(0x8007139F));
  EXPECT_TRUE(
      std::regex_search(log.Text(), std::wregex(L"\\| ERR  \\|.*Failed to configure Free Space Watcher: 0x8007139F ")));
  // The first configuration's group is still checked; the worker wakes once
  // a cycle (and once more for the Shutdown).
  const std::wstring cycle = L"Free space in " + Quoted(folder);
  EXPECT_TRUE(WaitFor([&] { return CountOf(log.Text(), cycle) >= 2; }));
  EXPECT_EQ(watcher.Shutdown(), S_OK);
  EXPECT_LE(Kestrel::Detail::WakeUpCounts().watcher.load() - wakeUps, CountOf(log.Text(), cycle) + 1);
}

TEST(FreeSpaceWatcherCycle, EventsServiceStopsAndRecoveryOnRealDisks) {
  const std::wstring critical = TestFolder(L"") + L"critical-link", quiet = TestFolder(L"warning-quiet"),
                     repeating = TestFolder(L"warning-repeat"), missing = TestFolder(L"") + L"no-such-folder\\below";
  // A folder on /proc has no free space at all, until a real folder takes its place.
  TestSupport::RemoveTree(critical);
  TestSupport::MakeLink(L"Z:\\proc", critical);
  TestService service(L"WD64WatcherCritical");
  LogCapture log;
  const std::size_t eventsBefore = ReadEvents().size();
  auto eventsFor = [&](const std::wstring& path) { return CountOf(ReadEvents(eventsBefore), Quoted(path) + L" ("); };

  // Critical with a restart bound; warnings held back for an hour or resent every
  // second (in GB). The relative path is anchored at the test program's directory.
  NodePtr criticalGroup = Group({critical}, {L"WD64NoSuchService", service.name}, 2, 1);
  SetInt(criticalGroup, L"FreeSpaceRestartServicesLowerBoundMB", 3);
  const NodePtr config =
      Config({std::move(criticalGroup),
              Group({missing, L"watcher-tests\\warning-quiet"}, {L"WD64NotStoppedByWarning"}, kAboveAnyDisk, 1),
              Group({repeating}, {}, kAboveAnyDisk, 1, /*resendSec=*/1, L"GB")});
  Watcher watcher;
  ASSERT_EQ(watcher.Configure(config), S_OK);
  // The service never stops by itself; restarted while the event is held back, it is stopped again.
  ASSERT_TRUE(WaitFor([&] { return service.State() == SERVICE_STOPPED; }));
  ASSERT_TRUE(service.Start());
  const std::wstring quietCycle = L"Free space in " + Quoted(quiet);
  EXPECT_TRUE(WaitFor([&] {
    return service.State() == SERVICE_STOPPED && CountOf(log.Text(), quietCycle) >= 3 && eventsFor(repeating) >= 2;
  }));
  // The host asks how the groups stand, also from another thread while the
  // worker stops and starts: each answer is one cycle's, never a recovery
  // beside services still held.
  const std::wstring others = L"1:Group:2,0,0 2:Group:2,0,0 ";
  EXPECT_EQ(watcher.Groups(), L"0:Group:3,1,0 " + others);
  EXPECT_EQ(watcher.Groups(L"listgroups"), L"");
  std::atomic<bool> bAsking{true};
  std::atomic<int> answers{0}, odd{0};
  std::thread asker([&] {
    for (const std::wregex whole(L"0:Group:(3,1,0|0,1,0|0,0,1) " + others); bAsking; ++answers, ::Sleep(1))
      odd += !std::regex_match(watcher.Groups(), whole);
  });
  TestSupport::RemoveTree(critical);
  std::filesystem::create_directories(critical);
  EXPECT_TRUE(WaitFor([&] { return watcher.Groups() == L"0:Group:0,0,1 " + others; }));
  bAsking = false;
  asker.join();
  EXPECT_EQ(odd, 0) << answers << " answers";
  EXPECT_TRUE(WaitForServiceState(service.service, SERVICE_RUNNING));
  EXPECT_EQ(watcher.Shutdown(), S_OK);
  EXPECT_EQ(watcher.Groups(), L"0:Group:0,0,1 " + others);
  const std::wstring events = ReadEvents(eventsBefore);
  EXPECT_EQ(CountOf(events, kCriticalEntry), 1u);
  EXPECT_GE(CountOf(events, kWarningEntry), 3u);
  EXPECT_EQ(CountOf(events, L"EventId: 4303"), 1u);
  EXPECT_NE(events.find(L"WD64WatcherCritical (started)"), std::wstring::npos) << events;
  EXPECT_EQ(eventsFor(critical), 2u);  // the critical event and the recovery
  EXPECT_EQ(eventsFor(quiet), 1u);
  EXPECT_NE(events.find(L"WD64NoSuchService, " + service.name), std::wstring::npos) << events;
  // A stop that fails is seen at the usual level.
  EXPECT_TRUE(std::regex_search(
      log.Text(), std::wregex(L"\\| WARN \\|[^\r]*Failed to stop service \"WD64NoSuchService\": 0x80070424")));
  EXPECT_EQ(CountOf(log.Text(), L"Stopping service \"WD64NotStoppedByWarning\""), 0u);
  EXPECT_EQ(events.find(L"no-such-folder"), std::wstring::npos);
  EXPECT_GE(CountOf(log.Text(), L"Failed to get free space in " + Quoted(missing) + L": 0x80070003"), 3u);
  // Seen once at WARN, the repeats at DBG only.
  const std::wstring text = log.Text();
  const std::wregex warned(L"\\| WARN \\|[^\r]*Failed to get free space in \"[^\"]*no-such-folder");
  EXPECT_EQ(std::distance(std::wsregex_iterator(text.begin(), text.end(), warned), std::wsregex_iterator()), 1);

  // Configured again after Shutdown it stays down; a new watcher with bounds
  // below the free space runs and reports nothing.
  const std::size_t eventsAfter = ReadEvents().size(), cyclesSoFar = CountOf(log.Text(), quietCycle);
  EXPECT_EQ(watcher.Configure(config), S_OK);
  Watcher relaxed;
  ASSERT_EQ(relaxed.Configure(Config({Group({quiet}, {}, 2, 1)})), S_OK);
  EXPECT_TRUE(WaitFor([&] { return CountOf(log.Text(), quietCycle) >= cyclesSoFar + 2; }));
  EXPECT_EQ(relaxed.Shutdown(), S_OK);
  EXPECT_EQ(ReadEvents(eventsAfter), L"");
}

TEST(FreeSpaceWatcherCycle, ShutdownFinishesTheCurrentStepAndSkipsTheRest) {
  const std::wstring folder = TestFolder(L"");
  TestService held(L"WD64WatcherHeld", L"hold-stop");
  TestService untouched(L"WD64WatcherUntouched");
  Handle release(::OpenEventW(EVENT_MODIFY_STATE, FALSE, L"Global\\WD64WatcherHeld-release"));
  ASSERT_TRUE(release) << ::GetLastError();
  // Lets the held service go however the test ends, so its removal cannot hang.
  const std::shared_ptr<void> releaser(nullptr, [&](void*) { ::SetEvent(release.Get()); });

  LogCapture log;
  Watcher watcher;
  ASSERT_EQ(watcher.Configure(Config({Group({folder}, {held.name}, kAboveAnyDisk, kAboveAnyDisk - 1),
                                      Group({folder}, {untouched.name}, kAboveAnyDisk, kAboveAnyDisk - 1)})),
            S_OK);
  // The first step sits in ControlService until the service is let go.
  ASSERT_TRUE(WaitFor([&] { return CountOf(log.Text(), L"Entering: Stopping service \"WD64WatcherHeld\"") >= 1; }));
  auto shutdown = std::async(std::launch::async, [&] { return watcher.Shutdown(); });
  ASSERT_TRUE(WaitFor([&] { return CountOf(log.Text(), L"Entering: CFreeSpaceWatcher::Shutdown") >= 1; }));
  ::SetEvent(release.Get());
  EXPECT_EQ(shutdown.get(), S_OK);
  EXPECT_EQ(CountOf(log.Text(), L"Exiting: Stopping service \"WD64WatcherHeld\""), 1u);
  EXPECT_EQ(CountOf(log.Text(), L"Stopping service \"WD64WatcherUntouched\""), 0u);
  EXPECT_EQ(untouched.State(), static_cast<DWORD>(SERVICE_RUNNING));
}

TEST(FreeSpaceWatcherCycle, StartsAgainOnlyWhatItStoppedAfterTwoChecksAboveTheRestartBound) {
  using namespace Kestrel::Detail;
  // Stored samples stand in for a disk that cannot be driven; the services,
  // the events file and the log are real. The first service stops with the
  // size the events file had when its stop control arrived.
  TestService own(L"WD64RestartOwn", L"\"stop-code=" + g_sEventsFile + L"\"");
  TestService failing(L"WD64RestartFailing");
  TestService byHand(L"WD64RestartByHand");
  ASSERT_TRUE(byHand.Stop());
  auto services = AuditArchive::MakeEnumerableSequencer<std::wstring>();
  for (const auto& name : {own.name, failing.name, byHand.name, std::wstring(L"WD64NoSuchService")})
    services->Add(name);
  constexpr std::int64_t kMB = 1 << 20;
  FreeSpaceChecker checker(services, {400 * kMB, 200 * kMB, 100 * kMB, 300 * kMB}, 3600000, 0);
  DWORD now = 0;
  const auto cycle = [&](std::int64_t freeMB) {
    auto samples = AuditArchive::MakeEnumerableSequencer<FreeSpaceSample>();
    samples->Add({L"C:\\data", freeMB * kMB});
    checker.RunCycle(samples, now += 1000);
  };
  LogCapture log;
  const std::size_t eventsBefore = ReadEvents().size();
  cycle(50);
  ASSERT_TRUE(WaitForServiceState(own.service, SERVICE_STOPPED) &&
              WaitForServiceState(failing.service, SERVICE_STOPPED));
  SERVICE_STATUS status{};
  ASSERT_TRUE(::QueryServiceStatus(own.service.Get(), &status));
  const std::wstring critical = L"\"C:\\data\" (50 MB)";
  const std::size_t eventEnd = ReadEvents().find(critical, eventsBefore) + critical.size();
  EXPECT_LE(eventEnd * sizeof(wchar_t), status.dwServiceSpecificExitCode) << "the stop came before the event";

  // Hovering between the bounds, a second fall and a single check above the
  // restart bound start nothing.
  ASSERT_TRUE(::ChangeServiceConfigW(failing.service.Get(), SERVICE_NO_CHANGE, SERVICE_DISABLED, SERVICE_NO_CHANGE,
                                     nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
  for (const std::int64_t freeMB : {150, 250, 150, 50, 350, 150, 300}) cycle(freeMB);
  EXPECT_EQ(CountOf(log.Text(), L"Starting service"), 0u);
  EXPECT_EQ(CountOf(ReadEvents(eventsBefore), L"EventId: 4303"), 0u);
  cycle(350);  // the second check in a row: what it stopped, in reverse order
  EXPECT_TRUE(WaitForServiceState(own.service, SERVICE_RUNNING));
  const std::wstring text = log.Text();
  EXPECT_LT(text.find(L"Entering: Starting service \"WD64RestartFailing\""),
            text.find(L"Entering: Starting service \"WD64RestartOwn\""));
  EXPECT_TRUE(std::regex_search(
      text, std::wregex(L"\\| WARN \\|[^\r]*Failed to start service \"WD64RestartFailing\": 0x80070422")));
  cycle(400);
  EXPECT_EQ(byHand.State(), static_cast<DWORD>(SERVICE_STOPPED));
  EXPECT_EQ(CountOf(log.Text(), L"Starting service"), 4u);  // entering and exiting, twice
  const std::wstring events = ReadEvents(eventsBefore);
  EXPECT_EQ(CountOf(events, L"EventId: 4303; Type: 'Information'(4)"), 1u);
  EXPECT_NE(events.find(L"watched paths: \"C:\\data\" (350 MB)."), std::wstring::npos) << events;
  EXPECT_NE(events.find(L"what it did with them: WD64RestartOwn (started), WD64RestartFailing (failed to start: "
                        L"0x80070422 "),
            std::wstring::npos)
      << events;
}
