#include "Logger.h"

#include <cwchar>

#include "Assert.h"
#include "ErrorHandling.h"
#include "detail/DebugOutput.h"
#include "detail/LoggerCore.h"
#include "platform/FileTrust.h"
#include "platform/ModulePath.h"
#include "platform/TickCount.h"
#include "rules/LogRules.h"

namespace VHLogger {

namespace {

constexpr unsigned kDefaultMaxSeverity = SEV_DBG;

thread_local unsigned t_nScopeDepth = 0;

bool IsVistaOrLater() noexcept {
  OSVERSIONINFOEXW version{};
  version.dwOSVersionInfoSize = sizeof(version);
  version.dwMajorVersion = 6;
  version.dwMinorVersion = 0;
  version.wServicePackMajor = 0;
  DWORDLONG mask = 0;
  mask = ::VerSetConditionMask(mask, VER_MAJORVERSION, VER_GREATER_EQUAL);
  mask = ::VerSetConditionMask(mask, VER_MINORVERSION, VER_GREATER_EQUAL);
  mask = ::VerSetConditionMask(mask, VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL);
  return ::VerifyVersionInfoW(&version, VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR, mask) != FALSE;
}

}  // namespace

namespace Detail {

unsigned& ThreadScopeDepth() noexcept { return t_nScopeDepth; }

void WriteStream(unsigned severity, const CLoggerStream& stream, const wchar_t* source, unsigned line) noexcept {
  try {
    GetLogger().Write(severity, stream.view(), source, line);
  } catch (...) {
    // A logger that cannot be created writes nothing.
  }
}

}  // namespace Detail

// CLogger ------------------------------------------------------------------

CLogger::CLogger() : m_bVersionFlag(IsVistaOrLater()) {
  // Settings are read through the registry from the first refresh on.
  GlobalSettings::Detail::ProviderRegistry::Instance();
}

CLogger::~CLogger() {
  for (auto& slot : m_apWriters) slot.store(nullptr);
}

unsigned CLogger::ReadMaxSeverity() {
  std::wstring value;
  if (!m_config.section.Get(L"MaxSeverity", value)) return kDefaultMaxSeverity;
  return Kestrel::Rules::SeverityFromName(value).value_or(kDefaultMaxSeverity);
}

void CLogger::RefreshConfiguration() noexcept {
  const DWORD last = m_config.nLastRefresh.load(std::memory_order_relaxed);
  if (last != 0 && Kestrel::TickCount() - last <= kRefreshIntervalMs) return;
  try {
    m_config.section.Flush();
    m_config.nMaxSeverity.store(ReadMaxSeverity(), std::memory_order_relaxed);
  } catch (...) {
    m_config.nMaxSeverity.store(kDefaultMaxSeverity, std::memory_order_relaxed);
  }
  m_config.bRefreshed.store(true);
  m_config.nLastRefresh.store(Kestrel::TickCount(), std::memory_order_relaxed);
}

bool CLogger::IsEnabled(unsigned severity) noexcept {
  RefreshConfiguration();
  return severity != SEV_NONE && severity <= MaxSeverity();
}

void CLogger::Write(unsigned severity, std::wstring_view message, const wchar_t* source, unsigned line,
                    Detail::ILogWriter* writer) noexcept {
  try {
    // The time stamp is that of the call, taken before any other work.
    SYSTEMTIME now;
    ::GetLocalTime(&now);
    const int depth = VersionFlag() ? static_cast<int>(t_nScopeDepth) : 0;
    const Detail::IFormatter* formatter = m_pFormatter.load();
    if (formatter == nullptr) formatter = &m_formatter;

    std::wstring text;
    formatter->Format(text, severity, source, line, message, depth, &now);
    if (writer != nullptr) {
      writer->Write(text.data(), text.size());
      return;
    }
    for (auto& slot : m_apWriters) {
      if (Detail::ILogWriter* installed = slot.load()) installed->Write(text.data(), text.size());
    }
  } catch (...) {
    // A line that cannot be composed is dropped; the caller never sees it.
  }
}

bool CLogger::AddLogWriter(Detail::ILogWriter* pLogWriter) noexcept {
  if (pLogWriter == nullptr) return false;
  for (auto& slot : m_apWriters) {
    Detail::ILogWriter* expected = pLogWriter;
    slot.compare_exchange_strong(expected, nullptr);
  }
  for (auto& slot : m_apWriters) {
    Detail::ILogWriter* expected = nullptr;
    if (slot.compare_exchange_strong(expected, pLogWriter)) return true;
  }
  // cppcheck-suppress incorrectStringBooleanError ; the text is the assertion's message
  WD64_ASSERT_AT(!pLogWriter && "Too many loggers", L"LogManager", 152);
  Detail::DebugOutput(L"LogManager: Too many loggers");
  return false;
}

bool CLogger::RemoveLogWriter(Detail::ILogWriter* writer) noexcept {
  bool removed = false;
  for (auto& slot : m_apWriters) {
    Detail::ILogWriter* expected = writer;
    removed |= slot.compare_exchange_strong(expected, nullptr);
  }
  return removed;
}

std::wstring CLogger::ComputeLogDirectory() {
  std::wstring configured;
  const bool bConfigured = m_config.section.Get(L"Path", configured);
  return Kestrel::Rules::LogFolder(bConfigured ? std::optional(configured) : std::nullopt, Kestrel::ModuleDirectory());
}

std::wstring CLogger::GetLogDirectory(bool* pbUsable) {
  const std::lock_guard lock(m_config.cs);
  if (m_config.bRefreshed.load() || m_config.sLogDirectory.empty()) {
    std::wstring directory = ComputeLogDirectory();
    const bool bChanged = directory != m_config.sLogDirectory;
    // A refused folder is looked at again at each refresh: an administrator
    // may have put it right meanwhile.
    if (bChanged || m_config.bDirectoryRefused) {
      m_config.sLogDirectory = std::move(directory);
      PrepareLogDirectory(bChanged);
    }
    m_config.bRefreshed.store(false);
  }
  if (pbUsable != nullptr) *pbUsable = !m_config.bDirectoryRefused;
  return m_config.sLogDirectory;
}

void CLogger::PrepareLogDirectory(bool bChanged) noexcept {
  // The module runs as SYSTEM: a folder that others may write to, or that
  // someone else owns, would let them plant a link at the log's name.
  const bool bReported = m_config.bDirectoryRefused && !bChanged;
  std::wstring reason;
  try {
    Kestrel::CreateAdministratorsFolder(m_config.sLogDirectory);
    m_config.bDirectoryRefused = false;
    return;
  } catch (const Kestrel::HRX& error) {
    try {
      reason = error.Text();
    } catch (...) {
    }
  } catch (...) {
  }
  m_config.bDirectoryRefused = true;
  if (!bReported) {
    Detail::DebugOutput(L"LogManager: log folder '%ls' refused: %ls", m_config.sLogDirectory.c_str(), reason.c_str());
  }
}

// Free functions ------------------------------------------------------------

CLogger& GetLogger() {
  static CLogger s_logger;
  return s_logger;
}

bool AddLogWriter(Detail::ILogWriter* writer) noexcept {
  try {
    return GetLogger().AddLogWriter(writer);
  } catch (...) {
    return false;
  }
}

bool RemoveLogWriter(Detail::ILogWriter* writer) noexcept {
  try {
    return GetLogger().RemoveLogWriter(writer);
  } catch (...) {
    return false;
  }
}

std::wstring GetLogDirectory() { return GetLogger().GetLogDirectory(); }

bool IsEnabled(unsigned severity) noexcept {
  try {
    return GetLogger().IsEnabled(severity);
  } catch (...) {
    return false;
  }
}

void Write(unsigned severity, const std::wstring& message, const wchar_t* source, unsigned line) noexcept {
  try {
    GetLogger().Write(severity, message, source, line);
  } catch (...) {
    // See WriteStream.
  }
}

}  // namespace VHLogger
