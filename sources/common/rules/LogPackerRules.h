#pragma once
// The log packer's rules as pure functions: which files are due, what its
// archives are called, and which names in a logs folder are its own (never
// selected, whatever the mask). The module's packer and anything else that
// reads a logs folder compile these same functions.

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace Kestrel::PackerRules {

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
// "logs_X.zip", then "logs_X_2.zip", "logs_X_3.zip" ...
std::wstring NumberedArchiveName(const std::wstring& archiveName, unsigned number);
// "logs_" + 14 digits + optionally "_" and digits + ".zip", in any case.
bool IsArchiveName(std::wstring_view name) noexcept;

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
