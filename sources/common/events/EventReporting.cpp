#include "events/EventReporting.h"

#include <mutex>
#include <shared_mutex>

#include "ErrorHandling.h"
#include "events/Detail/EventlogWriter.h"
#include "events/Detail/FileLogEventWriter.h"
#include "settings/GlobalSettings.h"

namespace EventReporting {

namespace {

CEventSource BuildEventSource() {
  CEventSource source;
  source.sName = GlobalSettings::GetStringOrDefault(L"CoreEventSource", L"EventSourceName", L"Vigil Hub");
  source.sLogName = GlobalSettings::GetStringOrDefault(L"CoreEventSource", L"EventLogName", L"Kestrel Overwatch");
  source.sMessageFile =
      GlobalSettings::GetStringOrDefault(L"CoreEventSource", L"MessageFile", L"CoreEventMessages.dll");
  return source;
}

void AddConfiguredWriters(CEventWriterList& writers) {
  writers.Add(std::make_shared<Detail::CEventlogWriter>());
  const std::wstring eventsFile = GlobalSettings::GetStringOrDefault(L"EventReporting", L"EventsLogFile", L"");
  if (!eventsFile.empty()) writers.Add(std::make_shared<Detail::CFileLogEventWriter>(eventsFile));
}

}  // namespace

void CEventWriterList::Add(std::shared_ptr<IEventWriter> writer) {
  std::unique_lock lock(m_lock);
  m_aWriters.push_back(std::move(writer));
}

void CEventWriterList::Write(const CEventSource& source, const CEventRecord& event) {
  std::shared_lock lock(m_lock);
  for (const auto& writer : m_aWriters) writer->WriteEvent(source, event);
}

std::size_t CEventWriterList::Size() {
  std::shared_lock lock(m_lock);
  return m_aWriters.size();
}

const CEventSource& GetEventSource() {
  static const CEventSource s_source = BuildEventSource();
  return s_source;
}

CEventWriterList& GetEventWriters() {
  static CEventWriterList s_writers{AddConfiguredWriters};
  return s_writers;
}

void AddEventWriter(std::shared_ptr<IEventWriter> writer) { GetEventWriters().Add(std::move(writer)); }

void DispatchEvent(const CEventSource& source, CEventRecord event) {
  event.Complete();
  GetEventWriters().Write(source, event);
}

void ReportEvent(std::uint32_t eventId, const std::vector<std::wstring>& insertionStrings) {
  if (insertionStrings.size() > static_cast<std::size_t>(CEventRecord::kMaxInsertion)) {
    Kestrel::ThrowHr(E_INVALIDARG, L"An event takes at most 255 insertion strings");
  }
  CEventRecord event(eventId);
  int number = 0;
  for (const std::wstring& text : insertionStrings) event.SetString(++number, text);
  DispatchEvent(GetEventSource(), std::move(event));
}

}  // namespace EventReporting
