// The watcher component as the host drives it, on real disks, real services
// in Wine's service manager and the real events file.

#include <gtest/gtest.h>

#include <future>

#include "ErrorHandling.h"
#include "Handle.h"
#include "WatcherTestSupport.h"

using namespace WatcherTests;

namespace {

constexpr wchar_t kCriticalEntry[] = L"EventId: 4302; Type: 'Error'(1)";
constexpr wchar_t kWarningEntry[] = L"EventId: 4301; Type: 'Warning'(2)";
constexpr wchar_t kFailurePrefix[] = L"Failed to configure Free Space Watcher: ";
// Other programs write to the same disk while the tests run; bounds keep
// this distance from the free space measured at the start.
constexpr std::int64_t kMarginMB = 4096;

NodePtr Config(std::int32_t intervalSec = 1) {
  NodePtr config;
  config.SetName(L"FreeSpaceWatcher");
  SetInt(config, L"ActionsPerformIntervalSec", intervalSec);
  return config;
}

// A group with bounds in `unit` ("MB" or "GB"); the recommended minimum lies
// 1024 units above the warning bound. `omit` names a list left out.
NodePtr Group(const std::vector<std::wstring>& paths, const std::vector<std::wstring>& services,
              std::int64_t warning, std::int64_t stop, std::int32_t resendSec = 3600, const std::wstring& unit = L"MB",
              const std::wstring& omit = L"") {
  NodePtr group;
  group.SetName(L"Group");
  SetInt(group, (L"FreeSpaceRecommendedMinimum" + unit).c_str(), static_cast<std::int32_t>(warning + 1024));
  SetInt(group, (L"FreeSpaceWarningLowerBound" + unit).c_str(), static_cast<std::int32_t>(warning));
  SetInt(group, (L"FreeSpaceStopServicesLowerBound" + unit).c_str(), static_cast<std::int32_t>(stop));
  SetInt(group, L"EventResendTimeoutSec", resendSec);
  if (omit != L"Paths") SetMulti(group, L"Paths", paths);
  if (omit != L"ServiceNames") SetMulti(group, L"ServiceNames", services);
  return group;
}

std::wstring Hex(HRESULT hr) {
  wchar_t text[16];
  std::swprintf(text, 16, L"0x%08X", static_cast<unsigned>(hr));
  return text;
}

std::wstring Quoted(const std::wstring& path) { return L"\"" + path + L"\""; }

}  // namespace

TEST(FreeSpaceWatcherConfigure, InvalidSettingsReturnTheirCodeAndLogWhy) {
  struct Case {
    const char* name;
    std::function<void(NodePtr& config, NodePtr& group)> edit;
    HRESULT expected;
  };
  const std::wstring folder = TestFolder(L"configure");
  const Case cases[] = {
      {"interval 0", [](NodePtr& c, NodePtr&) { SetInt(c, L"ActionsPerformIntervalSec", 0); }, E_INVALIDARG},
      {"bound in GB and MB", [](NodePtr&, NodePtr& g) { SetInt(g, L"FreeSpaceStopServicesLowerBoundGB", 1); },
       E_INVALIDARG},
      {"warning equals stop", [](NodePtr&, NodePtr& g) { SetInt(g, L"FreeSpaceWarningLowerBoundMB", 10); },
       E_INVALIDARG},
      {"recommended equals warning", [](NodePtr&, NodePtr& g) { SetInt(g, L"FreeSpaceRecommendedMinimumMB", 20); },
       E_INVALIDARG},
      {"resend 0", [](NodePtr&, NodePtr& g) { SetInt(g, L"EventResendTimeoutSec", 0); }, E_INVALIDARG},
      {"resend negative", [](NodePtr&, NodePtr& g) { SetInt(g, L"EventResendTimeoutSec", -5); }, E_INVALIDARG},
      {"negative GB bound", [](NodePtr&, NodePtr& g) { g = Group({L"C:\\"}, {}, -1, -2, 1, L"GB"); }, E_INVALIDARG},
      {"no Paths", [](NodePtr&, NodePtr& g) { g = Group({}, {}, 20, 10, 1, L"MB", L"Paths"); }, Kestrel::kHrNotFound},
      {"no ServiceNames", [](NodePtr&, NodePtr& g) { g = Group({}, {}, 20, 10, 1, L"MB", L"ServiceNames"); },
       Kestrel::kHrNotFound},
      {"bound of the wrong type",
       [](NodePtr&, NodePtr& g) { g.SetAttribute(L"FreeSpaceWarningLowerBoundGB", L"20"); },
       static_cast<HRESULT>(0x8007065D)},
  };
  for (const Case& testCase : cases) {
    SCOPED_TRACE(testCase.name);
    NodePtr config = Config();
    NodePtr group = Group({folder}, {}, 20, 10);
    testCase.edit(config, group);
    config.AddChild(group);
    LogCapture log;
    Watcher watcher;
    EXPECT_EQ(watcher.Configure(config), testCase.expected);
    const std::wstring text = log.Text();
    EXPECT_NE(text.find(L"| ERR  |"), std::wstring::npos) << text;
    EXPECT_NE(text.find(L"FreeSpaceWatcher:"), std::wstring::npos) << text;
    EXPECT_NE(text.find(kFailurePrefix + Hex(testCase.expected)), std::wstring::npos) << text;
    // No worker was started: Shutdown has nothing to join.
    EXPECT_EQ(watcher.Shutdown(), S_OK);
  }
}

TEST(FreeSpaceWatcherCycle, CriticalEventStopsServicesPastAFailingName) {
  const std::wstring folder = TestFolder(L"critical");
  const std::int64_t freeMB = FreeMegabytes(folder);
  TestService service(L"WD64WatcherCritical");
  ASSERT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));

  LogCapture log;
  const std::size_t eventsBefore = ReadEvents().size();
  Watcher watcher;
  NodePtr config = Config(1);
  // Bounds in GB above the real free space.
  config.AddChild(Group({folder}, {L"WD64NoSuchService", service.Name()}, (freeMB >> 10) + 5, (freeMB >> 10) + 4,
                        3600, L"GB"));
  ASSERT_EQ(watcher.Configure(config), S_OK);

  auto stopped = [&] {
    const DWORD state = service.State();
    return state == SERVICE_STOPPED || state == SERVICE_STOP_PENDING;
  };
  EXPECT_TRUE(WaitFor([&] { return CountOf(ReadEvents(eventsBefore), kCriticalEntry) >= 1; }));
  EXPECT_TRUE(WaitFor(stopped));
  const std::wstring events = ReadEvents(eventsBefore);
  EXPECT_NE(events.find(L"Source: 'Vigil Hub'"), std::wstring::npos) << events;
  EXPECT_NE(events.find(Quoted(folder) + L" ("), std::wstring::npos) << events;
  EXPECT_NE(events.find(L"WD64NoSuchService, " + service.Name()), std::wstring::npos) << events;
  EXPECT_NE(log.Text().find(L"Failed to stop service \"WD64NoSuchService\": 0x80070424"), std::wstring::npos);

  // Held back for the resend hour, yet a restarted service is stopped again.
  ASSERT_TRUE(WaitFor([&] { return service.State() == SERVICE_STOPPED; }));
  ASSERT_TRUE(service.Start());
  // The service never stops by itself: STOPPED again means the watcher stopped it.
  EXPECT_TRUE(WaitFor([&] { return service.State() == SERVICE_STOPPED; }));
  EXPECT_EQ(watcher.Shutdown(), S_OK);
  EXPECT_EQ(CountOf(ReadEvents(eventsBefore), kCriticalEntry), 1u);
}

TEST(FreeSpaceWatcherCycle, WarningIsHeldBackUntilTheResendTimeoutAndMissingPathsAreDropped) {
  const std::wstring quiet = TestFolder(L"warning-quiet");
  const std::wstring missing = TestFolder(L"") + L"no-such-folder\\below";
  const std::wstring repeating = TestFolder(L"warning-repeat");
  const std::int64_t freeMB = FreeMegabytes(quiet);
  LogCapture log;
  const std::size_t eventsBefore = ReadEvents().size();
  auto eventsFor = [&](const std::wstring& folder) {
    return CountOf(ReadEvents(eventsBefore), Quoted(folder) + L" (");
  };

  Watcher watcher;
  NodePtr config = Config(1);
  // The relative path is anchored at the test program's directory.
  config.AddChild(Group({missing, L"watcher-tests\\warning-quiet"}, {L"WD64NotStoppedByWarning"}, freeMB + kMarginMB, 1));
  config.AddChild(Group({repeating}, {}, freeMB + kMarginMB, 1, /*resendSec=*/1));
  ASSERT_EQ(watcher.Configure(config), S_OK);

  // Three cycles of the hour-long group give one warning; the one-second group repeats.
  const std::wstring quietCycle = L"Free space in " + Quoted(quiet);
  EXPECT_TRUE(WaitFor([&] { return log.Count(quietCycle) >= 3 && eventsFor(repeating) >= 2; }));
  EXPECT_EQ(watcher.Shutdown(), S_OK);
  EXPECT_EQ(eventsFor(quiet), 1u);
  EXPECT_EQ(CountOf(ReadEvents(eventsBefore), kCriticalEntry), 0u);
  EXPECT_GE(CountOf(ReadEvents(eventsBefore), kWarningEntry), 3u);
  // A warning stops nothing; a missing path is logged and left out of the event.
  EXPECT_EQ(log.Count(L"Stopping service"), 0u);
  EXPECT_EQ(ReadEvents(eventsBefore).find(L"no-such-folder"), std::wstring::npos);
  EXPECT_GE(log.Count(L"Failed to get free space in " + Quoted(missing) + L": 0x80070003"), 3u);

  // A new watcher with the bounds below the free space reports nothing.
  const std::size_t eventsAfter = ReadEvents().size();
  Watcher relaxed;
  NodePtr calm = Config(1);
  calm.AddChild(Group({quiet}, {}, freeMB / 4, freeMB / 8));
  ASSERT_EQ(relaxed.Configure(calm), S_OK);
  const std::size_t cyclesSoFar = log.Count(quietCycle);
  EXPECT_TRUE(WaitFor([&] { return log.Count(quietCycle) >= cyclesSoFar + 2; }));
  EXPECT_EQ(relaxed.Shutdown(), S_OK);
  EXPECT_EQ(ReadEvents(eventsAfter), L"");
}

TEST(FreeSpaceWatcherCycle, ShutdownFinishesTheCurrentStepAndSkipsTheRest) {
  const std::wstring folder = TestFolder(L"shutdown");
  const std::int64_t freeMB = FreeMegabytes(folder);
  TestService held(L"WD64WatcherHeld", L"hold-stop");
  TestService untouched(L"WD64WatcherUntouched");
  Handle release(::OpenEventW(EVENT_MODIFY_STATE, FALSE, L"Global\\WD64WatcherHeld-release"));
  ASSERT_TRUE(release) << ::GetLastError();
  // Lets the held service go however the test ends, so its removal cannot hang.
  struct Releaser {
    HANDLE hEvent;
    ~Releaser() { ::SetEvent(hEvent); }
  } releaser{release.Get()};

  LogCapture log;
  Watcher watcher;
  NodePtr config = Config(1);
  config.AddChild(Group({folder}, {held.Name()}, freeMB + 2 * kMarginMB, freeMB + kMarginMB));
  config.AddChild(Group({folder}, {untouched.Name()}, freeMB + 2 * kMarginMB, freeMB + kMarginMB));
  ASSERT_EQ(watcher.Configure(config), S_OK);

  // The first step sits in ControlService until the service is let go.
  ASSERT_TRUE(WaitFor([&] { return log.Count(L"Entering: Stopping service \"WD64WatcherHeld\"") >= 1; }));
  auto shutdown = std::async(std::launch::async, [&] { return watcher.Shutdown(); });
  ASSERT_TRUE(WaitFor([&] { return log.Count(L"Entering: CFreeSpaceWatcher::Shutdown") >= 1; }));
  ::SetEvent(release.Get());
  EXPECT_EQ(shutdown.get(), S_OK);

  EXPECT_EQ(log.Count(L"Exiting: Stopping service \"WD64WatcherHeld\""), 1u);
  EXPECT_EQ(log.Count(L"Stopping service \"WD64WatcherUntouched\""), 0u);
  EXPECT_EQ(untouched.State(), static_cast<DWORD>(SERVICE_RUNNING));
}

TEST(FreeSpaceWatcherCycle, ShutdownWithoutConfigureAndAWatcherShutDownStaysDown) {
  Watcher neverConfigured;
  EXPECT_EQ(neverConfigured.Shutdown(), S_OK);
  EXPECT_EQ(neverConfigured.Shutdown(), S_OK);

  const std::wstring stale = TestFolder(L"reconfigured");
  const std::wstring fresh = TestFolder(L"fresh");
  LogCapture log;
  Watcher watcher;
  NodePtr first = Config(1);
  first.AddChild(Group({stale}, {}, 2, 1));
  ASSERT_EQ(watcher.Configure(first), S_OK);
  EXPECT_EQ(watcher.Shutdown(), S_OK);
  NodePtr again = Config(1);
  again.AddChild(Group({stale}, {}, 2, 1));
  EXPECT_EQ(watcher.Configure(again), S_OK);

  // A newly created component with the same settings does watch.
  Watcher created;
  NodePtr config = Config(1);
  config.AddChild(Group({fresh}, {}, 2, 1));
  ASSERT_EQ(created.Configure(config), S_OK);
  EXPECT_TRUE(WaitFor([&] { return log.Count(L"Free space in " + Quoted(fresh)) >= 2; }));
  EXPECT_EQ(created.Shutdown(), S_OK);
  EXPECT_EQ(watcher.Shutdown(), S_OK);
  EXPECT_EQ(log.Count(L"Free space in " + Quoted(stale)), 0u);
}
