// The free-space watcher's section: its interval, and each watch group with
// its bounds, resend timeout, folders and services.

#include <limits>

#include "config/Schemas.h"
#include "rules/WatchGroupRules.h"

namespace Host::Schema {

namespace {

constexpr std::int64_t kInt32Max = std::numeric_limits<std::int32_t>::max();

const KeySpec kWatcherKeys[] = {
    {"ActionsPerformIntervalSec", ValueKind::Int32, false, 1, 4294967, L"seconds held as 32-bit milliseconds"},
};

const KeySpec kGroupKeys[] = {
    {"FreeSpaceRecommendedMinimumGB", ValueKind::Int32, false, 0, kInt32Max, L"a size"},
    {"FreeSpaceRecommendedMinimumMB", ValueKind::Int32, false, 0, kInt32Max, L"a size"},
    {"FreeSpaceWarningLowerBoundGB", ValueKind::Int32, false, 0, kInt32Max, L"a size"},
    {"FreeSpaceWarningLowerBoundMB", ValueKind::Int32, false, 0, kInt32Max, L"a size"},
    {"FreeSpaceStopServicesLowerBoundGB", ValueKind::Int32, false, 0, kInt32Max, L"a size"},
    {"FreeSpaceStopServicesLowerBoundMB", ValueKind::Int32, false, 0, kInt32Max, L"a size"},
    {"FreeSpaceRestartServicesLowerBoundGB", ValueKind::Int32, false, 0, kInt32Max, L"a size"},
    {"FreeSpaceRestartServicesLowerBoundMB", ValueKind::Int32, false, 0, kInt32Max, L"a size"},
    {"EventResendTimeoutSec", ValueKind::Int32, false, 1, 2147483, L"seconds held as signed 32-bit milliseconds"},
    {"Paths", ValueKind::StringList, true},
    {"ServiceNames", ValueKind::StringList, true},
};

// The group's own label, for messages and metrics; never passed to the module.
void ReadName(const JsonReader& reader, const Json& group, const std::wstring& place, Section& section) {
  if (!group.contains("name")) return;
  const Json& name = group["name"];
  if (!name.is_string() || name.get<std::string>().empty()) {
    reader.Error(place + L"/name", L"expected a non-empty string");
  } else {
    section.name = Widen(name.get<std::string>());
  }
}

}  // namespace

WatcherConfig ReadWatcher(const JsonReader& reader, const Json& json) {
  const std::wstring place = L"/freeSpaceWatcher";
  WatcherConfig watcher{reader.ReadSection(json, place, kWatcherKeys, {"groups"})};
  if (!json.is_object() || !json.contains("groups")) return watcher;
  const Json& groups = json["groups"];
  if (!groups.is_array()) {
    reader.Error(place + L"/groups", L"expected a list of watch groups");
    return watcher;
  }
  for (std::size_t i = 0; i < groups.size(); ++i) {
    const std::wstring groupPlace = place + L"/groups/" + std::to_wstring(i);
    const std::size_t before = reader.ProblemCount();
    Section group = reader.ReadSection(groups[i], groupPlace, kGroupKeys, {"name"});
    if (!groups[i].is_object()) continue;
    ReadName(reader, groups[i], groupPlace, group);
    if (const Value* paths = group.Find(L"Paths"); paths != nullptr && paths->list.empty()) {
      reader.Error(groupPlace + L"/Paths", L"must list at least one folder (an empty group watches nothing)");
    }
    // The bounds as the watcher takes them, found here with their place.
    const auto bounds = Kestrel::Rules::ReadWatchGroupBounds([&](const wchar_t* key) { return group.Int32(key); });
    // Bounds that do not fit together are the group's fault, and only worth
    // saying once each value is right.
    const auto* error = std::get_if<Kestrel::Rules::BoundsError>(&bounds);
    if (error != nullptr && error->bBothGiven) {
      reader.Error(groupPlace + L"/" + error->key, error->text);
    } else if (error != nullptr && reader.ProblemCount() == before) {
      reader.Error(groupPlace, error->text);
    }
    watcher.groups.push_back(std::move(group));
  }
  return watcher;
}

}  // namespace Host::Schema
