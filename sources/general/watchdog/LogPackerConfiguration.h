#pragma once
// The log packer's settings and its run: find the logs that are too old or
// too large, pack them into one dated archive beside them, delete them.

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "DataLayer/VhnApi.h"
#include "Path.h"

namespace Kestrel {

class CLogPackerConfiguration {
 public:
  // The defaults; "%TEMP%\Logs" is expanded now, in the host's environment.
  CLogPackerConfiguration();
  CLogPackerConfiguration(const CLogPackerConfiguration&) = delete;
  CLogPackerConfiguration& operator=(const CLogPackerConfiguration&) = delete;

  // Reads all four keys from a duplicate of `config`; all or nothing, so a
  // missing key (0x80070490) keeps every earlier value.
  void Configure(HVHNODE config);

  // One run: select, then pack. No selected file means no archive.
  void PackLogs() const;
  // Full paths of the files to pack, in the order the directory lists them.
  std::vector<CPath> SelectFiles() const;
  // Packs the files into a new archive in the logs directory, deleting each
  // once it is in. Returns the archive's path.
  CPath PackFiles(const std::vector<CPath>& files) const;

  const CPath& LogsDirectory() const noexcept { return m_logsDirectory; }
  const CPath& FileMask() const noexcept { return m_fileMask; }
  std::uint64_t MaxAgeInHours() const noexcept { return m_nMaxAgeInHours; }
  std::uint64_t MaxSizeInMegabytes() const noexcept { return m_nMaxSizeInMegabytes; }

 private:
  CPath m_logsDirectory;
  CPath m_fileMask;
  std::uint64_t m_nMaxAgeInHours = 24;
  std::uint64_t m_nMaxSizeInMegabytes = 100;
};

namespace Detail {
constexpr std::uint64_t kFileTimeTicksPerHour = 36'000'000'000ull;

// The age is taken between the local wall clock and the (UTC) creation time,
// in whole microseconds, unsigned: a creation time ahead of the clock wraps
// to a huge age.
constexpr bool IsTooOld(std::uint64_t localNow, std::uint64_t creationTime, std::uint64_t maxAgeInHours) noexcept {
  const std::uint64_t ageMicroseconds = (localNow - creationTime) / 10;
  return ageMicroseconds * 10 > maxAgeInHours * kFileTimeTicksPerHour;
}

constexpr bool IsTooLarge(std::uint64_t size, std::uint64_t maxSizeInMegabytes) noexcept {
  return size > (maxSizeInMegabytes << 20);
}

// "logs_" + year + MMDDhhmmss + ".zip", the year without padding.
std::wstring ArchiveName(const SYSTEMTIME& localTime);
}  // namespace Detail

}  // namespace Kestrel
