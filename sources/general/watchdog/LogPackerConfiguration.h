#pragma once
// The log packer's settings and its run: find the logs that are too old or
// too large, pack them into one dated archive beside them, delete them.

#include <windows.h>

#include <cstdint>
#include <string>

#include "DataLayer/VhnApi.h"
#include "LogPackerRun.h"
#include "Path.h"

namespace Kestrel {

class CLogPackerConfiguration {
 public:
  // The defaults; "%TEMP%\Logs" is expanded now, in the host's environment.
  CLogPackerConfiguration();
  CLogPackerConfiguration(const CLogPackerConfiguration&) = delete;
  CLogPackerConfiguration& operator=(const CLogPackerConfiguration&) = delete;

  // Reads the four required keys and the two optional retention keys
  // ("MaxArchiveAgeInDays", "MaxArchivesTotalSizeInMegabytes"; absent: 0,
  // keep all) from a duplicate of `config`; all or nothing, so a missing
  // required key (0x80070490) keeps every earlier value.
  void Configure(HVHNODE config);

  // One run over the logs directory (LogPackerRun.h); `bCountArchives`
  // counts the archives left also without a retention limit.
  PackReport PackLogs(bool bCountArchives = false) const;

  const CPath& LogsDirectory() const noexcept { return m_logsDirectory; }
  const CPath& FileMask() const noexcept { return m_fileMask; }
  std::uint64_t MaxAgeInHours() const noexcept { return m_nMaxAgeInHours; }
  std::uint64_t MaxSizeInMegabytes() const noexcept { return m_nMaxSizeInMegabytes; }
  std::uint64_t MaxArchiveAgeInDays() const noexcept { return m_nMaxArchiveAgeInDays; }
  std::uint64_t MaxArchivesTotalSizeInMegabytes() const noexcept { return m_nMaxArchivesTotalSizeInMegabytes; }

 private:
  CPath m_logsDirectory;
  CPath m_fileMask;
  std::uint64_t m_nMaxAgeInHours = 24;
  std::uint64_t m_nMaxSizeInMegabytes = 100;
  std::uint64_t m_nMaxArchiveAgeInDays = 0;
  std::uint64_t m_nMaxArchivesTotalSizeInMegabytes = 0;
};

}  // namespace Kestrel
