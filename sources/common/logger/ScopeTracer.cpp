#include <cwchar>
#include <exception>

#include "Logger.h"
#include "detail/LoggerCore.h"
#include "platform/TickCount.h"

namespace VHLogger {

CScopeTracer::CScopeTracer(int severity, int exceptionSeverity, std::wstring name, const wchar_t* source, unsigned line)
    : CScopeTracer(severity, exceptionSeverity, std::move(name), source, line, nullptr) {}

CScopeTracer::CScopeTracer(int severity, int exceptionSeverity, std::wstring name, const wchar_t* source, unsigned line,
                           Detail::ILogWriter* writer)
    : m_nSeverity(severity),
      m_nExceptionSeverity(exceptionSeverity),
      m_sName(std::move(name)),
      m_pSource(source),
      m_nLine(line),
      m_pWriter(writer),
      // A scope left while more exceptions are in flight than at its start
      // is being unwound by one.
      m_nExceptionsInFlight(std::uncaught_exceptions()),
      m_nStartTicks(0) {
  try {
    CLogger& logger = GetLogger();
    if (m_nSeverity >= 1) {
      logger.RefreshConfiguration();
      if (static_cast<unsigned>(m_nSeverity) <= logger.MaxSeverity()) {
        // Written before the depth grows, so it stands at the caller's depth.
        logger.Write(static_cast<unsigned>(m_nSeverity), L"Entering: " + m_sName, m_pSource, m_nLine, m_pWriter);
      }
    }
    if (logger.VersionFlag()) ++Detail::ThreadScopeDepth();
    ++m_nDepthContribution;
  } catch (...) {
    // Tracing never disturbs the traced code.
  }
  m_nStartTicks = Kestrel::TickCount();
}

CScopeTracer::~CScopeTracer() {
  try {
    const DWORD elapsed = Kestrel::TickCount() - m_nStartTicks;
    CLogger& logger = GetLogger();
    if (logger.VersionFlag()) Detail::ThreadScopeDepth() -= m_nDepthContribution;
    m_nDepthContribution = 0;

    wchar_t time[32];
    std::swprintf(time, sizeof(time) / sizeof(time[0]), L" [%ums]", static_cast<unsigned>(elapsed));
    m_sName += time;

    const unsigned maxSeverity = logger.MaxSeverity();
    if (std::uncaught_exceptions() == m_nExceptionsInFlight) {
      if (m_nSeverity >= 1 && static_cast<unsigned>(m_nSeverity) <= maxSeverity) {
        logger.Write(static_cast<unsigned>(m_nSeverity), L"Exiting: " + m_sName, m_pSource, m_nLine, m_pWriter);
      }
    } else if (m_nExceptionSeverity >= 1 && static_cast<unsigned>(m_nExceptionSeverity) <= maxSeverity) {
      logger.Write(static_cast<unsigned>(m_nExceptionSeverity), L"EXCEPTION at: " + m_sName, m_pSource, m_nLine,
                   m_pWriter);
    }
  } catch (...) {
    // A destructor never throws.
  }
  if (m_nDepthContribution != 0) {
    try {
      if (GetLogger().VersionFlag()) Detail::ThreadScopeDepth() -= m_nDepthContribution;
    } catch (...) {
    }
    m_nDepthContribution = 0;
  }
}

}  // namespace VHLogger
