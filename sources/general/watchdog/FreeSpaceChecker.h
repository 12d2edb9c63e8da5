#pragma once
// One watch group's check: samples the free space of the group's paths once
// per cycle, decides which event (if any) is due, reports it, stops the
// group's services and, once the danger is over, reports the recovery and
// starts again the services it stopped. The decision works on stored samples
// and a given tick count, so it can be exercised at exact bounds and across
// a tick wrap.

#include <windows.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "rules/WatchGroupRules.h"
#include "subsystems/auditarchive/common/Enumerable.h"

namespace Kestrel::Detail {

using PathList = std::shared_ptr<AuditArchive::IEnumerable<std::wstring>>;
// A path and its free bytes.
using FreeSpaceSample = std::pair<std::wstring, std::int64_t>;
using SampleList = std::shared_ptr<AuditArchive::IEnumerable<FreeSpaceSample>>;

constexpr std::uint32_t kEventFreeSpaceLow = 0x800110CDu;
constexpr std::uint32_t kEventFreeSpaceCritical = 0xC00110CEu;
constexpr std::uint32_t kEventFreeSpaceRecovered = 0x400110CFu;

// Report states. 1 is reserved and never entered.
enum class ReportState : std::int32_t {
  Normal = 0,
  WarningReported = 2,
  CriticalReported = 3,
};

// "\"path\" (N MB)" items joined by ", ", N the free bytes / 1024 / 1024.
std::wstring FormatPathList(const std::shared_ptr<AuditArchive::IEnumerator<FreeSpaceSample>>& samples);
// Names joined by ", ", without quotes.
std::wstring FormatServiceList(const std::shared_ptr<AuditArchive::IEnumerator<std::wstring>>& services);

// Free bytes available to the calling user; raises HRX on failure.
std::uint64_t QueryFreeSpace(const std::wstring& path);
// Sends the stop control without waiting for the service to stop; raises HRX.
void StopService(const std::wstring& name);
// Asks the service manager to start the service without waiting; raises HRX.
void StartService(const std::wstring& name);
// The service's current state (SERVICE_RUNNING ...); raises HRX.
DWORD QueryServiceState(const std::wstring& name);

// Queries every path once, in order; a path whose query fails is dropped.
// Values above the signed range are clamped to it. `unreadable` holds the
// paths that failed before: a path is logged at WARN when it starts failing,
// at DBG while it goes on failing and at INFO when it can be read again.
SampleList TakeSamples(const PathList& paths, const std::function<std::uint64_t(const std::wstring&)>& getFreeSpace,
                       std::set<std::wstring>& unreadable);

// What a group's check shows its host after each cycle.
struct GroupStatus {
  ReportState state = ReportState::Normal;
  bool bServicesStopped = false;  // services it stopped in the current episode are held
  std::int64_t recoveries = 0;    // recovery events sent
};

// A configured service in one episode (from the first event to the recovery).
struct EpisodeService {
  std::wstring name;
  bool bRanBefore = false;  // not stopped when the episode's first stop came
  bool bStopped = false;    // stopped by the watcher: it ran before and a stop control went through
  std::wstring outcome;     // what the recovery did with it
};

class FreeSpaceChecker {
 public:
  // What one cycle decided.
  struct Decision {
    std::uint32_t eventId = 0;  // the warning or critical event, 0 for none
    std::vector<std::wstring> insertionStrings;
    bool bStopServices = false;
    // The episode is over: the recovery event is due with these paths, and
    // the services the watcher stopped (those of `services` marked so) are
    // started again first when `bStartServices`.
    bool bRecovered = false;
    bool bStartServices = false;
    std::wstring recoveredPaths;
    std::vector<EpisodeService> services;
  };

  FreeSpaceChecker(PathList services, const Rules::WatchGroupBounds& bounds, std::uint32_t resendTimeoutMs,
                   DWORD nowTicks = ::GetTickCount());

  // One cycle with the real clock, disks, event reporting and services.
  void operator()(const PathList& paths);
  // One cycle over given samples, with the real event reporting and services.
  void RunCycle(const SampleList& samples, DWORD now);

  // The decision over one cycle's samples; updates the report state and the
  // episode, but acts on nothing.
  Decision Evaluate(const SampleList& samples, DWORD now);

  ReportState State() const noexcept { return m_state; }
  // As of the last cycle RunCycle finished; safe from any thread.
  GroupStatus Status() const;
  // When the current state's event was last sent (or the state last became
  // Normal); a repeat is held back while less than the resend timeout has
  // passed since.
  DWORD StateTicks() const noexcept { return m_nStateTicks; }

 private:
  bool HoldBack(DWORD now) const noexcept;
  bool HoldsStoppedServices() const noexcept;
  void StopServices();
  // Starts the stopped services in reverse order and notes each outcome.
  static void StartServices(std::vector<EpisodeService>& services);

  PathList m_pServices;
  Rules::WatchGroupBounds m_bounds;
  std::uint32_t m_nResendTimeoutMs;
  ReportState m_state = ReportState::Normal;
  DWORD m_nStateTicks;
  // An event was sent and no recovery yet. It outlasts cycles in which no
  // path could be read: those say nothing about the danger being over.
  bool m_bEpisode = false;
  // Consecutive checks with every readable path at or above the restart bound.
  unsigned m_nRestartChecks = 0;
  // Filled at the episode's first stop, in configured order.
  std::vector<EpisodeService> m_episodeServices;
  // Paths whose free space could not be read in the last cycle that asked.
  std::set<std::wstring> m_unreadablePaths;
  // Written by the worker once a cycle, read by the host's threads.
  mutable std::mutex m_statusLock;
  GroupStatus m_status;
};

}  // namespace Kestrel::Detail
