#include "events/EventReporting.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>

#include "components/ComponentsCommon.h"
#include "events/Detail/EventlogWriter.h"
#include "events/Detail/FileLogEventWriter.h"
#include "settings/GlobalSettings.h"

namespace EventReporting {

namespace {

std::atomic<CEventSource*> g_pEventSource{nullptr};
std::atomic<CEventWriterList*> g_pEventWriters{nullptr};

void DestroyEventSource() { delete g_pEventSource.exchange(nullptr); }
void DestroyEventWriters() { delete g_pEventWriters.exchange(nullptr); }

// Read without a lock once published; built once under the module's lock.
template <typename T, typename Build>
T& LazyInstance(std::atomic<T*>& instance, Build&& build, void (*destroy)()) {
  T* current = instance.load(std::memory_order_acquire);
  if (current != nullptr) return *current;
  std::lock_guard<std::mutex> lock(LazyStaticsLock());
  current = instance.load(std::memory_order_relaxed);
  if (current == nullptr) {
    current = build();
    instance.store(current, std::memory_order_release);
    std::atexit(destroy);
  }
  return *current;
}

CEventSource* BuildEventSource() {
  auto source = std::make_unique<CEventSource>();
  source->sName = GlobalSettings::GetStringOrDefault(L"CoreEventSource", L"EventSourceName", L"Vigil Hub");
  source->sLogName = GlobalSettings::GetStringOrDefault(L"CoreEventSource", L"EventLogName", L"Kestrel Overwatch");
  source->sMessageFile =
      GlobalSettings::GetStringOrDefault(L"CoreEventSource", L"MessageFile", L"CoreEventMessages.dll");
  return source.release();
}

CEventWriterList* BuildEventWriters() {
  auto writers = std::make_unique<CEventWriterList>();
  writers->Add(std::make_shared<Detail::CEventlogWriter>());
  const std::wstring eventsFile = GlobalSettings::GetStringOrDefault(L"EventReporting", L"EventsLogFile", L"");
  if (!eventsFile.empty()) writers->Add(std::make_shared<Detail::CFileLogEventWriter>(eventsFile));
  return writers.release();
}

}  // namespace

void CEventWriterList::Add(std::shared_ptr<IEventWriter> writer) {
  std::unique_lock<Detail::CSrwLock> lock(m_lock);
  m_aWriters.push_back(std::move(writer));
}

void CEventWriterList::Write(const CEventSource& source, const CEventRecord& event) {
  std::shared_lock<Detail::CSrwLock> lock(m_lock);
  for (const auto& writer : m_aWriters) writer->WriteEvent(source, event);
}

std::size_t CEventWriterList::Size() {
  std::shared_lock<Detail::CSrwLock> lock(m_lock);
  return m_aWriters.size();
}

const CEventSource& GetEventSource() { return LazyInstance(g_pEventSource, BuildEventSource, DestroyEventSource); }

CEventWriterList& GetEventWriters() {
  return LazyInstance(g_pEventWriters, BuildEventWriters, DestroyEventWriters);
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
