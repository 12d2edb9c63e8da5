#include "runner/Scheduler.h"

#include <algorithm>

namespace Host {

void Scheduler::Every(std::uint64_t intervalMs, std::function<void()> job) {
  m_jobs.push_back(Job{intervalMs, std::move(job)});
}

void Scheduler::Run(HANDLE stopEvent, std::optional<std::uint64_t> forMs) {
  const std::uint64_t started = GetTickCount64();
  for (Job& job : m_jobs) job.due = started;
  for (;;) {
    std::uint64_t now = GetTickCount64();
    for (Job& job : m_jobs) {
      if (now < job.due) continue;
      job.run();
      job.due = now + job.intervalMs;
      now = GetTickCount64();
    }
    std::uint64_t wait = INFINITE - 1;
    for (const Job& job : m_jobs) wait = std::min(wait, job.due - std::min(job.due, now));
    if (forMs) {
      const std::uint64_t end = started + *forMs;
      if (now >= end) return;
      wait = std::min(wait, end - now);
    }
    if (WaitForSingleObject(stopEvent, static_cast<DWORD>(wait)) == WAIT_OBJECT_0) return;
  }
}

}  // namespace Host
