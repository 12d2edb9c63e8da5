#include "FreeSpaceChecker.h"

#include <limits>

#include "ErrorHandling.h"
#include "ServiceHandle.h"
#include "events/EventReporting.h"
#include "logger/Logger.h"

namespace Kestrel::Detail {

namespace {

constexpr wchar_t kSource[] = L"FreeSpaceWatcher";

std::int64_t ToMegabytes(std::int64_t bytes) noexcept { return bytes / 1024 / 1024; }

std::shared_ptr<AuditArchive::IEnumerator<FreeSpaceSample>> SelectBelow(const SampleList& samples,
                                                                        std::int64_t bound) {
  return AuditArchive::Filter<FreeSpaceSample>(
      samples->GetEnumerator(), [bound](const FreeSpaceSample& sample) { return sample.second < bound; });
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

FreeSpaceChecker::FreeSpaceChecker(PathList services, std::int64_t recommendedMinimum, std::int64_t warningBound,
                                   std::int64_t stopBound, std::uint32_t resendTimeoutMs, DWORD nowTicks)
    : m_pServices(std::move(services)),
      m_nRecommendedMinimum(recommendedMinimum),
      m_nWarningBound(warningBound),
      m_nStopBound(stopBound),
      m_nResendTimeoutMs(resendTimeoutMs),
      m_nStateTicks(nowTicks) {}

void FreeSpaceChecker::operator()(const PathList& paths) {
  const DWORD now = ::GetTickCount();
  const Decision decision = Evaluate(TakeSamples(paths, &QueryFreeSpace, m_unreadablePaths), now);
  if (decision.eventId != 0) EventReporting::ReportEvent(decision.eventId, decision.insertionStrings);
  if (decision.bStopServices) StopServices();
}

bool FreeSpaceChecker::HoldBack(DWORD now) const noexcept {
  // Elapsed time in unsigned 32-bit arithmetic stays right across the wrap
  // of the tick counter.
  return static_cast<DWORD>(now - m_nStateTicks) < m_nResendTimeoutMs;
}

FreeSpaceChecker::Decision FreeSpaceChecker::Evaluate(const SampleList& samples, DWORD now) {
  Decision decision;

  const auto belowStop = SelectBelow(samples, m_nStopBound);
  if (!belowStop->IsEnd()) {
    if (!(m_state == ReportState::CriticalReported && HoldBack(now))) {
      decision.eventId = kEventFreeSpaceCritical;
      decision.insertionStrings = {FormatPathList(belowStop), FormatServiceList(m_pServices->GetEnumerator())};
      m_nStateTicks = now;
      m_state = ReportState::CriticalReported;
    }
    // Services go down on every critical cycle, also while the event is held
    // back: one that was restarted meanwhile must not fill the disk.
    decision.bStopServices = true;
    return decision;
  }

  const auto belowWarning = SelectBelow(samples, m_nWarningBound);
  if (!belowWarning->IsEnd()) {
    const bool bReported = m_state == ReportState::WarningReported || m_state == ReportState::CriticalReported;
    if (!(bReported && HoldBack(now))) {
      decision.eventId = kEventFreeSpaceLow;
      decision.insertionStrings = {FormatPathList(belowWarning), std::to_wstring(ToMegabytes(m_nRecommendedMinimum))};
      m_nStateTicks = now;
      m_state = ReportState::WarningReported;
    }
    return decision;
  }

  // Paths between the warning bound and the recommended minimum are selected
  // but hold no state of their own: the group is Normal again as soon as every
  // path is at or above the warning bound, and the warning selection decides.
  const auto belowRecommended = SelectBelow(samples, m_nRecommendedMinimum);
  (void)belowRecommended;
  if (SelectBelow(samples, m_nWarningBound)->IsEnd()) {
    m_state = ReportState::Normal;
    m_nStateTicks = now;
  }
  return decision;
}

void FreeSpaceChecker::StopServices() const {
  AuditArchive::ForEach(m_pServices->GetEnumerator(), [](const std::wstring& name) {
    try {
      StopService(name);
    } catch (const HRX& error) {
      // At WARN: the critical event says the services are being stopped,
      // so one that was not must be seen at the usual level.
      VH_LOG(VHLogger::SEV_WARN, kSource, L"Failed to stop service \"" << name << L"\": " << error.Text());
    }
  });
}

bool IsIntervalElapsed(DWORD start, DWORD now, std::int32_t intervalSec) noexcept {
  const DWORD intervalMs = static_cast<DWORD>(intervalSec) * 1000u;
  return !(now >= start && now - start <= intervalMs);
}

}  // namespace Kestrel::Detail
