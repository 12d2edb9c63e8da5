#pragma once
// Events for administrators: each reported event goes to every installed
// writer (the Windows event log, and the events text file when configured).

#include <windows.h>

#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

#include "events/EventRecord.h"
#include "events/EventWriter.h"

namespace EventReporting {

// The process-wide description, read from the settings on first use:
// "CoreEventSource" keys "EventSourceName", "EventLogName", "MessageFile".
const CEventSource& GetEventSource();

// The ordered writers every event goes to.
class CEventWriterList {
 public:
  CEventWriterList() = default;
  // Built with the writers `fill` adds, before anyone else can see the list.
  explicit CEventWriterList(void (*fill)(CEventWriterList&)) { fill(*this); }
  CEventWriterList(const CEventWriterList&) = delete;
  CEventWriterList& operator=(const CEventWriterList&) = delete;

  void Add(std::shared_ptr<IEventWriter> writer);
  // Hands the event to each writer in order under the shared lock, so
  // events are written in parallel while no writer is being added.
  void Write(const CEventSource& source, const CEventRecord& event);
  std::size_t Size();

 private:
  std::shared_mutex m_lock;
  std::vector<std::shared_ptr<IEventWriter>> m_aWriters;
};

// The process-wide list, built on first use: the event log writer first,
// then the events file writer when "EventReporting"/"EventsLogFile" is set.
// Later changes of the settings take effect when the module is loaded again.
CEventWriterList& GetEventWriters();

// Appends a writer to the process-wide list.
void AddEventWriter(std::shared_ptr<IEventWriter> writer);

// Fills the category and type the event leaves unset from its id and hands
// it to every writer. Writers log their own failures; nothing is returned.
void DispatchEvent(const CEventSource& source, CEventRecord event);

// Reports one event by id with insertion strings %1, %2, ... in order; the
// category and type follow from the id. Never throws for a writer's failure;
// more than 255 strings raise E_INVALIDARG.
void ReportEvent(std::uint32_t eventId, const std::vector<std::wstring>& insertionStrings);

}  // namespace EventReporting
