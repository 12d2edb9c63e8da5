#pragma once
// The bounds of a watch group as the watcher takes them from its keys, and
// what a free-space sample means against them.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>

namespace Host {

constexpr std::int64_t kMegabyte = std::int64_t{1} << 20;
constexpr std::int64_t kGigabyte = std::int64_t{1} << 30;

struct GroupBounds {
  std::int64_t recommendedBytes = 100 * kGigabyte;
  std::int64_t warningBytes = 20 * kGigabyte;
  std::int64_t stopBytes = 5 * kGigabyte;
};

enum class Level { kNormal = 0, kBelowRecommended = 1, kBelowWarning = 2, kBelowStop = 3 };

// "Below" is strictly less: free space equal to a bound is not below it.
constexpr Level EvaluateLevel(std::int64_t freeBytes, const GroupBounds& bounds) noexcept {
  if (freeBytes < bounds.stopBytes) return Level::kBelowStop;
  if (freeBytes < bounds.warningBytes) return Level::kBelowWarning;
  if (freeBytes < bounds.recommendedBytes) return Level::kBelowRecommended;
  return Level::kNormal;
}

// The value of a 32-bit key of the group, or nothing when it lacks it.
using Int32Lookup = std::function<std::optional<std::int32_t>(const wchar_t* key)>;

struct BoundsError {
  std::wstring key;  // the key at fault; empty for the order of the bounds
  std::wstring text;
};

// Each bound from its GB key (x 2^30) or MB key (x 2^20), never both, else
// its default; then the order recommended > warning > stop >= 1 byte.
std::variant<GroupBounds, BoundsError> ReadGroupBounds(const Int32Lookup& lookup);

}  // namespace Host
