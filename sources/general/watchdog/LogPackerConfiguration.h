#pragma once
// The log packer's settings and its run: find the logs that are too old or
// too large, pack them into one dated archive beside them, delete them.

#include <windows.h>

#include <cstdint>
#include <string>

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

  // One run over the logs directory (LogPackerRun.h). Returns the new
  // archive's path, or an empty path when there was nothing to pack.
  CPath PackLogs() const;

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
// to a huge age. A limit too large for 64-bit ticks means no age limit.
constexpr bool IsTooOld(std::uint64_t localNow, std::uint64_t creationTime, std::uint64_t maxAgeInHours) noexcept {
  if (maxAgeInHours > UINT64_MAX / kFileTimeTicksPerHour) return false;
  const std::uint64_t ageMicroseconds = (localNow - creationTime) / 10;
  return ageMicroseconds * 10 > maxAgeInHours * kFileTimeTicksPerHour;
}

// 2^44 megabytes and more do not fit 64 bits of bytes: no size limit.
constexpr bool IsTooLarge(std::uint64_t size, std::uint64_t maxSizeInMegabytes) noexcept {
  return maxSizeInMegabytes < (1ull << 44) && size > (maxSizeInMegabytes << 20);
}

// "logs_" + year + MMDDhhmmss + ".zip", the year without padding.
std::wstring ArchiveName(const SYSTEMTIME& localTime);
}  // namespace Detail

}  // namespace Kestrel
