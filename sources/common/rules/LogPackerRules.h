#pragma once
// The log packer's rules as pure functions: which files are due, what its
// archives are called, and which names in a logs folder are its own (never
// selected, whatever the mask). The module's packer and anything else that
// reads a logs folder compile these same functions.

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Kestrel::PackerRules {

constexpr std::uint64_t kFileTimeTicksPerHour = 36'000'000'000ull;
constexpr std::uint64_t kFileTimeTicksPerDay = 24 * kFileTimeTicksPerHour;

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
// "logs_X.zip", then "logs_X_2.zip", "logs_X_3.zip" ...
std::wstring NumberedArchiveName(const std::wstring& archiveName, unsigned number);
// "logs_" + 14 digits + optionally "_" and digits + ".zip", in any case.
bool IsArchiveName(std::wstring_view name) noexcept;

// The local time an archive's name carries (FILETIME ticks, taken as they
// stand) and its number (1 without "_N"); nothing for a name that is not an
// archive's or a stamp that is no date.
struct ArchiveStamp {
  std::uint64_t localTime;
  std::uint64_t number;
};
std::optional<ArchiveStamp> ArchiveStampOf(std::wstring_view name) noexcept;

// An archive found in the logs folder.
struct ArchiveFacts {
  std::wstring name;
  std::uint64_t bytes;
};

// The archives beyond the retention limits, oldest first by the stamps in
// their names: those whose stamp is more than `maxAgeInDays` behind the local
// clock, then the oldest of the rest while all together hold more than
// `maxTotalMegabytes`. `keep` (the archive the run made) counts towards the
// total but is never chosen; a name without a stamp is left out of both. 0,
// or a limit too large for 64 bits, means no limit of that kind.
struct ArchiveBeyond {
  std::wstring name;
  bool bTooOld;  // else it went for the total
};
std::vector<ArchiveBeyond> ArchivesBeyondLimits(std::vector<ArchiveFacts> archives, std::uint64_t localNow,
                                                std::uint64_t maxAgeInDays, std::uint64_t maxTotalMegabytes,
                                                std::wstring_view keep);

// A file taken for packing: "~wd64pack.<16 hex digits>.<its name>". The hex
// digits grow with time, so older generations sort first.
inline constexpr wchar_t kMovedPrefix[] = L"~wd64pack.";
// A packed file whose delete failed: "~wd64done.<16 hex digits>.<its name>".
// It is in an archive already; later runs only try to delete it.
inline constexpr wchar_t kDonePrefix[] = L"~wd64done.";
// An archive being written: "~wd64zip.<32 hex digits>.tmp", random digits.
inline constexpr wchar_t kPartialPrefix[] = L"~wd64zip.";
// The folder's lock, held open without sharing for a whole run.
inline constexpr wchar_t kLockName[] = L"~wd64lock";

std::wstring MovedName(std::uint64_t unique, const std::wstring& name);
std::wstring DoneName(std::uint64_t unique, const std::wstring& name);
// The original name inside a moved or done name; empty for any other name.
std::wstring OriginalOfMoved(std::wstring_view found);
std::wstring OriginalOfDone(std::wstring_view found);
std::wstring PartialName(std::uint64_t high, std::uint64_t low);
bool IsPartialName(std::wstring_view found) noexcept;
// Every name above, and the archives: never selected, whatever the mask.
bool IsPackerOwnName(std::wstring_view found) noexcept;

}  // namespace Kestrel::PackerRules
