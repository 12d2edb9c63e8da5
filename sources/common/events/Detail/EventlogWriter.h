#pragma once
// Writes events into the Windows event log, one registered source handle per
// source name, shared by every event reported under that name.

#include <windows.h>

#include <map>
#include <memory>
#include <shared_mutex>
#include <string>

#include "UniqueResource.h"
#include "events/EventWriter.h"

namespace EventReporting::Detail {

// The event log calls the writer makes. Wine's event log accepts every call,
// so the only way to see the failure paths is to replace them.
struct EventLogApi {
  HANDLE(WINAPI* registerSource)(LPCWSTR server, LPCWSTR sourceName);
  BOOL(WINAPI* report)(HANDLE source, WORD type, WORD category, DWORD eventId, PSID sid, WORD numStrings,
                       DWORD dataSize, LPCWSTR* strings, LPVOID data);
  BOOL(WINAPI* deregister)(HANDLE source);
};

const EventLogApi& CurrentEventLogApi() noexcept;

// Installs replacement calls for its lifetime. Handles registered through the
// replacement must be gone before it ends.
class CScopedEventLogApi {
 public:
  explicit CScopedEventLogApi(const EventLogApi& api) noexcept;
  ~CScopedEventLogApi();
  CScopedEventLogApi(const CScopedEventLogApi&) = delete;
  CScopedEventLogApi& operator=(const CScopedEventLogApi&) = delete;

 private:
  const EventLogApi* m_pPrevious;
};

struct EventSourceTraits {
  using pointer = HANDLE;
  static pointer Invalid() noexcept { return nullptr; }
  static bool IsValid(pointer value) noexcept { return value != nullptr; }
  static bool Close(pointer value) noexcept { return CurrentEventLogApi().deregister(value) != FALSE; }
  static const wchar_t* Source() noexcept { return L"EventlogWriter"; }
};

using EventSourceHandle = Kestrel::UniqueResource<EventSourceTraits>;

class CEventlogWriter : public IEventWriter {
 public:
  CEventlogWriter() = default;
  CEventlogWriter(const CEventlogWriter&) = delete;
  CEventlogWriter& operator=(const CEventlogWriter&) = delete;

  void WriteEvent(const CEventSource& source, const CEventRecord& event) override;

  // The handle registered for the source name (exact, case-sensitive), made
  // on first use; null when registration failed (logged). Holders keep the
  // source registered after the writer is gone.
  std::shared_ptr<const EventSourceHandle> AcquireSource(const std::wstring& sourceName);

 private:
  std::shared_mutex m_lock;
  std::map<std::wstring, std::shared_ptr<const EventSourceHandle>> m_mapSources;
};

}  // namespace EventReporting::Detail
