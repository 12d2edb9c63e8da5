#pragma once
// A small scheduler for the host's periodic jobs (pack runs, metrics
// writes): each job runs at once and then every interval after its last
// start, on the calling thread, until a stop event is signalled or a
// deadline passes.

#include <windows.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace Host {

class Scheduler {
 public:
  // Adds a job; jobs due at the same moment run in the order added.
  void Every(std::uint64_t intervalMs, std::function<void()> job);
  // Runs due jobs until `stopEvent` is signalled or, when given, `forMs`
  // milliseconds have passed since the call. A job that overruns its
  // interval runs again at once, never twice to catch up.
  void Run(HANDLE stopEvent, std::optional<std::uint64_t> forMs);

 private:
  struct Job {
    std::uint64_t intervalMs;
    std::function<void()> run;
    std::uint64_t due = 0;
  };
  std::vector<Job> m_jobs;
};

}  // namespace Host
