#pragma once
// The process-wide state behind every watchdog component: the refresh
// interval and the one heartbeat worker thread.

#include <windows.h>

#include <cstdint>

#include "DataLayer/NodePtr.h"
#include "WorkerPeriod.h"

namespace Kestrel {

class CWatchDogConfiguration {
 public:
  CWatchDogConfiguration() = default;
  virtual ~CWatchDogConfiguration();
  CWatchDogConfiguration(const CWatchDogConfiguration&) = delete;
  CWatchDogConfiguration& operator=(const CWatchDogConfiguration&) = delete;

  // Reads "RefreshIntervalSeconds" and (re)starts the worker. A missing key
  // raises 0x80070490 and leaves the interval and a running worker alone.
  void Configure(NodePtr& node);
  // Stops the worker and waits until it has ended; does nothing when none
  // runs. Configure and StopWorkerThread may come from any thread at once:
  // they are serialised here, and at most one worker ever runs.
  void StopWorkerThread();

  std::int64_t RefreshIntervalSeconds() const noexcept { return m_nRefreshIntervalSeconds; }
  // True while a worker is meant to run.
  static bool IsWorkerRunning() noexcept;

 private:
  void WorkerLoop();

  // Written only while no worker runs, read by the worker when it starts.
  std::int64_t m_nRefreshIntervalSeconds = 0;
};

namespace Detail {
// Whether the refresh step is due: the interval has elapsed, or the tick
// counter wrapped below the period's start. The interval is scaled and
// compared unsigned, so a negative one never elapses by time alone.
constexpr bool IsRefreshDue(DWORD start, DWORD now, std::int64_t intervalSeconds) noexcept {
  return IsPeriodOver(start, now, static_cast<std::uint64_t>(intervalSeconds) * static_cast<std::uint64_t>(1000));
}
}  // namespace Detail

}  // namespace Kestrel
