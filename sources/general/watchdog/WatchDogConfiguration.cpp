#include "WatchDogConfiguration.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "ErrorHandling.h"
#include "logger/Logger.h"

namespace Kestrel {

namespace {

constexpr wchar_t kSource[] = L"WatchDogConfiguration";
constexpr auto kSleepStep = std::chrono::milliseconds(50);

// One worker per process, however many configuration objects or components
// ask for it.
struct WorkerState {
  std::atomic<std::uint8_t> running{0};
  std::thread thread;

  // A worker still running at unload is abandoned: joining under the loader
  // lock could hang, and destroying a joinable thread object ends the process.
  ~WorkerState() {
    running = 0;
    if (thread.joinable()) thread.detach();
  }
};

WorkerState& Worker() {
  static WorkerState state;
  return state;
}

}  // namespace

CWatchDogConfiguration::~CWatchDogConfiguration() = default;

bool CWatchDogConfiguration::IsWorkerRunning() noexcept { return Worker().running != 0; }

void CWatchDogConfiguration::Configure(NodePtr& node) {
  std::int64_t interval = 0;
  if (!node.TryGetAttribute(L"RefreshIntervalSeconds", VHN_TYPE_INT64, &interval, sizeof(interval))) {
    ThrowHr(kHrNotFound, L"Required attribute \"RefreshIntervalSeconds\" is missing");
  }

  // The interval is stored only once the old worker is gone: the worker reads
  // it without a lock.
  StopWorkerThread();
  m_nRefreshIntervalSeconds = interval;

  WorkerState& worker = Worker();
  worker.running = 1;
  try {
    worker.thread = std::thread(&CWatchDogConfiguration::WorkerLoop, this);
  } catch (...) {
    worker.running = 0;
    throw;
  }
}

void CWatchDogConfiguration::StopWorkerThread() {
  VH_TRACE_SCOPE(kSource, L"Kestrel::CWatchDogConfiguration::StopWorkerThread");
  WorkerState& worker = Worker();
  if (worker.running == 1) {
    worker.running = 0;
    worker.thread.join();
  }
}

void CWatchDogConfiguration::WorkerLoop() {
  WorkerState& worker = Worker();
  DWORD start = ::GetTickCount();
  if (worker.running == 0) return;
  for (;;) {
    const DWORD now = ::GetTickCount();
    if (Detail::IsRefreshDue(start, now, m_nRefreshIntervalSeconds)) {
      // The refresh step only restamps the period. It is kept free of any
      // other work on purpose: the heartbeat must never stall or fail.
      const auto refresh = [&start] { start = ::GetTickCount(); };
      refresh();
    }
    std::this_thread::sleep_for(kSleepStep);
    if (worker.running == 0) return;
  }
}

}  // namespace Kestrel
