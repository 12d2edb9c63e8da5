#pragma once
// What one metrics write collected, and its rendering in Prometheus' text
// format 0.0.4 (HELP and TYPE for every family, the build info last).

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "rules/WatchGroupRules.h"
#include "runner/PackRun.h"

namespace Host::Detail {

struct PathSample {
  std::wstring path;
  std::optional<std::uint64_t> freeBytes;
};

struct ServiceSample {
  std::wstring name;
  bool exists = true;
  bool running = false;
};

struct GroupSample {
  std::wstring label;
  Kestrel::Rules::WatchGroupBounds bounds;
  std::vector<PathSample> paths;
  std::vector<ServiceSample> services;
  bool servicesKnown = false;  // false when the service manager could not be asked
  // What the running watcher says of the group; empty without one.
  std::optional<bool> servicesStopped;
  std::optional<std::int64_t> recoveries;
};

struct PackTotals {
  std::uint64_t runs = 0, failures = 0, files = 0, bytes = 0, skipped = 0, deletedArchives = 0;
  std::optional<PackRunResult> last;
  // As of the last run that counted them.
  std::optional<std::uint64_t> archives, archivesBytes;
};

// The file's text: every family, each path, bound, level and service of the
// groups, the pack-run totals, the host's start time (Unix seconds) and the
// module's version.
std::string RenderMetrics(const std::vector<GroupSample>& groups, const PackTotals& totals, double startTime,
                          const std::string& version);

}  // namespace Host::Detail
