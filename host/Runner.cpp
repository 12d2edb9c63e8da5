#include "Runner.h"

#include <cstdarg>
#include <cstdio>
#include <memory>

#include "Config.h"
#include "Metrics.h"
#include "ModuleHost.h"
#include "PackRun.h"

namespace Host {

void Say(const char* format, ...) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  std::printf("%04u-%02u-%02u %02u:%02u:%02u ", now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute,
              now.wSecond);
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::printf("\n");
  std::fflush(stdout);
}

namespace {

// A configuration the module refused, as opposed to a call that failed.
struct Rejected {
  HostError error;
};

void Configure(const ComponentRef<IVHConfigurable>& component, const Node& node, const std::wstring& what) {
  const HRESULT hr = component->Configure(node.Get());
  if (FAILED(hr)) throw Rejected{HostError(hr, L"configuring the " + what)};
}

std::wstring GroupsText(const Config& config) {
  std::wstring text;
  for (std::size_t i = 0; i < config.watcher->groups.size(); ++i) {
    const Section& group = config.watcher->groups[i];
    text += (text.empty() ? L"" : L"; ") + config.GroupLabel(i) + L": ";
    if (const Value* paths = group.Find(L"Paths")) {
      for (std::size_t p = 0; p < paths->list.size(); ++p) text += (p ? L", " : L"") + paths->list[p];
    }
  }
  return text;
}

}  // namespace

int RunComponents(ModuleHost& host, const Config& config, HANDLE stopEvent, const RunOptions& options,
                  std::wstring* failure) {
  ComponentRef<IVHConfigurable> watcher;
  ComponentRef<IVHConfigurable> watchdog;
  ComponentRef<IVHConfigurable> packer;
  // Only components whose Configure succeeded run anything that needs a stop.
  bool watcherStarted = false, watchdogStarted = false, packerStarted = false;
  int exitCode = 0;
  auto fail = [&](int code, const std::wstring& text) {
    Say("%s", Narrow(text).c_str());
    if (failure != nullptr) *failure = text;
    exitCode = code;
  };
  auto progress = [&] {
    if (options.onProgress) options.onProgress();
  };
  try {
    if (config.watcher) {
      watcher = host.Create<IVHConfigurable>(WatchDog64::CLSID_FreeSpaceWatcher, L"free-space watcher");
      Configure(watcher, config.WatcherNode(), L"free-space watcher (" + config.source + L")");
      watcherStarted = true;
      Say("free-space watcher: configured, %zu group(s) checked every %lld s: %s", config.watcher->groups.size(),
          static_cast<long long>(config.watcher->settings.Find(L"ActionsPerformIntervalSec")
                                     ? config.watcher->settings.Find(L"ActionsPerformIntervalSec")->number
                                     : 45),
          Narrow(GroupsText(config)).c_str());
      progress();
    }
    if (config.watchdog) {
      watchdog = host.Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog, L"watchdog");
      Configure(watchdog, config.WatchdogNode(), L"watchdog (" + config.source + L")");
      watchdogStarted = true;
      Say("watchdog: configured, heartbeat every %lld s",
          static_cast<long long>(config.watchdog->Find(L"RefreshIntervalSeconds")->number));
      progress();
    }
    const PackTarget target = PackTargetOf(config);
    if (config.packer) {
      packer = host.Create<IVHConfigurable>(WatchDog64::CLSID_LogPacker, L"log packer");
      Configure(packer, config.PackerNode(), L"log packer (" + config.source + L")");
      packerStarted = true;
      Say("log packer: configured, packing %s in %s every %lld s", Narrow(target.mask).c_str(),
          Narrow(target.folder).c_str(), static_cast<long long>(config.packer->packIntervalSeconds));
      progress();
    }

    std::unique_ptr<MetricsWriter> metrics;
    std::wstring metricsPath = options.metricsFile;
    if (metricsPath.empty() && config.metrics) metricsPath = config.metrics->path;
    const ULONGLONG metricsInterval =
        static_cast<ULONGLONG>(config.metrics ? config.metrics->intervalSeconds : 15) * 1000;
    std::wstring lastNotes;
    auto writeMetrics = [&] {
      std::wstring error, notes;
      if (metrics && !metrics->Write(&error, &notes)) {
        Say("metrics: cannot write %s: %s", Narrow(metrics->Path()).c_str(), Narrow(error).c_str());
      }
      // Said once, not at every write.
      if (!notes.empty() && notes != lastNotes) Say("metrics: %s", Narrow(notes).c_str());
      lastNotes = notes;
    };
    if (!metricsPath.empty()) {
      metrics = std::make_unique<MetricsWriter>(metricsPath, config, host);
      Say("metrics: written to %s every %llu s", Narrow(metricsPath).c_str(), metricsInterval / 1000);
    }
    if (options.onRunning) options.onRunning();
    writeMetrics();

    const ULONGLONG started = GetTickCount64();
    ULONGLONG nextPack = started;
    ULONGLONG nextMetrics = started + metricsInterval;
    for (;;) {
      const ULONGLONG now = GetTickCount64();
      if (packer && now >= nextPack) {
        auto processor = packer.As<IVHRequestProcessor>();
        const PackRunResult run = RunPack(processor.Get());
        if (FAILED(run.hr)) {
          Say("log packer: %s", Narrow(HostError(run.hr, L"packing " + target.folder).Text()).c_str());
        } else {
          Say("log packer: %s", Narrow(DescribePackRun(run)).c_str());
        }
        if (metrics) metrics->RecordPackRun(run);
        nextPack = now + static_cast<ULONGLONG>(config.packer->packIntervalSeconds) * 1000;
      }
      if (metrics && now >= nextMetrics) {
        writeMetrics();
        nextMetrics = now + metricsInterval;
      }
      ULONGLONG wait = INFINITE - 1;
      if (packer) wait = std::min(wait, nextPack - std::min(nextPack, now));
      if (metrics) wait = std::min(wait, nextMetrics - std::min(nextMetrics, now));
      if (options.forSeconds) {
        const ULONGLONG end = started + static_cast<ULONGLONG>(*options.forSeconds) * 1000;
        if (now >= end) break;
        wait = std::min(wait, end - now);
      }
      if (WaitForSingleObject(stopEvent, static_cast<DWORD>(wait)) == WAIT_OBJECT_0) break;
    }
    writeMetrics();
  } catch (const Rejected& rejected) {
    fail(2, rejected.error.Text());
  } catch (const HostError& error) {
    fail(1, error.Text());
  }

  // The watcher and the watchdog stop their workers before they go; the log
  // packer goes last, and its release also ends the watchdog's worker.
  if (watcher) {
    watcher.As<IVHShutdownable>()->Shutdown();
    watcher.Reset();
    if (watcherStarted) Say("free-space watcher: stopped");
  }
  if (watchdog) {
    watchdog.As<IVHShutdownable>()->Shutdown();
    watchdog.Reset();
    if (watchdogStarted) Say("watchdog: stopped");
  }
  if (packer) {
    packer.Reset();
    if (packerStarted) Say("log packer: released");
  }
  return exitCode;
}

}  // namespace Host
