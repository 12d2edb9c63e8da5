#include "DetailedFormatter.h"

#include <cwchar>

#include "rules/LogRules.h"

namespace VHLogger::Detail {

namespace {
constexpr int kSourceColumns = 26;
constexpr int kMaxDepth = 30;
// One call writes one line: a line break or other control character inside
// a message (a request name from the host, a path) could otherwise forge a
// line of its own. Tab stays, as it breaks nothing.
void AppendEscaped(std::wstring& line, std::wstring_view message) {
  std::size_t plain = 0;
  for (std::size_t i = 0; i < message.size(); ++i) {
    const wchar_t c = message[i];
    if (c >= 0x20 || c == L'\t') continue;
    line.append(message.substr(plain, i - plain));
    plain = i + 1;
    switch (c) {
      case L'\r':
        line.append(L"\\r");
        break;
      case L'\n':
        line.append(L"\\n");
        break;
      default: {
        wchar_t escaped[8];
        std::swprintf(escaped, 8, L"\\x%02X", static_cast<unsigned>(c));
        line.append(escaped);
      }
    }
  }
  line.append(message.substr(plain));
}

}  // namespace

void DetailedFormatter::Format(std::wstring& line, unsigned severity, const wchar_t* source, unsigned lineNumber,
                               std::wstring_view message, int depth, const SYSTEMTIME* time) const {
  SYSTEMTIME now;
  if (time == nullptr) {
    ::GetLocalTime(&now);
    time = &now;
  }
  FormatLine(line, severity, source, lineNumber, message, depth, *time, ::GetCurrentProcessId(),
             ::GetCurrentThreadId());
}

void DetailedFormatter::FormatLine(std::wstring& line, unsigned severity, const wchar_t* source, unsigned lineNumber,
                                   std::wstring_view message, int depth, const SYSTEMTIME& time, DWORD processId,
                                   DWORD threadId) {
  // Only the backslash separates directories: a "/" path is shown whole.
  const wchar_t* name = source != nullptr ? source : L"";
  if (const wchar_t* separator = std::wcsrchr(name, L'\\')) name = separator + 1;
  const int nameLength = static_cast<int>(std::wcslen(name));
  const int numberWidth = (nameLength < kSourceColumns ? kSourceColumns - nameLength : 0) + 4;
  const int indent = 2 * (depth < 0 ? 0 : depth > kMaxDepth ? kMaxDepth : depth);

  // Everything but the message fits: 46 fixed columns, 26 of name, 30 of
  // number, 60 of indentation.
  wchar_t head[200];
  int length = std::swprintf(
      head, sizeof(head) / sizeof(head[0]), L"%04u-%02u-%02u %02u:%02u:%02u.%03u | %-4.4ls |%5u %5u | %.*ls:%-*u| %*ls",
      time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds,
      Kestrel::Rules::SeverityName(severity), static_cast<unsigned>(processId & 0xFFFF), static_cast<unsigned>(threadId & 0xFFFF),
      kSourceColumns, name, numberWidth, lineNumber, indent, L"");
  if (length < 0) length = 0;

  line.clear();
  line.reserve(static_cast<std::size_t>(length) + message.size() + 2);
  line.append(head, static_cast<std::size_t>(length));
  AppendEscaped(line, message);
  line.append(L"\r\n");
}

}  // namespace VHLogger::Detail
