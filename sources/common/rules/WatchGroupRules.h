#pragma once
// The watch-group rules as pure functions: the bounds a group's keys give,
// the order they must keep, and what a free-space sample means against them.
// The module's watcher and anything else that reads a watch group compile
// these same functions.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>

namespace Kestrel::Rules {

constexpr std::int64_t kMegabyte = std::int64_t{1} << 20;
constexpr std::int64_t kGigabyte = std::int64_t{1} << 30;
constexpr std::int64_t kDefaultRecommendedBytes = 100 * kGigabyte;
constexpr std::int64_t kDefaultWarningBytes = 20 * kGigabyte;
constexpr std::int64_t kDefaultStopBytes = 5 * kGigabyte;

// A bound is given in GB (value x 2^30) or in MB (value x 2^20), never both.
struct BoundKeys {
  const wchar_t* gb;
  const wchar_t* mb;
};
inline constexpr BoundKeys kRecommendedMinimumKeys{L"FreeSpaceRecommendedMinimumGB", L"FreeSpaceRecommendedMinimumMB"};
inline constexpr BoundKeys kWarningKeys{L"FreeSpaceWarningLowerBoundGB", L"FreeSpaceWarningLowerBoundMB"};
inline constexpr BoundKeys kStopServicesKeys{L"FreeSpaceStopServicesLowerBoundGB",
                                             L"FreeSpaceStopServicesLowerBoundMB"};
// Optional: without it no service is ever started again.
inline constexpr BoundKeys kRestartServicesKeys{L"FreeSpaceRestartServicesLowerBoundGB",
                                                L"FreeSpaceRestartServicesLowerBoundMB"};

struct WatchGroupBounds {
  std::int64_t recommendedBytes;
  std::int64_t warningBytes;
  std::int64_t stopBytes;
  std::optional<std::int64_t> restartBytes;
};

enum class Level { kNormal = 0, kBelowRecommended = 1, kBelowWarning = 2, kBelowStop = 3 };

// "Below" is strictly less: free space equal to a bound is not below it.
constexpr Level EvaluateLevel(std::int64_t freeBytes, const WatchGroupBounds& bounds) noexcept {
  if (freeBytes < bounds.stopBytes) return Level::kBelowStop;
  if (freeBytes < bounds.warningBytes) return Level::kBelowWarning;
  if (freeBytes < bounds.recommendedBytes) return Level::kBelowRecommended;
  return Level::kNormal;
}

// True when the group has a restart bound and the free space is at or above it.
constexpr bool AllowsRestart(std::int64_t freeBytes, const WatchGroupBounds& bounds) noexcept {
  return bounds.restartBytes && freeBytes >= *bounds.restartBytes;
}

// The value of a 32-bit key, or nothing when the group lacks it.
using Int32Lookup = std::function<std::optional<std::int32_t>(const wchar_t* key)>;

struct BoundsError {
  std::wstring key;  // the key at fault, as given (the GB key of a bound left at its default)
  std::wstring text;
  bool bBothGiven = false;  // a bound given in GB and MB: the key's fault, not the order's
};

// The group's bounds from its keys, with the defaults for those it lacks, if
// they keep their order: recommended > warning > stop >= 1 byte, and
// restart >= warning when given. A negative value stays negative and fails.
std::variant<WatchGroupBounds, BoundsError> ReadWatchGroupBounds(const Int32Lookup& lookup);

}  // namespace Kestrel::Rules
