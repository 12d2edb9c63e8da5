#include "events/Detail/EventlogWriter.h"

#include <atomic>
#include <mutex>
#include <shared_mutex>

#include "events/Detail/ErrorText.h"
#include "logger/Logger.h"

namespace EventReporting::Detail {

namespace {

constexpr wchar_t kSource[] = L"EventlogWriter";

const EventLogApi kSystemEventLogApi = {&::RegisterEventSourceW, &::ReportEventW, &::DeregisterEventSource};
std::atomic<const EventLogApi*> g_pEventLogApi{&kSystemEventLogApi};

}  // namespace

const EventLogApi& CurrentEventLogApi() noexcept { return *g_pEventLogApi.load(); }

CScopedEventLogApi::CScopedEventLogApi(const EventLogApi& api) noexcept : m_pPrevious(g_pEventLogApi.exchange(&api)) {}

CScopedEventLogApi::~CScopedEventLogApi() { g_pEventLogApi.store(m_pPrevious); }

std::shared_ptr<const EventSourceHandle> CEventlogWriter::AcquireSource(const std::wstring& sourceName) {
  {
    std::shared_lock lock(m_lock);
    const auto found = m_mapSources.find(sourceName);
    if (found != m_mapSources.end()) return found->second;
  }
  std::unique_lock lock(m_lock);
  // Another thread may have registered the name between the two locks.
  const auto found = m_mapSources.find(sourceName);
  if (found != m_mapSources.end()) return found->second;

  EventSourceHandle handle(CurrentEventLogApi().registerSource(nullptr, sourceName.c_str()));
  if (!handle) {
    const DWORD error = ::GetLastError();
    VH_LOG(VHLogger::SEV_ERR, kSource,
           L"RegisterEventSource('" << sourceName << L"')" << L" failed: " << ErrorText(error));
    return nullptr;
  }
  auto shared = std::make_shared<const EventSourceHandle>(std::move(handle));
  m_mapSources.emplace(sourceName, shared);
  return shared;
}

void CEventlogWriter::WriteEvent(const CEventSource& source, const CEventRecord& event) {
  const std::shared_ptr<const EventSourceHandle> handle = AcquireSource(source.sName);
  std::vector<const wchar_t*> arguments = event.Arguments();
  PSID sid = event.HasSid() && ::IsValidSid(event.Sid()) ? event.Sid() : nullptr;

  // The write runs outside the lock on the shared handle; without one the
  // call fails and that failure is what gets logged.
  const BOOL reported = CurrentEventLogApi().report(
      handle ? handle->Get() : nullptr, event.Type(), event.Category(), event.EventId(), sid,
      static_cast<WORD>(arguments.size()), 0, arguments.empty() ? nullptr : arguments.data(), nullptr);
  if (!reported) {
    const DWORD error = ::GetLastError();
    VH_LOG(VHLogger::SEV_ERR, kSource,
           L"ReportEvent(" << event.EventId() << L")" << L" failed: " << ErrorText(error));
  }
}

}  // namespace EventReporting::Detail
