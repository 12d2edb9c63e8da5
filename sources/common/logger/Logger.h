#pragma once
// The module's diagnostic log. Callers test the severity before composing a
// message (VH_LOG does both), so disabled lines cost no formatting.

#include <windows.h>

#include <optional>
#include <sstream>
#include <string>

namespace VHLogger {

enum Severity : unsigned {
  SEV_NONE = 0,
  SEV_CRIT = 1,
  SEV_ERR = 2,
  SEV_WARN = 3,
  SEV_INFO = 4,
  SEV_DBG = 5,
  SEV_DBG2 = 6,
  SEV_DBG3 = 7,
};

using CLoggerStream = std::wostringstream;

namespace Detail {
class ILogWriter;
class IFormatter;
}  // namespace Detail

class CLogger;

// The process-wide logger, created on first use.
CLogger& GetLogger();

// Installs a writer in the first of the four free slots; false (with a
// debugger message) when none is free.
bool AddLogWriter(Detail::ILogWriter* writer) noexcept;
bool RemoveLogWriter(Detail::ILogWriter* writer) noexcept;

// The directory of the module's log files, with its trailing separator.
std::wstring GetLogDirectory();

// The text written at the top of every log file the module starts.
std::wstring ModuleBanner();

// Refreshes the configuration (at most every 5 s) and tells whether a line of
// this severity is written.
bool IsEnabled(unsigned severity) noexcept;

// Formats and hands one line to every installed writer. Never throws.
void Write(unsigned severity, const std::wstring& message, const wchar_t* source, unsigned line) noexcept;

// Logs "Entering: " on creation and "Exiting: name [Nms]" (or "EXCEPTION at: ")
// on destruction; lines in between are indented one level deeper.
class CScopeTracer {
 public:
  CScopeTracer(int severity, int exceptionSeverity, std::wstring name, const wchar_t* source, unsigned line);
  // Writes its lines to the given writer only.
  CScopeTracer(int severity, int exceptionSeverity, std::wstring name, const wchar_t* source, unsigned line,
               Detail::ILogWriter* writer);
  ~CScopeTracer();
  CScopeTracer(const CScopeTracer&) = delete;
  CScopeTracer& operator=(const CScopeTracer&) = delete;

 private:
  int m_nSeverity;
  int m_nExceptionSeverity;
  std::wstring m_sName;
  const wchar_t* m_pSource;
  unsigned m_nLine;
  Detail::ILogWriter* m_pWriter;
  unsigned m_nDepthContribution = 0;
  int m_nExceptionsInFlight;
  DWORD m_nStartTicks;
};

}  // namespace VHLogger

namespace VHLogger::Detail {
// Hands a composed stream's text to Write without copying it.
void WriteStream(unsigned severity, const CLoggerStream& stream, const wchar_t* source, unsigned line) noexcept;
}  // namespace VHLogger::Detail

// Composes and writes one line; an exception while composing ends the line
// with "... (***EXCEPTION***)" instead of escaping.
#define VH_LOG_AT(severity, source, line, expr)                              \
  do {                                                                       \
    if (::VHLogger::IsEnabled(severity)) {                                   \
      ::VHLogger::CLoggerStream vhLogStream_;                                \
      try {                                                                  \
        vhLogStream_ << expr;                                                \
      } catch (...) {                                                        \
        try {                                                                \
          vhLogStream_.clear();                                              \
          vhLogStream_ << L"... (***EXCEPTION***)";                          \
        } catch (...) {                                                      \
        }                                                                    \
      }                                                                      \
      ::VHLogger::Detail::WriteStream(severity, vhLogStream_, source, line); \
    }                                                                        \
  } while (0)

#define VH_LOG(severity, source, expr) VH_LOG_AT(severity, source, __LINE__, expr)

#define VH_LOG_CONCAT_INNER_(a, b) a##b
#define VH_LOG_CONCAT_(a, b) VH_LOG_CONCAT_INNER_(a, b)

// Opens a scope trace for the rest of the enclosing block when the log admits
// the severity; the name is composed only then.
#define VH_TRACE_SCOPE_SEV(severity, source, nameExpr)                              \
  std::optional<::VHLogger::CScopeTracer> VH_LOG_CONCAT_(vhScopeTracer_, __LINE__); \
  if (::VHLogger::IsEnabled(severity))                                              \
  VH_LOG_CONCAT_(vhScopeTracer_, __LINE__).emplace(severity, severity, (nameExpr), source, __LINE__)

#define VH_TRACE_SCOPE(source, nameExpr) VH_TRACE_SCOPE_SEV(::VHLogger::SEV_DBG, source, nameExpr)

// The same, for a helper that traces on behalf of its caller: the lines carry
// the caller's source line rather than the helper's.
#define VH_TRACE_SCOPE_AT(source, line, nameExpr)                                   \
  std::optional<::VHLogger::CScopeTracer> VH_LOG_CONCAT_(vhScopeTracer_, __LINE__); \
  if (::VHLogger::IsEnabled(::VHLogger::SEV_DBG))                                   \
  VH_LOG_CONCAT_(vhScopeTracer_, __LINE__).emplace(::VHLogger::SEV_DBG, ::VHLogger::SEV_DBG, (nameExpr), source, line)
