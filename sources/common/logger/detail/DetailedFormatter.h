#pragma once
// The module's log line: fixed columns, so a log reads and sorts as a table.
//
//   2024-03-05 14:07:09.042 | ERR  | 4464  1234 | Worker:77                      |     Disk query failed
//
// time, severity tag, process and thread id (low 16 bits), source name and
// line (31 columns), two blanks per scope level, the message, CR LF.

#include "LogInterfaces.h"

namespace VHLogger::Detail {

class DetailedFormatter : public IFormatter {
 public:
  void Format(std::wstring& line, unsigned severity, const wchar_t* source, unsigned lineNumber,
              std::wstring_view message, int depth, const SYSTEMTIME* time) const override;

  // The same line for given process and thread ids.
  static void FormatLine(std::wstring& line, unsigned severity, const wchar_t* source, unsigned lineNumber,
                         std::wstring_view message, int depth, const SYSTEMTIME& time, DWORD processId, DWORD threadId);
};

}  // namespace VHLogger::Detail
