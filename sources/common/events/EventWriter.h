#pragma once
// What every event writer receives: where the event is reported and the
// event itself.

#include <string>

#include "events/EventRecord.h"

namespace EventReporting {

// Where events are reported: source name, event log and message file.
struct CEventSource {
  std::wstring sName;
  std::wstring sLogName;
  std::wstring sMessageFile;
};

// A destination of events. Writers report their own failures to the log and
// never throw for a failing system call; they are held by shared ownership.
class IEventWriter {
 public:
  virtual ~IEventWriter() = default;
  virtual void WriteEvent(const CEventSource& source, const CEventRecord& event) = 0;
};

}  // namespace EventReporting
