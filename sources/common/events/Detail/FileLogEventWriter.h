#pragma once
// Appends a readable text form of each event to the events file, with the
// message and category texts taken from the same message file the event log
// reads.

#include <windows.h>

#include <cstddef>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

#include "Handle.h"
#include "events/EventWriter.h"
#include "logger/detail/FileLogger.h"

namespace EventReporting::Detail {

using MessageModule = ::Library;

class CFileLogEventWriter : public IEventWriter {
 public:
  // A message naming more inserts than were given reads nulls from this many
  // entries instead of running past the argument array.
  static constexpr std::size_t kMinArguments = 20;

  // A bare file name lands in the log directory, as for any file logger.
  // Only a plain file of its folder is written; a link or a second name at
  // the file's place is refused and logged once at ERR.
  explicit CFileLogEventWriter(std::wstring fileName);
  CFileLogEventWriter(const CFileLogEventWriter&) = delete;
  CFileLogEventWriter& operator=(const CFileLogEventWriter&) = delete;

  void WriteEvent(const CEventSource& source, const CEventRecord& event) override;

  // The entry WriteEvent appends, for the given local time.
  std::wstring ComposeEntry(const CEventSource& source, const CEventRecord& event, const SYSTEMTIME& time);

  // The source's message file, loaded as data on first use; null when it
  // cannot be loaded (logged).
  std::shared_ptr<const MessageModule> AcquireMessageFile(const CEventSource& source);

  // The text of a message id; empty when there is no message file or no
  // such message.
  static std::wstring FormatMessageText(HMODULE messageFile, DWORD messageId,
                                        const std::vector<const wchar_t*>& arguments);
  // The text used when the message file gives none.
  static std::wstring FallbackText(const std::vector<const wchar_t*>& arguments);
  static const wchar_t* TypeName(std::uint16_t type) noexcept;

 private:
  std::shared_mutex m_lock;
  VHLogger::Detail::CFileLogger m_fileLogger;
  std::map<std::wstring, std::shared_ptr<const MessageModule>> m_mapMessageFiles;
};

}  // namespace EventReporting::Detail
