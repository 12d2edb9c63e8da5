#include "WatchDogConfiguration.h"

#include <algorithm>
#include <atomic>
#include <mutex>

#include "ErrorHandling.h"
#include "Handle.h"
#include "WorkerPeriod.h"
#include "components/ModuleThread.h"
#include "logger/Logger.h"

namespace Kestrel {

namespace {

constexpr wchar_t kSource[] = L"WatchDogConfiguration";
// An interval of 0 (or one that ends within this) restamps at most this often.
constexpr DWORD kShortestWaitMs = 50;

// One worker per process, however many configuration objects or components
// ask for it.
struct WorkerState {
  // Serialises Configure and StopWorkerThread: hosts call them from any
  // thread, and two workers must never run at once. Recursive, because
  // Configure stops the old worker through StopWorkerThread while it holds
  // the lock.
  std::recursive_mutex lock;
  std::atomic<std::uint8_t> running{0};
  // Set to stop the worker, which sleeps on it until its next refresh.
  Handle wake;
  // A native thread that holds the module loaded (and locked) while it runs.
  // One still running at unload is left to end on its own: joining under
  // the loader lock could hang.
  CModuleThread thread;

  ~WorkerState() {
    running = 0;
    if (wake) ::SetEvent(wake.Get());
  }
};

WorkerState& Worker() {
  static WorkerState state;
  return state;
}

// Stops the worker and waits until it has ended; the caller holds the lock.
void StopLocked(WorkerState& worker) noexcept {
  if (worker.running == 1) {
    worker.running = 0;
    ::SetEvent(worker.wake.Get());
    worker.thread.Join();
  }
}

}  // namespace

CWatchDogConfiguration::~CWatchDogConfiguration() = default;

bool CWatchDogConfiguration::IsWorkerRunning() noexcept { return Worker().running != 0; }

void CWatchDogConfiguration::Configure(NodePtr& node) {
  std::int64_t interval = 0;
  if (!node.TryGetAttribute(L"RefreshIntervalSeconds", VHN_TYPE_INT64, &interval, sizeof(interval))) {
    ThrowHr(kHrNotFound, L"Required attribute \"RefreshIntervalSeconds\" is missing");
  }

  WorkerState& worker = Worker();
  const std::lock_guard<std::recursive_mutex> guard(worker.lock);
  // The interval is stored only once the old worker is gone: the worker reads
  // it without a lock.
  StopWorkerThread();
  m_nRefreshIntervalSeconds = interval;

  if (!worker.wake) {
    worker.wake.Reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    ThrowLastErrorIf(!worker.wake);
  }
  ::ResetEvent(worker.wake.Get());
  worker.running = 1;
  try {
    worker.thread.Start([this] { WorkerLoop(); });
  } catch (...) {
    worker.running = 0;
    throw;
  }
}

void CWatchDogConfiguration::StopWorkerThread() {
  VH_TRACE_SCOPE(kSource, L"Kestrel::CWatchDogConfiguration::StopWorkerThread");
  WorkerState& worker = Worker();
  const std::lock_guard<std::recursive_mutex> guard(worker.lock);
  StopLocked(worker);
}

void CWatchDogConfiguration::WorkerLoop() {
  WorkerState& worker = Worker();
  DWORD start = ::GetTickCount();
  if (worker.running == 0) return;
  // Scaled as the refresh rule scales it: a negative interval never elapses.
  const std::uint64_t intervalMs =
      static_cast<std::uint64_t>(m_nRefreshIntervalSeconds) * static_cast<std::uint64_t>(1000);
  for (;;) {
    const DWORD now = ::GetTickCount();
    if (Detail::IsRefreshDue(start, now, m_nRefreshIntervalSeconds)) {
      // The refresh step only restamps the period. It is kept free of any
      // other work on purpose: the heartbeat must never stall or fail.
      const auto refresh = [&start] { start = ::GetTickCount(); };
      refresh();
    }
    const DWORD wait = std::max(Detail::MillisecondsUntilDue(start, ::GetTickCount(), intervalMs), kShortestWaitMs);
    ::WaitForSingleObject(worker.wake.Get(), wait);
    Detail::WakeUpCounts().watchdog.fetch_add(1, std::memory_order_relaxed);
    if (worker.running == 0) return;
  }
}

}  // namespace Kestrel
