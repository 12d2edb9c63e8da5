#include "LogPackerRules.h"

#include <cwchar>

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
