#pragma once
// What the logger hands lines to and what turns a message into a line.

#include <windows.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace VHLogger::Detail {

// Receives whole formatted lines, end of line included. Writers serialise
// their own output and never throw.
class ILogWriter {
 public:
  virtual ~ILogWriter() = default;
  virtual void Write(const wchar_t* text, std::size_t length) noexcept = 0;
};

// Turns one message into one line. A null time means "now".
class IFormatter {
 public:
  virtual ~IFormatter() = default;
  virtual void Format(std::wstring& line, unsigned severity, const wchar_t* source, unsigned lineNumber,
                      std::wstring_view message, int depth, const SYSTEMTIME* time) const = 0;
};

}  // namespace VHLogger::Detail
