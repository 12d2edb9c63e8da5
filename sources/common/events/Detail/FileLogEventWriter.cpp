#include "events/Detail/FileLogEventWriter.h"

#include <algorithm>
#include <cwchar>
#include <mutex>
#include <shared_mutex>

#include "events/Detail/ErrorText.h"
#include "logger/Logger.h"
#include "platform/ModulePath.h"
#include "rules/Paths.h"

namespace EventReporting::Detail {

namespace {

constexpr wchar_t kSource[] = L"FileLogEventWriter";

// A refused events file is an administrator's matter, so it goes to the
// module log rather than the debugger output.
void ReportRefusedFile(const std::wstring& path, const std::wstring& reason) noexcept {
  try {
    VH_LOG(VHLogger::SEV_ERR, kSource, L"Events file '" << path << L"' refused: " << reason);
  } catch (...) {
    // Nowhere left to tell.
  }
}

}  // namespace

CFileLogEventWriter::CFileLogEventWriter(std::wstring fileName)
    : m_fileLogger(std::move(fileName), L"", &ReportRefusedFile) {}

std::shared_ptr<const MessageModule> CFileLogEventWriter::AcquireMessageFile(const CEventSource& source) {
  {
    std::shared_lock lock(m_lock);
    const auto found = m_mapMessageFiles.find(source.sName);
    if (found != m_mapMessageFiles.end()) return found->second;
  }
  std::unique_lock lock(m_lock);
  const auto found = m_mapMessageFiles.find(source.sName);
  if (found != m_mapMessageFiles.end()) return found->second;

  const std::wstring path = Kestrel::Rules::AnchoredAt(source.sMessageFile, Kestrel::ModuleDirectory());
  // Only the message table is read: no code of the file runs.
  MessageModule module(
      ::LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
  if (!module) {
    const DWORD error = ::GetLastError();
    VH_LOG(VHLogger::SEV_ERR, kSource, L"LoadLibraryExW('" << path << L"')" << L" failed: " << ErrorText(error));
    // Not remembered: a message file installed later is picked up by the
    // next event.
    return nullptr;
  }
  auto shared = std::make_shared<const MessageModule>(std::move(module));
  m_mapMessageFiles.emplace(source.sName, shared);
  return shared;
}

std::wstring CFileLogEventWriter::FormatMessageText(HMODULE messageFile, DWORD messageId,
                                                    const std::vector<const wchar_t*>& arguments) {
  if (messageFile == nullptr) return {};
  // The maximum-width mask joins the message's own source lines, so an entry
  // keeps only the line breaks its author asked for.
  DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_MAX_WIDTH_MASK;
  std::vector<DWORD_PTR> array;
  if (arguments.empty()) {
    flags |= FORMAT_MESSAGE_IGNORE_INSERTS;
  } else {
    flags |= FORMAT_MESSAGE_ARGUMENT_ARRAY;
    array.assign(std::max(arguments.size(), kMinArguments), 0);
    for (std::size_t i = 0; i < arguments.size(); ++i) array[i] = reinterpret_cast<DWORD_PTR>(arguments[i]);
  }
  LocalMemory buffer;
  const DWORD length =
      ::FormatMessageW(flags, messageFile, messageId, MAKELANGID(LANG_NEUTRAL, SUBLANG_NEUTRAL),
                       reinterpret_cast<wchar_t*>(buffer.Put()), 0,
                       array.empty() ? nullptr : reinterpret_cast<va_list*>(array.data()));
  if (length == 0) {
    const DWORD error = ::GetLastError();
    VH_LOG(VHLogger::SEV_ERR, kSource, L"FormatMessageW" << L" failed: " << ErrorText(error));
    return {};
  }
  return std::wstring(static_cast<const wchar_t*>(buffer.Get()), length);
}

std::wstring CFileLogEventWriter::FallbackText(const std::vector<const wchar_t*>& arguments) {
  // Each non-null string replaces the whole text, so only the last one shows,
  // always as number 1: tools that read the events file expect this form.
  std::wstring text = L"Raw parameters: ";
  bool first = true;
  for (const wchar_t* argument : arguments) {
    if (argument == nullptr) continue;
    if (first) {
      text += L";";
      first = false;
    }
    text = L"\r\n\t1:['";
    text += argument;
    text += L"']";
  }
  return text;
}

const wchar_t* CFileLogEventWriter::TypeName(std::uint16_t type) noexcept {
  switch (type) {
    case EVENTLOG_SUCCESS:
      return L"Success";
    case EVENTLOG_ERROR_TYPE:
      return L"Error";
    case EVENTLOG_WARNING_TYPE:
      return L"Warning";
    case EVENTLOG_INFORMATION_TYPE:
      return L"Information";
    default:
      return L"";
  }
}

std::wstring CFileLogEventWriter::ComposeEntry(const CEventSource& source, const CEventRecord& event,
                                               const SYSTEMTIME& time) {
  const std::shared_ptr<const MessageModule> messageFile = AcquireMessageFile(source);
  const HMODULE module = messageFile ? messageFile->Get() : nullptr;
  const std::vector<const wchar_t*> arguments = event.Arguments();

  std::wstring message = FormatMessageText(module, event.EventId(), arguments);
  if (message.empty()) message = FallbackText(arguments);
  const std::wstring category = FormatMessageText(module, event.Category(), {});

  // The texts can be of any length, so they are appended rather than passed
  // through a fixed buffer; the result is that of the one format
  // "%04u-%02u-%02u %02u:%02u:%02u.%03u | Source: '%s'; EventId: %u; Type: '%s'(%u); Category: '%s'(%u)\r\n%s".
  wchar_t stamp[32];
  std::swprintf(stamp, sizeof(stamp) / sizeof(stamp[0]), L"%04u-%02u-%02u %02u:%02u:%02u.%03u", time.wYear,
                time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds);
  std::wstring entry = stamp;
  entry += L" | Source: '";
  entry += source.sName;
  entry += L"'; EventId: ";
  entry += std::to_wstring(event.EventId() & 0xFFFF);
  entry += L"; Type: '";
  entry += TypeName(event.Type());
  entry += L"'(";
  entry += std::to_wstring(event.Type());
  entry += L"); Category: '";
  entry += category;
  entry += L"'(";
  entry += std::to_wstring(event.Category());
  entry += L")\r\n";
  entry += message;

  const auto end = entry.find_last_not_of(L"\r\n");
  if (end != std::wstring::npos) entry.erase(end + 1);
  entry += L"\r\n";
  return entry;
}

void CFileLogEventWriter::WriteEvent(const CEventSource& source, const CEventRecord& event) {
  SYSTEMTIME now;
  ::GetLocalTime(&now);
  const std::wstring entry = ComposeEntry(source, event, now);
  m_fileLogger.Write(entry.c_str(), entry.size());
}

}  // namespace EventReporting::Detail
