#include "LogPackerRules.h"

#include <algorithm>
#include <cwchar>
#include <tuple>

namespace Kestrel::PackerRules {

namespace {

constexpr wchar_t FoldAscii(wchar_t c) noexcept { return c >= L'A' && c <= L'Z' ? c + (L'a' - L'A') : c; }
constexpr bool IsDigit(wchar_t c) noexcept { return c >= L'0' && c <= L'9'; }
constexpr bool IsHexDigit(wchar_t c) noexcept {
  return IsDigit(c) || (FoldAscii(c) >= L'a' && FoldAscii(c) <= L'f');
}

// The packer's names are ASCII; only ASCII letters fold.
bool StartsWithNoCase(std::wstring_view text, std::wstring_view prefix) noexcept {
  if (text.size() < prefix.size()) return false;
  for (std::size_t i = 0; i < prefix.size(); ++i) {
    if (FoldAscii(text[i]) != FoldAscii(prefix[i])) return false;
  }
  return true;
}

bool EqualNoCase(std::wstring_view a, std::wstring_view b) noexcept {
  return a.size() == b.size() && StartsWithNoCase(a, b);
}

// Digits of `text` from `at`, as many as `Is` accepts.
template <typename Is>
std::size_t Span(std::wstring_view text, std::size_t at, Is is) noexcept {
  std::size_t end = at;
  while (end < text.size() && is(text[end])) ++end;
  return end - at;
}

std::wstring Hex16(std::uint64_t value) {
  wchar_t text[17];
  std::swprintf(text, 17, L"%016llX", static_cast<unsigned long long>(value));
  return text;
}

// "<prefix><16 hex digits>.<name>" gives the name; anything else nothing.
std::wstring OriginalAfter(std::wstring_view found, std::wstring_view prefix) {
  const std::size_t start = prefix.size();
  if (!StartsWithNoCase(found, prefix) || found.size() < start + 18 || found[start + 16] != L'.' ||
      Span(found, start, IsHexDigit) < 16) {
    return {};
  }
  return std::wstring(found.substr(start + 17));
}

}  // namespace

std::wstring ArchiveName(const SYSTEMTIME& localTime) {
  wchar_t name[64];
  std::swprintf(name, sizeof(name) / sizeof(name[0]), L"logs_%u%02u%02u%02u%02u%02u.zip",
                static_cast<unsigned>(localTime.wYear), static_cast<unsigned>(localTime.wMonth),
                static_cast<unsigned>(localTime.wDay), static_cast<unsigned>(localTime.wHour),
                static_cast<unsigned>(localTime.wMinute), static_cast<unsigned>(localTime.wSecond));
  return name;
}

std::wstring NumberedArchiveName(const std::wstring& archiveName, unsigned number) {
  if (number <= 1) return archiveName;
  const std::size_t dot = archiveName.rfind(L'.');
  return archiveName.substr(0, dot) + L"_" + std::to_wstring(number) + archiveName.substr(dot);
}

bool IsArchiveName(std::wstring_view name) noexcept {
  constexpr std::wstring_view kStart = L"logs_", kEnd = L".zip";
  if (!StartsWithNoCase(name, kStart) || name.size() < kStart.size() + 14 + kEnd.size() ||
      !EqualNoCase(name.substr(name.size() - kEnd.size()), kEnd)) {
    return false;
  }
  const std::wstring_view stamp = name.substr(kStart.size(), name.size() - kStart.size() - kEnd.size());
  if (Span(stamp, 0, IsDigit) != 14) return false;
  if (stamp.size() == 14) return true;
  return stamp[14] == L'_' && stamp.size() > 15 && Span(stamp, 15, IsDigit) == stamp.size() - 15;
}

std::optional<ArchiveStamp> ArchiveStampOf(std::wstring_view name) noexcept {
  if (!IsArchiveName(name)) return std::nullopt;
  const auto number = [&](std::size_t at, std::size_t digits) {
    std::uint64_t value = 0;
    for (std::size_t i = at; i < at + digits; ++i) value = value * 10 + static_cast<std::uint64_t>(name[i] - L'0');
    return value;
  };
  SYSTEMTIME time{};
  time.wYear = static_cast<WORD>(number(5, 4));
  time.wMonth = static_cast<WORD>(number(9, 2));
  time.wDay = static_cast<WORD>(number(11, 2));
  time.wHour = static_cast<WORD>(number(13, 2));
  time.wMinute = static_cast<WORD>(number(15, 2));
  time.wSecond = static_cast<WORD>(number(17, 2));
  FILETIME fileTime;
  if (!::SystemTimeToFileTime(&time, &fileTime)) return std::nullopt;
  ArchiveStamp stamp{(static_cast<std::uint64_t>(fileTime.dwHighDateTime) << 32) | fileTime.dwLowDateTime, 1};
  // "logs_" + 14 digits + "_N" + ".zip"; the digits of N are checked already.
  const std::size_t numberDigits = name.size() > 23 ? name.size() - 24 : 0;
  if (numberDigits > 0) stamp.number = numberDigits > 19 ? UINT64_MAX : number(20, numberDigits);
  return stamp;
}

std::vector<ArchiveBeyond> ArchivesBeyondLimits(std::vector<ArchiveFacts> archives, std::uint64_t localNow,
                                                std::uint64_t maxAgeInDays, std::uint64_t maxTotalMegabytes,
                                                std::wstring_view keep) {
  struct Dated {
    ArchiveStamp stamp;
    ArchiveFacts* facts;
  };
  std::vector<Dated> dated;
  std::uint64_t total = 0;
  for (ArchiveFacts& facts : archives) {
    if (const auto stamp = ArchiveStampOf(facts.name)) {
      dated.push_back({*stamp, &facts});
      total += facts.bytes;
    }
  }
  std::sort(dated.begin(), dated.end(), [](const Dated& a, const Dated& b) {
    return std::tie(a.stamp.localTime, a.stamp.number, a.facts->name) <
           std::tie(b.stamp.localTime, b.stamp.number, b.facts->name);
  });
  const bool bAgeLimit = maxAgeInDays != 0 && maxAgeInDays <= UINT64_MAX / kFileTimeTicksPerDay;
  const bool bSizeLimit = maxTotalMegabytes != 0 && maxTotalMegabytes < (1ull << 44);
  std::vector<ArchiveBeyond> beyond;
  for (const Dated& archive : dated) {
    if (archive.facts->name == keep) continue;
    // A stamp ahead of the clock is young, not wrapped to a huge age.
    const bool bTooOld = bAgeLimit && localNow > archive.stamp.localTime &&
                         localNow - archive.stamp.localTime > maxAgeInDays * kFileTimeTicksPerDay;
    const bool bTooMany = bSizeLimit && total > (maxTotalMegabytes << 20);
    if (bTooOld || bTooMany) {
      beyond.push_back({archive.facts->name, bTooOld});
      total -= archive.facts->bytes;
    }
  }
  return beyond;
}

std::wstring MovedName(std::uint64_t unique, const std::wstring& name) { return kMovedPrefix + Hex16(unique) + L"." + name; }
std::wstring DoneName(std::uint64_t unique, const std::wstring& name) { return kDonePrefix + Hex16(unique) + L"." + name; }
std::wstring OriginalOfMoved(std::wstring_view found) { return OriginalAfter(found, kMovedPrefix); }
std::wstring OriginalOfDone(std::wstring_view found) { return OriginalAfter(found, kDonePrefix); }

std::wstring PartialName(std::uint64_t high, std::uint64_t low) {
  return kPartialPrefix + Hex16(high) + Hex16(low) + L".tmp";
}

bool IsPartialName(std::wstring_view found) noexcept {
  constexpr std::wstring_view kPrefix = kPartialPrefix, kEnd = L".tmp";
  if (!StartsWithNoCase(found, kPrefix) || found.size() <= kPrefix.size() + kEnd.size() ||
      !EqualNoCase(found.substr(found.size() - kEnd.size()), kEnd)) {
    return false;
  }
  return Span(found, kPrefix.size(), IsHexDigit) == found.size() - kPrefix.size() - kEnd.size();
}

bool IsPackerOwnName(std::wstring_view found) noexcept {
  return StartsWithNoCase(found, kMovedPrefix) || StartsWithNoCase(found, kDonePrefix) ||
         StartsWithNoCase(found, kPartialPrefix) || EqualNoCase(found, kLockName) || IsArchiveName(found);
}

}  // namespace Kestrel::PackerRules
