// CPU cost of the free-space watcher: one watcher of 10 groups x 10 paths at
// the default 45 s interval, per hour, next to an idle process. The worker
// polls the clock every 50 ms, so its cost is the polling plus 80 cycles an
// hour; both are measured over a short run and scaled to an hour.

#include <windows.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <memory>
#include <thread>
#include <vector>

#include "DataLayer/NodePtr.h"
#include "platform/ModulePath.h"
#include "components/ComponentsCommon.h"

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

// CPU milliseconds the process uses while `seconds` of wall time pass.
double CpuOver(double seconds) {
  const double before = ProcessCpuMs();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  return ProcessCpuMs() - before;
}

void SetInt(NodePtr& node, const wchar_t* name, std::int32_t value) {
  node.SetAttribute(name, VHN_TYPE_INT32, &value, sizeof(value));
}

void SetMulti(NodePtr& node, const wchar_t* name, const std::wstring& raw) {
  node.SetAttribute(name, VHN_TYPE_STRING_ARRAY, raw.empty() ? nullptr : raw.data(), raw.size() * sizeof(wchar_t));
}

// Bounds far below any real free space: every cycle samples all paths and
// reports nothing, which is the watcher's everyday state.
NodePtr Configuration(std::int32_t intervalSec) {
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

struct RunningWatcher {
  IVHConfigurable* pConfigurable = nullptr;
  IVHShutdownable* pShutdownable = nullptr;

  explicit RunningWatcher(std::int32_t intervalSec) {
    GetComponentsModule().CreateComponent(&WatchDog64::CLSID_FreeSpaceWatcher, &IVHConfigurable::IID,
                                          reinterpret_cast<void**>(&pConfigurable));
    pConfigurable->QueryInterface(&IVHShutdownable::IID, reinterpret_cast<void**>(&pShutdownable));
    const NodePtr config = Configuration(intervalSec);
    if (pConfigurable->Configure(config.Get()) != S_OK) std::printf("Configure failed\n");
  }
  ~RunningWatcher() {
    pShutdownable->Shutdown();
    pShutdownable->Release();
    pConfigurable->Release();
  }
};

}  // namespace

int main(int argc, char** argv) {
  double seconds = argc > 1 ? std::atof(argv[1]) : 20.0;
  if (seconds >= 44) seconds = 44;
  const double clockStep = CpuClockStepMs();
  std::printf("watcher_bench: %d groups x %d paths, %.0f s per measurement, CPU clock step %.2f ms\n", kGroups,
              kPathsPerGroup, seconds, clockStep);

  const double idleMs = CpuOver(seconds);

  // The polling of one watcher is below the CPU clock's step over a short
  // run, so several identical watchers poll at once and the sum is divided.
  // The first cycle comes one interval after the start, so a run shorter
  // than 45 s sees the polling alone.
  constexpr int kPollingWatchers = 20;
  double pollingMs = 0;
  {
    std::vector<std::unique_ptr<RunningWatcher>> watchers;
    for (int index = 0; index < kPollingWatchers; ++index) watchers.push_back(std::make_unique<RunningWatcher>(45));
    pollingMs = CpuOver(seconds) / kPollingWatchers;
  }

  double cyclesMs = 0;
  {
    RunningWatcher watcher(1);
    cyclesMs = CpuOver(seconds);
  }
  // With 1 s intervals a cycle starts every 1 s + 50 ms + the cycle's own time.
  const double cyclesRun = seconds / 1.05;
  const double perCycleMs = (cyclesMs - pollingMs) / cyclesRun;

  const double idlePerHour = idleMs / seconds * 3600.0;
  const double pollingPerHour = pollingMs / seconds * 3600.0;
  const double cyclesPerHour = 3600.0 / 45.0;
  const double watcherPerHour = pollingPerHour + cyclesPerHour * perCycleMs;

  std::printf("idle process:                 %10.1f ms CPU per hour (%.4f%% of one core)\n", idlePerHour,
              idlePerHour / kHourMs * 100);
  std::printf("watcher polling only (50 ms): %10.1f ms CPU per hour (72000 wake-ups)\n", pollingPerHour);
  std::printf("one cycle of %3d paths:       %10.2f ms CPU\n", kGroups * kPathsPerGroup, perCycleMs);
  std::printf("watcher at 45 s interval:     %10.1f ms CPU per hour (%.0f cycles; %.4f%% of one core)\n",
              watcherPerHour, cyclesPerHour, watcherPerHour / kHourMs * 100);
  if (idleMs > 0) {
    std::printf("ratio watcher / idle:         %10.1f\n", watcherPerHour / idlePerHour);
  } else {
    // Idle used less than one clock step in the whole run.
    const double idleBound = clockStep / seconds * 3600.0;
    std::printf("ratio watcher / idle:         > %8.1f (idle below %.1f ms per hour)\n", watcherPerHour / idleBound,
                idleBound);
  }
  std::printf("polling share of the watcher: %10.1f %%\n",
              watcherPerHour > 0 ? pollingPerHour / watcherPerHour * 100 : 0.0);
  return 0;
}
