#include "config/WatchGroupBounds.h"

namespace Host {

namespace {

struct BoundKeys {
  const wchar_t* gb;
  const wchar_t* mb;
};

constexpr BoundKeys kRecommended{L"FreeSpaceRecommendedMinimumGB", L"FreeSpaceRecommendedMinimumMB"};
constexpr BoundKeys kWarning{L"FreeSpaceWarningLowerBoundGB", L"FreeSpaceWarningLowerBoundMB"};
constexpr BoundKeys kStop{L"FreeSpaceStopServicesLowerBoundGB", L"FreeSpaceStopServicesLowerBoundMB"};

std::variant<std::int64_t, BoundsError> ReadBound(const Int32Lookup& lookup, const BoundKeys& keys,
                                                  std::int64_t defaultBytes) {
  const std::optional<std::int32_t> gb = lookup(keys.gb), mb = lookup(keys.mb);
  if (gb && mb) {
    return BoundsError{keys.mb, L"give \"" + std::wstring(keys.gb) + L"\" or \"" + keys.mb + L"\", not both"};
  }
  // Sign-extended first, so a negative setting stays negative.
  if (gb) return static_cast<std::int64_t>(*gb) * kGigabyte;
  if (mb) return static_cast<std::int64_t>(*mb) * kMegabyte;
  return defaultBytes;
}

std::wstring Megabytes(std::int64_t bytes) { return std::to_wstring(bytes >> 20) + L" MB"; }

}  // namespace

std::variant<GroupBounds, BoundsError> ReadGroupBounds(const Int32Lookup& lookup) {
  GroupBounds bounds;
  const std::pair<const BoundKeys*, std::int64_t*> reads[] = {{&kRecommended, &bounds.recommendedBytes},
                                                               {&kWarning, &bounds.warningBytes},
                                                               {&kStop, &bounds.stopBytes}};
  for (const auto& [keys, bytes] : reads) {
    auto read = ReadBound(lookup, *keys, *bytes);
    if (auto* error = std::get_if<BoundsError>(&read)) return std::move(*error);
    *bytes = std::get<std::int64_t>(read);
  }
  if (bounds.stopBytes < 1) return BoundsError{{}, L"the stop-services bound must be at least 1 byte"};
  if (bounds.warningBytes <= bounds.stopBytes) {
    return BoundsError{{}, L"the warning bound (" + Megabytes(bounds.warningBytes) +
                               L") must be above the stop-services bound (" + Megabytes(bounds.stopBytes) + L")"};
  }
  if (bounds.recommendedBytes <= bounds.warningBytes) {
    return BoundsError{{}, L"the recommended minimum (" + Megabytes(bounds.recommendedBytes) +
                               L") must be above the warning bound (" + Megabytes(bounds.warningBytes) + L")"};
  }
  return bounds;
}

}  // namespace Host
