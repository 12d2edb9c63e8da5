// Cost of the module's idle workers: the free-space watcher with 10 groups x
// 10 paths at the default 45 s interval and the watchdog's heartbeat at
// 30 s, per hour, next to an idle process; and how soon Shutdown returns for
// a worker that sleeps. Wake-ups are the workers' own count of returns from
// their waits; CPU is the process's. Both are measured over short runs and
// scaled to an hour.

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DataLayer/NodePtr.h"
#include "platform/ModulePath.h"
#include "WorkerPeriod.h"
#include "components/ComponentsCommon.h"
#include "logger/Logger.h"
#include "logger/detail/LogInterfaces.h"

namespace {

constexpr int kGroups = 10;
constexpr int kPathsPerGroup = 10;
constexpr double kHourMs = 3600.0 * 1000.0;

double ProcessCpuMs() {
  FILETIME created, exited, kernel, user;
  ::GetProcessTimes(::GetCurrentProcess(), &created, &exited, &kernel, &user);
  auto ms = [](const FILETIME& time) {
    return static_cast<double>((static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime) / 1e4;
  };
  return ms(kernel) + ms(user);
}

// CPU milliseconds the process uses and wake-ups of one kind of worker while
// `seconds` of wall time pass.
struct Cost {
  double cpuMs;
  double wakeUps;
};
Cost Over(double seconds, const std::atomic<std::uint64_t>& wakeUps) {
  const double cpu = ProcessCpuMs();
  const std::uint64_t woken = wakeUps.load();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  return {ProcessCpuMs() - cpu, static_cast<double>(wakeUps.load() - woken)};
}

void SetInt(NodePtr& node, const wchar_t* name, std::int32_t value) {
  node.SetAttribute(name, VHN_TYPE_INT32, &value, sizeof(value));
}

void SetMulti(NodePtr& node, const wchar_t* name, const std::wstring& raw) {
  node.SetAttribute(name, VHN_TYPE_STRING_ARRAY, raw.empty() ? nullptr : raw.data(), raw.size() * sizeof(wchar_t));
}

// Bounds far below any real free space: every cycle samples all paths and
// reports nothing, which is the watcher's everyday state.
NodePtr WatcherConfiguration(std::int32_t intervalSec) {
  const std::wstring folder = Kestrel::ModuleDirectory();
  NodePtr config;
  config.SetName(L"FreeSpaceWatcher");
  SetInt(config, L"ActionsPerformIntervalSec", intervalSec);
  for (int group = 0; group < kGroups; ++group) {
    NodePtr node;
    node.SetName(L"Group");
    SetInt(node, L"FreeSpaceRecommendedMinimumMB", 3);
    SetInt(node, L"FreeSpaceWarningLowerBoundMB", 2);
    SetInt(node, L"FreeSpaceStopServicesLowerBoundMB", 1);
    std::wstring paths;
    for (int path = 0; path < kPathsPerGroup; ++path) paths += folder + L'\0';
    SetMulti(node, L"Paths", paths);
    SetMulti(node, L"ServiceNames", L"");
    config.AddChild(node);
  }
  return config;
}

// The smallest step in which the process's CPU time advances.
double CpuClockStepMs() {
  const double start = ProcessCpuMs();
  double now = start;
  while (now == start) now = ProcessCpuMs();
  return now - start;
}

// A component made by class id, configured, shut down and released at the end.
struct Running {
  IVHConfigurable* pConfigurable = nullptr;
  IVHShutdownable* pShutdownable = nullptr;

  Running(const GUID& clsid, const NodePtr& config) {
    GetComponentsModule().CreateComponent(&clsid, &IVHConfigurable::IID, reinterpret_cast<void**>(&pConfigurable));
    pConfigurable->QueryInterface(&IVHShutdownable::IID, reinterpret_cast<void**>(&pShutdownable));
    if (pConfigurable->Configure(config.Get()) != S_OK) std::printf("Configure failed\n");
  }
  // Milliseconds the Shutdown call takes.
  double Shutdown() {
    LARGE_INTEGER frequency, start, end;
    ::QueryPerformanceFrequency(&frequency);
    ::QueryPerformanceCounter(&start);
    pShutdownable->Shutdown();
    ::QueryPerformanceCounter(&end);
    return static_cast<double>(end.QuadPart - start.QuadPart) * 1000.0 / static_cast<double>(frequency.QuadPart);
  }
  ~Running() {
    pShutdownable->Shutdown();
    pShutdownable->Release();
    pConfigurable->Release();
  }
};

NodePtr WatchDogConfiguration(std::int64_t seconds) {
  NodePtr config;
  config.SetName(L"WatchDog");
  config.SetAttribute(L"RefreshIntervalSeconds", VHN_TYPE_INT64, &seconds, sizeof(seconds));
  return config;
}

// Counts the watcher's check cycles by their first path's log line.
struct CycleCounter final : VHLogger::Detail::ILogWriter {
  CycleCounter() { VHLogger::AddLogWriter(this); }
  ~CycleCounter() override { VHLogger::RemoveLogWriter(this); }
  void Write(const wchar_t* text, std::size_t length) noexcept override {
    if (std::wstring_view(text, length).find(L"Free space in \"") != std::wstring_view::npos) ++lines;
  }
  double Cycles() const { return static_cast<double>(lines.load()) / (kGroups * kPathsPerGroup); }
  std::atomic<std::uint64_t> lines{0};
};

// Median and largest Shutdown time of `rounds` workers that were idle for a while.
template <typename Make>
void ShutdownLatency(const char* what, Make make) {
  std::vector<double> times;
  for (int round = 0; round < 15; ++round) {
    auto worker = make();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    times.push_back(worker->Shutdown());
  }
  std::sort(times.begin(), times.end());
  std::printf("%-29s %10.2f ms median, %.2f ms at most (%zu idle workers)\n", what, times[times.size() / 2],
              times.back(), times.size());
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = argc > 1 ? std::atof(argv[1]) : 20.0;
  if (seconds >= 29) seconds = 29;  // below both idle intervals
  const double clockStep = CpuClockStepMs();
  auto& wakeUps = Kestrel::Detail::WakeUpCounts();
  std::printf("watcher_bench: %d groups x %d paths, %.0f s per measurement, CPU clock step %.2f ms\n", kGroups,
              kPathsPerGroup, seconds, clockStep);

  const Cost idle = Over(seconds, wakeUps.watcher);

  // One idle watcher is below the CPU clock's step over a short run, so
  // several identical watchers wait at once and the sum is divided. The
  // first cycle comes one interval after the start, so a run shorter than
  // the interval sees the waiting alone.
  constexpr int kIdleWatchers = 20;
  Cost waiting{};
  {
    std::vector<std::unique_ptr<Running>> watchers;
    for (int index = 0; index < kIdleWatchers; ++index) {
      watchers.push_back(std::make_unique<Running>(WatchDog64::CLSID_FreeSpaceWatcher, WatcherConfiguration(45)));
    }
    waiting = Over(seconds, wakeUps.watcher);
    waiting.cpuMs = (waiting.cpuMs - idle.cpuMs) / kIdleWatchers;
    waiting.wakeUps /= kIdleWatchers;
  }

  // Back-to-back cycles at a 1 s interval give the cost of one cycle and
  // the wake-ups each takes.
  Cost cycling{};
  double cycles = 0;
  {
    CycleCounter counter;
    Running watcher(WatchDog64::CLSID_FreeSpaceWatcher, WatcherConfiguration(1));
    cycling = Over(seconds, wakeUps.watcher);
    // Below DBG there are no path lines to count; one wake-up a cycle is then assumed.
    cycles = counter.Cycles() > 0 ? counter.Cycles() : cycling.wakeUps;
  }
  const double perCycleMs = (cycling.cpuMs - idle.cpuMs) / cycles;
  const double wakeUpsPerCycle = cycling.wakeUps / cycles;

  // The watchdog: idle at 30 s, and restamping every second for its
  // wake-ups per interval.
  double watchdogIdleWakeUps = 0, watchdogPerInterval = 0;
  {
    Running watchdog(WatchDog64::CLSID_WatchDog, WatchDogConfiguration(30));
    watchdogIdleWakeUps = Over(seconds, wakeUps.watchdog).wakeUps;
  }
  {
    Running watchdog(WatchDog64::CLSID_WatchDog, WatchDogConfiguration(1));
    // An interval ends a millisecond and a timer step after its second.
    const double intervals = seconds / (1.0 + (1.0 + Kestrel::Detail::kTimerStepMs) / 1000.0);
    watchdogPerInterval = Over(seconds, wakeUps.watchdog).wakeUps / intervals;
  }

  const double toHour = 3600.0 / seconds;
  const double cyclesPerHour = 3600.0 / 45.0;
  const double idlePerHour = idle.cpuMs * toHour;
  const double watcherCpuPerHour = waiting.cpuMs * toHour + cyclesPerHour * perCycleMs;
  const double watcherWakeUpsPerHour = waiting.wakeUps * toHour + cyclesPerHour * wakeUpsPerCycle;

  std::printf("idle process:                 %10.1f ms CPU per hour (%.4f%% of one core)\n", idlePerHour,
              idlePerHour / kHourMs * 100);
  std::printf("idle watcher between cycles:  %10.1f ms CPU per hour, %.1f wake-ups in %.0f s\n", waiting.cpuMs * toHour,
              waiting.wakeUps, seconds);
  std::printf("one cycle of %3d paths:       %10.2f ms CPU, %.2f wake-ups (%.0f cycles at 1 s; its DBG line a path\n"
              "                              is in it unless GS_Logger_MaxSeverity is below DBG)\n",
              kGroups * kPathsPerGroup, perCycleMs, wakeUpsPerCycle, cycles);
  std::printf("watcher at 45 s interval:     %10.1f ms CPU per hour (%.0f cycles; %.4f%% of one core)\n",
              watcherCpuPerHour, cyclesPerHour, watcherCpuPerHour / kHourMs * 100);
  std::printf("watcher wake-ups per hour:    %10.1f (%.2f per cycle; 72000 with 50 ms polling)\n",
              watcherWakeUpsPerHour, watcherWakeUpsPerHour / cyclesPerHour);
  std::printf("watchdog wake-ups per hour:   %10.1f at 30 s (%.2f per interval; %.0f in %.0f s idle)\n",
              watchdogPerInterval * 120.0, watchdogPerInterval, watchdogIdleWakeUps, seconds);
  if (idle.cpuMs > 0) {
    std::printf("ratio watcher / idle:         %10.1f\n", watcherCpuPerHour / idlePerHour);
  } else {
    // Idle used less than one clock step in the whole run.
    const double idleBound = clockStep / seconds * 3600.0;
    std::printf("ratio watcher / idle:         > %8.1f (idle below %.1f ms per hour)\n", watcherCpuPerHour / idleBound,
                idleBound);
  }
  ShutdownLatency("watcher Shutdown:", [] {
    return std::make_unique<Running>(WatchDog64::CLSID_FreeSpaceWatcher, WatcherConfiguration(45));
  });
  ShutdownLatency("watchdog Shutdown:",
                  [] { return std::make_unique<Running>(WatchDog64::CLSID_WatchDog, WatchDogConfiguration(30)); });
  return 0;
}
