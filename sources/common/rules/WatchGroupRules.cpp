#include "WatchGroupRules.h"

namespace Kestrel::Rules {

namespace {

struct Bound {
  std::int64_t bytes;
  std::wstring key;  // empty when neither key is given
};

// Two values for one bound would be a contradiction the administrator has to
// resolve, not a precedence.
std::variant<Bound, BoundsError> ReadBound(const Int32Lookup& lookup, const BoundKeys& keys,
                                           std::optional<std::int64_t> defaultBytes) {
  const std::optional<std::int32_t> gb = lookup(keys.gb);
  const std::optional<std::int32_t> mb = lookup(keys.mb);
  if (gb && mb) {
    return BoundsError{keys.mb,
                       std::wstring(L"Both \"") + keys.gb + L"\" and \"" + keys.mb + L"\" are given; give one of them",
                       true};
  }
  // Sign-extended first, so a negative setting stays negative.
  if (gb) return Bound{static_cast<std::int64_t>(*gb) * kGigabyte, keys.gb};
  if (mb) return Bound{static_cast<std::int64_t>(*mb) * kMegabyte, keys.mb};
  return Bound{defaultBytes.value_or(-1), {}};
}

std::wstring KeyOf(const Bound& bound, const BoundKeys& keys) { return bound.key.empty() ? keys.gb : bound.key; }

}  // namespace

std::variant<WatchGroupBounds, BoundsError> ReadWatchGroupBounds(const Int32Lookup& lookup) {
  Bound bounds[4];
  const BoundKeys* const keys[] = {&kRecommendedMinimumKeys, &kWarningKeys, &kStopServicesKeys, &kRestartServicesKeys};
  const std::optional<std::int64_t> defaults[] = {kDefaultRecommendedBytes, kDefaultWarningBytes, kDefaultStopBytes,
                                                  std::nullopt};
  for (int i = 0; i < 4; ++i) {
    auto read = ReadBound(lookup, *keys[i], defaults[i]);
    if (auto* error = std::get_if<BoundsError>(&read)) return std::move(*error);
    bounds[i] = std::get<Bound>(std::move(read));
  }
  const auto& [recommended, warning, stop, restart] = bounds;
  if (stop.bytes < 1) {
    return BoundsError{KeyOf(stop, kStopServicesKeys), L"The stop-services bound must be at least 1 byte"};
  }
  if (warning.bytes <= stop.bytes) {
    return BoundsError{KeyOf(warning, kWarningKeys), L"The warning bound must be above the stop-services bound"};
  }
  if (recommended.bytes <= warning.bytes) {
    return BoundsError{KeyOf(recommended, kRecommendedMinimumKeys),
                       L"The recommended minimum must be above the warning bound"};
  }
  const bool bRestart = !restart.key.empty();
  if (bRestart && restart.bytes < warning.bytes) {
    return BoundsError{restart.key, L"\"" + restart.key + L"\" must be at or above the warning bound"};
  }
  WatchGroupBounds result{recommended.bytes, warning.bytes, stop.bytes, std::nullopt};
  if (bRestart) result.restartBytes = restart.bytes;
  return result;
}

}  // namespace Kestrel::Rules
