#pragma once
// One watch group's check: samples the free space of the group's paths once
// per cycle, decides which event (if any) is due, reports it and stops the
// group's services. The decision works on stored samples and a given tick
// count, so it can be exercised at exact bounds and across a tick wrap.

#include <windows.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "subsystems/auditarchive/common/Enumerable.h"

namespace Kestrel::Detail {

using PathList = std::shared_ptr<AuditArchive::IEnumerable<std::wstring>>;
// A path and its free bytes.
using FreeSpaceSample = std::pair<std::wstring, std::int64_t>;
using SampleList = std::shared_ptr<AuditArchive::IEnumerable<FreeSpaceSample>>;

constexpr std::uint32_t kEventFreeSpaceLow = 0x800110CDu;
constexpr std::uint32_t kEventFreeSpaceCritical = 0xC00110CEu;

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

// Queries every path once, in order; a path whose query fails is dropped.
// Values above the signed range are clamped to it. `unreadable` holds the
// paths that failed before: a path is logged at WARN when it starts failing,
// at DBG while it goes on failing and at INFO when it can be read again.
SampleList TakeSamples(const PathList& paths, const std::function<std::uint64_t(const std::wstring&)>& getFreeSpace,
                       std::set<std::wstring>& unreadable);

class FreeSpaceChecker {
 public:
  // What one cycle decided: an event to report (id 0 for none) and whether
  // the group's services are to be stopped.
  struct Decision {
    std::uint32_t eventId = 0;
    std::vector<std::wstring> insertionStrings;
    bool bStopServices = false;
  };

  FreeSpaceChecker(PathList services, std::int64_t recommendedMinimum, std::int64_t warningBound,
                   std::int64_t stopBound, std::uint32_t resendTimeoutMs, DWORD nowTicks = ::GetTickCount());

  // One cycle with the real clock, disks, event reporting and services.
  void operator()(const PathList& paths);

  // The three passes over one cycle's samples; updates the report state.
  Decision Evaluate(const SampleList& samples, DWORD now);

  ReportState State() const noexcept { return m_state; }
  // When the current state's event was last sent (or the state last became
  // Normal); a repeat is held back while less than the resend timeout has
  // passed since.
  DWORD StateTicks() const noexcept { return m_nStateTicks; }

 private:
  bool HoldBack(DWORD now) const noexcept;
  void StopServices() const;

  PathList m_pServices;
  std::int64_t m_nRecommendedMinimum;
  std::int64_t m_nWarningBound;
  std::int64_t m_nStopBound;
  std::uint32_t m_nResendTimeoutMs;
  ReportState m_state = ReportState::Normal;
  DWORD m_nStateTicks;
  // Paths whose free space could not be read in the last cycle that asked.
  std::set<std::wstring> m_unreadablePaths;
};

// Whether the worker's interval has run out: a tick count that wrapped below
// the start counts as elapsed.
bool IsIntervalElapsed(DWORD start, DWORD now, std::int32_t intervalSec) noexcept;

}  // namespace Kestrel::Detail
