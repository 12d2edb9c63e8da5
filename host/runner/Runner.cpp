#include "runner/Runner.h"

#include <memory>

#include "config/Config.h"
#include "metrics/Metrics.h"
#include "module/ModuleHost.h"
#include "runner/PackRun.h"
#include "runner/Scheduler.h"

namespace Host {

namespace {

constexpr std::int64_t kDefaultWatcherIntervalSeconds = 45;

// A configuration the module refused, as opposed to a call that failed.
struct Rejected {
  HostError error;
};

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

// The three components a run configures. Only those whose Configure
// succeeded run anything that needs a stop.
class Components {
 public:
  Components(ModuleHost& host, const Config& config) : m_host(host), m_config(config) {}
  Components(const Components&) = delete;
  Components& operator=(const Components&) = delete;

  void Start(const std::function<void()>& progress) {
    if (m_config.watcher) {
      Configure(m_watcher, WatchDog64::CLSID_FreeSpaceWatcher, L"free-space watcher", m_config.WatcherNode());
      const Value* interval = m_config.watcher->settings.Find(L"ActionsPerformIntervalSec");
      Say("free-space watcher: configured, %zu group(s) checked every %lld s: %s", m_config.watcher->groups.size(),
          static_cast<long long>(interval ? interval->number : kDefaultWatcherIntervalSeconds),
          Narrow(GroupsText(m_config)).c_str());
      if (progress) progress();
    }
    if (m_config.watchdog) {
      Configure(m_watchdog, WatchDog64::CLSID_WatchDog, L"watchdog", m_config.WatchdogNode());
      Say("watchdog: configured, heartbeat every %lld s",
          static_cast<long long>(m_config.watchdog->Find(L"RefreshIntervalSeconds")->number));
      if (progress) progress();
    }
    if (m_config.packer) {
      Configure(m_packer, WatchDog64::CLSID_LogPacker, L"log packer", m_config.PackerNode());
      const PackTarget target = PackTargetOf(m_config);
      Say("log packer: configured, packing %s in %s every %lld s", Narrow(target.mask).c_str(),
          Narrow(target.folder).c_str(), static_cast<long long>(m_config.packer->packIntervalSeconds));
      if (progress) progress();
    }
  }

  // The watcher and the watchdog stop their workers before they go; the log
  // packer goes last, and its release also ends the watchdog's worker.
  void Stop() noexcept {
    Release(m_watcher, true, "free-space watcher: stopped");
    Release(m_watchdog, true, "watchdog: stopped");
    Release(m_packer, false, "log packer: released");
  }

  ~Components() { Stop(); }

  const ComponentRef<IVHConfigurable>& Packer() const noexcept { return m_packer.component; }
  const ComponentRef<IVHConfigurable>& Watcher() const noexcept { return m_watcher.component; }

 private:
  struct Started {
    ComponentRef<IVHConfigurable> component;
    bool configured = false;
  };

  void Configure(Started& slot, const GUID& clsid, const wchar_t* what, const Node& node) {
    slot.component = m_host.Create<IVHConfigurable>(clsid, what);
    const HRESULT hr = slot.component->Configure(node.Get());
    if (FAILED(hr)) throw Rejected{HostError(hr, L"configuring the " + std::wstring(what) + L" (" + m_config.source + L")")};
    slot.configured = true;
  }

  void Release(Started& started, bool shutDown, const char* said) noexcept {
    if (!started.component) return;
    if (shutDown) started.component.As<IVHShutdownable>()->Shutdown();
    started.component.Reset();
    if (started.configured) Say("%s", said);
  }

  ModuleHost& m_host;
  const Config& m_config;
  Started m_watcher, m_watchdog, m_packer;
};

// Keeps the metrics file current; a failed write is said at each attempt,
// what a write left alone only when it changes.
class MetricsJob {
 public:
  MetricsJob(std::wstring path, const Config& config, ModuleHost& host) : m_writer(std::move(path), config, host) {}
  MetricsWriter& Writer() noexcept { return m_writer; }
  void Write() {
    std::wstring error, notes;
    if (!m_writer.Write(&error, &notes)) {
      Say("metrics: cannot write %s: %s", Narrow(m_writer.Path()).c_str(), Narrow(error).c_str());
    }
    if (!notes.empty() && notes != m_lastNotes) Say("metrics: %s", Narrow(notes).c_str());
    m_lastNotes = notes;
  }

 private:
  MetricsWriter m_writer;
  std::wstring m_lastNotes;
};

}  // namespace

int RunComponents(ModuleHost& host, const Config& config, HANDLE stopEvent, const RunOptions& options,
                  std::wstring* failure) {
  Components components(host, config);
  int exitCode = 0;
  auto fail = [&](int code, const std::wstring& text) {
    Say("%s", Narrow(text).c_str());
    if (failure != nullptr) *failure = text;
    exitCode = code;
  };
  try {
    components.Start(options.onProgress);

    Scheduler scheduler;
    std::unique_ptr<MetricsJob> metrics;
    const std::wstring metricsPath =
        !options.metricsFile.empty() ? options.metricsFile : config.metrics ? config.metrics->path : L"";
    if (!metricsPath.empty()) {
      const std::int64_t interval = config.metrics ? config.metrics->intervalSeconds : MetricsConfig{}.intervalSeconds;
      metrics = std::make_unique<MetricsJob>(metricsPath, config, host);
      metrics->Writer().WatchedBy(components.Watcher().As<IVHRequestProcessor>());
      Say("metrics: written to %s every %lld s", Narrow(metricsPath).c_str(), static_cast<long long>(interval));
      scheduler.Every(static_cast<std::uint64_t>(interval) * 1000, [&] { metrics->Write(); });
    }
    const auto packer = components.Packer().As<IVHRequestProcessor>();
    if (packer) {
      const std::wstring folder = PackTargetOf(config).folder;
      scheduler.Every(static_cast<std::uint64_t>(config.packer->packIntervalSeconds) * 1000, [&, folder] {
        const PackRunResult run = RunPack(packer.Get());
        const std::wstring said = FAILED(run.hr) ? HostError(run.hr, L"packing " + folder).Text() : DescribePackRun(run);
        Say("log packer: %s", Narrow(said).c_str());
        if (metrics) metrics->Writer().RecordPackRun(run);
      });
    }
    if (options.onRunning) options.onRunning();
    scheduler.Run(stopEvent, options.forSeconds ? std::optional<std::uint64_t>(*options.forSeconds * 1000ull)
                                                : std::nullopt);
    if (metrics) metrics->Write();
  } catch (const Rejected& rejected) {
    fail(2, rejected.error.Text());
  } catch (const HostError& error) {
    fail(1, error.Text());
  }
  components.Stop();
  return exitCode;
}

}  // namespace Host
