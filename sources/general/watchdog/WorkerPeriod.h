#pragma once
// The period of the module's two workers (the watcher's check cycle and the
// watchdog's heartbeat), counted in 32-bit milliseconds of GetTickCount.
// A worker waits on its wake event for the time this gives, so an idle
// worker wakes once a period and a stop reaches it at once.

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace Kestrel::Detail {

// Over once more than `intervalMs` have passed since `start`, or at once when
// the tick counter has wrapped below `start`.
constexpr bool IsPeriodOver(DWORD start, DWORD now, std::uint64_t intervalMs) noexcept {
  return now < start || static_cast<std::uint64_t>(now - start) > intervalMs;
}

// Waits and tick counts both move in steps of the system timer (15.6 ms on
// Windows); a wait that ends a step early would find the period not yet over.
inline constexpr DWORD kTimerStepMs = 16;

// How long to wait before the period is over: one millisecond past its end
// and a timer step, never past the counter's wrap (which ends it too), never
// INFINITE. Zero when it is over already.
constexpr DWORD MillisecondsUntilDue(DWORD start, DWORD now, std::uint64_t intervalMs) noexcept {
  if (IsPeriodOver(start, now, intervalMs)) return 0;
  const std::uint64_t left = intervalMs - (now - start);
  const std::uint64_t cap = std::min<std::uint64_t>((std::uint64_t{1} << 32) - now, INFINITE - 1);
  return static_cast<DWORD>(left >= cap ? cap : std::min<std::uint64_t>(left + 1 + kTimerStepMs, cap));
}

// Returns from the workers' waits since the module was loaded, for the
// benchmark: a relaxed add per wake-up.
struct WorkerWakeUps {
  std::atomic<std::uint64_t> watcher{0};
  std::atomic<std::uint64_t> watchdog{0};
};
inline WorkerWakeUps& WakeUpCounts() noexcept {
  static WorkerWakeUps counts;
  return counts;
}

}  // namespace Kestrel::Detail
