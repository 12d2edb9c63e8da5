#include "FreeSpaceChecker.h"

#include <algorithm>
#include <cwchar>
#include <limits>

#include "ErrorHandling.h"
#include "ServiceHandle.h"
#include "events/EventReporting.h"
#include "logger/Logger.h"

namespace Kestrel::Detail {

namespace {

constexpr wchar_t kSource[] = L"FreeSpaceWatcher";

using Rules::Level;

std::int64_t ToMegabytes(std::int64_t bytes) noexcept { return bytes / 1024 / 1024; }

std::shared_ptr<AuditArchive::IEnumerator<FreeSpaceSample>> SelectBelow(const SampleList& samples,
                                                                        std::int64_t bound) {
  return AuditArchive::Filter<FreeSpaceSample>(
      samples->GetEnumerator(), [bound](const FreeSpaceSample& sample) { return sample.second < bound; });
}

// "0x80070422 The service cannot be started ...", without the origin.
std::wstring ErrorSummary(const HRX& error) {
  wchar_t code[16];
  std::swprintf(code, 16, L"0x%08X", static_cast<unsigned>(error.Code()));
  return std::wstring(code) + L" " + error.Description();
}

// "Name (what was done)" for each service the watcher stopped, in configured
// order; "none" when it stopped none.
std::wstring FormatOutcomes(const std::vector<EpisodeService>& services) {
  std::wstring text;
  for (const EpisodeService& service : services) {
    if (!service.bStopped) continue;
    if (!text.empty()) text += L", ";
    text += service.name + L" (" + service.outcome + L")";
  }
  return text.empty() ? L"none" : text;
}

}  // namespace

std::wstring FormatPathList(const std::shared_ptr<AuditArchive::IEnumerator<FreeSpaceSample>>& samples) {
  std::wstring text;
  AuditArchive::ForEach(samples, [&](const FreeSpaceSample& sample) {
    if (!text.empty()) text += L", ";
    text += L"\"" + sample.first + L"\" (" + std::to_wstring(ToMegabytes(sample.second)) + L" MB)";
  });
  return text;
}

std::wstring FormatServiceList(const std::shared_ptr<AuditArchive::IEnumerator<std::wstring>>& services) {
  std::wstring text;
  bool bFirst = true;
  AuditArchive::ForEach(services, [&](const std::wstring& name) {
    if (!bFirst) text += L", ";
    bFirst = false;
    text += name;
  });
  return text;
}

std::uint64_t QueryFreeSpace(const std::wstring& path) {
  ULARGE_INTEGER freeToCaller{};
  // The caller's quota is what the product's services can actually use.
  ThrowLastErrorIf(!::GetDiskFreeSpaceExW(path.c_str(), &freeToCaller, nullptr, nullptr));
  VH_LOG(VHLogger::SEV_DBG, kSource,
         L"Free space in \"" << path << L"\": " << (freeToCaller.QuadPart >> 20) << L" MB");
  return freeToCaller.QuadPart;
}

void StopService(const std::wstring& name) {
  VH_TRACE_SCOPE(kSource, L"Stopping service \"" + name + L"\"");
  // 0x20 is SERVICE_STOP's value; the manager is asked with it as it stands.
  ServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, 0x20));
  ThrowLastErrorIf(!manager);
  ServiceHandle service(::OpenServiceW(manager.Get(), name.c_str(), SERVICE_STOP));
  ThrowLastErrorIf(!service);
  SERVICE_STATUS status{};
  // No wait for STOPPED: a slow service must not delay the other services
  // or groups while the disk keeps filling.
  ThrowLastErrorIf(!::ControlService(service.Get(), SERVICE_CONTROL_STOP, &status));
}

void StartService(const std::wstring& name) {
  VH_TRACE_SCOPE(kSource, L"Starting service \"" + name + L"\"");
  ServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  ThrowLastErrorIf(!manager);
  ServiceHandle service(::OpenServiceW(manager.Get(), name.c_str(), SERVICE_START));
  ThrowLastErrorIf(!service);
  ThrowLastErrorIf(!::StartServiceW(service.Get(), 0, nullptr));
}

DWORD QueryServiceState(const std::wstring& name) {
  ServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  ThrowLastErrorIf(!manager);
  ServiceHandle service(::OpenServiceW(manager.Get(), name.c_str(), SERVICE_QUERY_STATUS));
  ThrowLastErrorIf(!service);
  SERVICE_STATUS status{};
  ThrowLastErrorIf(!::QueryServiceStatus(service.Get(), &status));
  return status.dwCurrentState;
}

SampleList TakeSamples(const PathList& paths, const std::function<std::uint64_t(const std::wstring&)>& getFreeSpace,
                       std::set<std::wstring>& unreadable) {
  auto queried = AuditArchive::Transform<FreeSpaceSample, std::wstring>(
      paths->GetEnumerator(), [&](const std::wstring& path) -> FreeSpaceSample {
        try {
          const std::uint64_t bytes = getFreeSpace(path);
          constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
          if (unreadable.erase(path) != 0) {
            VH_LOG(VHLogger::SEV_INFO, kSource, L"Free space in \"" << path << L"\" can be read again");
          }
          return {path, static_cast<std::int64_t>(bytes > kMax ? kMax : bytes)};
        } catch (const HRX& error) {
          // A path that cannot be read protects nothing: the administrator
          // sees it once at WARN, the repeats stay at DBG.
          if (unreadable.insert(path).second) {
            VH_LOG(VHLogger::SEV_WARN, kSource,
                   L"Failed to get free space in \"" << path << L"\": " << error.Text()
                                                     << L"; the path is not watched until it can be read");
          } else {
            VH_LOG(VHLogger::SEV_DBG, kSource, L"Failed to get free space in \"" << path << L"\": " << error.Text());
          }
          return {path, -1};
        }
      });
  auto usable = AuditArchive::Filter<FreeSpaceSample>(
      std::move(queried), [](const FreeSpaceSample& sample) { return sample.second >= 0; });
  // Stored once, so the passes read the same numbers and no disk is asked twice.
  return AuditArchive::CopyAll(usable);
}

FreeSpaceChecker::FreeSpaceChecker(PathList services, const Rules::WatchGroupBounds& bounds,
                                   std::uint32_t resendTimeoutMs, DWORD nowTicks)
    : m_pServices(std::move(services)),
      m_bounds(bounds),
      m_nResendTimeoutMs(resendTimeoutMs),
      m_nStateTicks(nowTicks) {}

void FreeSpaceChecker::operator()(const PathList& paths) {
  const DWORD now = ::GetTickCount();
  RunCycle(TakeSamples(paths, &QueryFreeSpace, m_unreadablePaths), now);
}

void FreeSpaceChecker::RunCycle(const SampleList& samples, DWORD now) {
  Decision decision = Evaluate(samples, now);
  // The critical event says the services are being stopped: it is written
  // before the first stop control goes out.
  if (decision.eventId != 0) EventReporting::ReportEvent(decision.eventId, decision.insertionStrings);
  if (decision.bStopServices) StopServices();
  if (decision.bRecovered) {
    if (decision.bStartServices) StartServices(decision.services);
    EventReporting::ReportEvent(kEventFreeSpaceRecovered, {decision.recoveredPaths, FormatOutcomes(decision.services)});
  }
  const std::lock_guard<std::mutex> lock(m_statusLock);
  m_status.state = m_state;
  m_status.bServicesStopped = HoldsStoppedServices();
  if (decision.bRecovered) ++m_status.recoveries;
}

GroupStatus FreeSpaceChecker::Status() const {
  const std::lock_guard<std::mutex> lock(m_statusLock);
  return m_status;
}

bool FreeSpaceChecker::HoldBack(DWORD now) const noexcept {
  // Elapsed time in unsigned 32-bit arithmetic stays right across the wrap
  // of the tick counter.
  return static_cast<DWORD>(now - m_nStateTicks) < m_nResendTimeoutMs;
}

bool FreeSpaceChecker::HoldsStoppedServices() const noexcept {
  return std::any_of(m_episodeServices.begin(), m_episodeServices.end(),
                     [](const EpisodeService& service) { return service.bStopped; });
}

FreeSpaceChecker::Decision FreeSpaceChecker::Evaluate(const SampleList& samples, DWORD now) {
  Decision decision;
  Level worst = Level::kNormal;
  bool bRestartable = true, bAny = false;
  AuditArchive::ForEach(samples->GetEnumerator(), [&](const FreeSpaceSample& sample) {
    worst = std::max(worst, Rules::EvaluateLevel(sample.second, m_bounds));
    bRestartable = bRestartable && Rules::AllowsRestart(sample.second, m_bounds);
    bAny = true;
  });

  if (worst == Level::kBelowStop) {
    if (!(m_state == ReportState::CriticalReported && HoldBack(now))) {
      decision.eventId = kEventFreeSpaceCritical;
      decision.insertionStrings = {FormatPathList(SelectBelow(samples, m_bounds.stopBytes)),
                                   FormatServiceList(m_pServices->GetEnumerator())};
      m_nStateTicks = now;
      m_state = ReportState::CriticalReported;
    }
    // Services go down on every critical cycle, also while the event is held
    // back: one that was restarted meanwhile must not fill the disk.
    decision.bStopServices = true;
    m_bEpisode = true;
    m_nRestartChecks = 0;
    return decision;
  }

  if (worst == Level::kBelowWarning) {
    const bool bReported = m_state == ReportState::WarningReported || m_state == ReportState::CriticalReported;
    if (!(bReported && HoldBack(now))) {
      decision.eventId = kEventFreeSpaceLow;
      decision.insertionStrings = {FormatPathList(SelectBelow(samples, m_bounds.warningBytes)),
                                   std::to_wstring(ToMegabytes(m_bounds.recommendedBytes))};
      m_nStateTicks = now;
      m_state = ReportState::WarningReported;
    }
    m_bEpisode = true;
    m_nRestartChecks = 0;
    return decision;
  }

  // Paths between the warning bound and the recommended minimum hold no state
  // of their own: the group is Normal again as soon as every path is at or
  // above the warning bound, and a new fall reports at once.
  m_state = ReportState::Normal;
  m_nStateTicks = now;
  if (!m_bEpisode || !bAny) {
    m_nRestartChecks = 0;
    return decision;
  }
  // With services held stopped and a restart bound, the episode ends with
  // their start: two checks in a row at or above that bound, so a single
  // sample does not start what the next one would stop again.
  if (HoldsStoppedServices() && m_bounds.restartBytes) {
    m_nRestartChecks = bRestartable ? m_nRestartChecks + 1 : 0;
    if (m_nRestartChecks < 2) return decision;
    decision.bStartServices = true;
  }
  decision.bRecovered = true;
  decision.recoveredPaths = FormatPathList(samples->GetEnumerator());
  decision.services = std::move(m_episodeServices);
  m_episodeServices.clear();
  for (EpisodeService& service : decision.services) service.outcome = L"left stopped";
  m_bEpisode = false;
  m_nRestartChecks = 0;
  return decision;
}

void FreeSpaceChecker::StopServices() {
  // Which services run is taken once, before the episode's first stop: one
  // the administrator had stopped is none of the watcher's to start again.
  if (m_episodeServices.empty()) {
    AuditArchive::ForEach(m_pServices->GetEnumerator(), [&](const std::wstring& name) {
      EpisodeService service;
      service.name = name;
      try {
        const DWORD state = QueryServiceState(name);
        service.bRanBefore = state != SERVICE_STOPPED && state != SERVICE_STOP_PENDING;
      } catch (const HRX& error) {
        VH_LOG(VHLogger::SEV_DBG, kSource, L"Failed to query service \"" << name << L"\": " << error.Text());
      }
      m_episodeServices.push_back(std::move(service));
    });
  }
  for (EpisodeService& service : m_episodeServices) {
    try {
      StopService(service.name);
      service.bStopped = service.bStopped || service.bRanBefore;
    } catch (const HRX& error) {
      // At WARN: the critical event says the services are being stopped,
      // so one that was not must be seen at the usual level.
      VH_LOG(VHLogger::SEV_WARN, kSource, L"Failed to stop service \"" << service.name << L"\": " << error.Text());
    }
  }
}

void FreeSpaceChecker::StartServices(std::vector<EpisodeService>& services) {
  for (auto service = services.rbegin(); service != services.rend(); ++service) {
    if (!service->bStopped) continue;
    try {
      StartService(service->name);
      service->outcome = L"started";
      VH_LOG(VHLogger::SEV_INFO, kSource, L"Started service \"" << service->name << L"\" again");
    } catch (const HRX& error) {
      if (error.Code() == HResultFromWin32(ERROR_SERVICE_ALREADY_RUNNING)) {
        service->outcome = L"already running";
        VH_LOG(VHLogger::SEV_INFO, kSource, L"Service \"" << service->name << L"\" was running already");
        continue;
      }
      service->outcome = L"failed to start: " + ErrorSummary(error);
      VH_LOG(VHLogger::SEV_WARN, kSource, L"Failed to start service \"" << service->name << L"\": " << error.Text());
    }
  }
}

}  // namespace Kestrel::Detail
