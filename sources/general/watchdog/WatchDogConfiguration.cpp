#include "WatchDogConfiguration.h"

#include <atomic>
#include <mutex>

#include "ErrorHandling.h"
#include "components/ModuleThread.h"
#include "logger/Logger.h"

namespace Kestrel {

namespace {

constexpr wchar_t kSource[] = L"WatchDogConfiguration";
constexpr DWORD kSleepStepMs = 50;

// One worker per process, however many configuration objects or components
// ask for it.
struct WorkerState {
  // Serialises Configure and StopWorkerThread: hosts call them from any
  // thread, and two workers must never run at once. Recursive, because
  // Configure stops the old worker through StopWorkerThread while it holds
  // the lock.
  std::recursive_mutex lock;
  std::atomic<std::uint8_t> running{0};
  // A native thread that holds the module loaded (and locked) while it runs.
  // One still running at unload is left to end on its own: joining under
  // the loader lock could hang.
  CModuleThread thread;

  ~WorkerState() { running = 0; }
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

  WorkerState& worker = Worker();
  const std::lock_guard<std::recursive_mutex> guard(worker.lock);
  // The interval is stored only once the old worker is gone: the worker reads
  // it without a lock.
  StopWorkerThread();
  m_nRefreshIntervalSeconds = interval;

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
  if (worker.running == 1) {
    worker.running = 0;
    worker.thread.Join();
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
    ::Sleep(kSleepStepMs);
    if (worker.running == 0) return;
  }
}

}  // namespace Kestrel
