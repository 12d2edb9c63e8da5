#include "Logger.h"

#include <exception>

namespace VHLogger {

// Placeholder until the logger lands: nothing is written.
bool IsEnabled(unsigned) noexcept { return false; }
void Write(unsigned, const std::wstring&, const wchar_t*, unsigned) noexcept {}

CScopeTracer::CScopeTracer(int severity, int exceptionSeverity, std::wstring name, const wchar_t* source,
                           unsigned line)
    : m_nSeverity(severity),
      m_nExceptionSeverity(exceptionSeverity),
      m_sName(std::move(name)),
      m_pSource(source),
      m_nLine(line),
      m_nExceptionsInFlight(std::uncaught_exceptions()),
      m_nStartTicks(::GetTickCount()) {}

CScopeTracer::~CScopeTracer() = default;

}  // namespace VHLogger
