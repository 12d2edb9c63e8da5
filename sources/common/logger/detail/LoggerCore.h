#pragma once
// The process-wide logger: severity test, formatting and the four writer
// slots, plus the "Logger" settings that the file logger reads too.

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "DetailedFormatter.h"
#include "LogInterfaces.h"
#include "logger/Logger.h"
#include "settings/GlobalSettings.h"

namespace VHLogger {

class CLogger {
 public:
  static constexpr std::size_t kWriterSlots = 4;
  // Re-reads happen at most this often (the refresh waits for more than 5 s).
  static constexpr DWORD kRefreshIntervalMs = 5000;

  CLogger();
  ~CLogger();
  CLogger(const CLogger&) = delete;
  CLogger& operator=(const CLogger&) = delete;

  // Re-reads "MaxSeverity" when more than 5 s have passed since the last
  // read; otherwise returns at once without locking.
  void RefreshConfiguration() noexcept;
  unsigned MaxSeverity() const noexcept { return m_config.nMaxSeverity.load(std::memory_order_relaxed); }
  // Refreshes, then tells whether a line of this severity is written.
  bool IsEnabled(unsigned severity) noexcept;

  // Formats one line and hands it to the given writer alone, or to every
  // installed writer in slot order.
  void Write(unsigned severity, std::wstring_view message, const wchar_t* source, unsigned line,
             Detail::ILogWriter* writer = nullptr) noexcept;

  // Installs a writer in the first free slot (a writer is never installed
  // twice); false when all four are taken.
  bool AddLogWriter(Detail::ILogWriter* writer) noexcept;
  bool RemoveLogWriter(Detail::ILogWriter* writer) noexcept;
  // Replaces the built-in formatter; null restores it.
  void SetFormatter(Detail::IFormatter* formatter) noexcept { m_pFormatter.store(formatter); }

  // True on systems where the per-thread scope depth may be read.
  bool VersionFlag() const noexcept { return m_bVersionFlag.load(std::memory_order_relaxed); }
  void SetVersionFlag(bool flag) noexcept { m_bVersionFlag.store(flag, std::memory_order_relaxed); }

  // The directory of log files with its trailing separator, recomputed after
  // a refresh. A folder the module creates is for administrators only; one
  // that exists must belong to a trusted account. `pbUsable`, when given, is
  // false while the folder is refused (reported once to the debugger output).
  std::wstring GetLogDirectory(bool* pbUsable = nullptr);
  // The cached reader of the "Logger" section.
  GlobalSettings::Detail::SettingsSection& Settings() noexcept { return m_config.section; }
  // Makes the next RefreshConfiguration re-read at once.
  void InvalidateConfiguration() noexcept { m_config.nLastRefresh.store(0, std::memory_order_relaxed); }

 private:
  struct Configuration {
    GlobalSettings::Detail::SettingsSection section{L"Logger", 0};
    std::atomic<std::uint32_t> nReserved{0};
    std::atomic<unsigned> nMaxSeverity{0};
    // Preparing the folder may write a log line, which asks for the folder
    // again on the same thread.
    std::recursive_mutex cs;
    std::wstring sLogDirectory;
    bool bDirectoryRefused = false;
    std::atomic<bool> bRefreshed{false};
    std::atomic<DWORD> nLastRefresh{0};
  };

  unsigned ReadMaxSeverity();
  std::wstring ComputeLogDirectory();
  void PrepareLogDirectory(bool bChanged) noexcept;

  std::atomic<Detail::ILogWriter*> m_apWriters[kWriterSlots] = {};
  std::atomic<Detail::IFormatter*> m_pFormatter{nullptr};
  Detail::DetailedFormatter m_formatter;
  std::atomic<bool> m_bVersionFlag{false};
  Configuration m_config;
};

namespace Detail {
// The calling thread's scope nesting depth, kept by the scope tracer.
unsigned& ThreadScopeDepth() noexcept;
}  // namespace Detail

}  // namespace VHLogger
