// What the metrics file says: collected afresh at each write from the
// module (free space) and the service manager, and rendered in Prometheus'
// text format.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <mutex>

#include "config/Config.h"
#include "metrics/Exposition.h"
#include "metrics/Metrics.h"
#include "module/HostHandles.h"
#include "module/ModuleHost.h"
#include "module/Nodes.h"
#include "rules/Paths.h"

namespace Host {

namespace {

using Detail::GroupSample;
using Detail::PackTotals;
using Detail::PathSample;
using Detail::ServiceSample;

double UnixSeconds(const FILETIME& time) {
  ULARGE_INTEGER ticks{};
  ticks.LowPart = time.dwLowDateTime;
  ticks.HighPart = time.dwHighDateTime;
  constexpr std::uint64_t kEpochTicks = 116444736000000000ull;  // 1970-01-01 in 100 ns since 1601
  return ticks.QuadPart < kEpochTicks ? 0.0 : static_cast<double>(ticks.QuadPart - kEpochTicks) / 1e7;
}

// The product version from the module's own version resource.
std::string ModuleVersion(const std::wstring& modulePath) {
  HMODULE module = GetModuleHandleW(modulePath.c_str());
  HRSRC info = module != nullptr ? FindResourceW(module, MAKEINTRESOURCEW(1), MAKEINTRESOURCEW(16)) : nullptr;
  HGLOBAL loaded = info != nullptr ? LoadResource(module, info) : nullptr;
  const auto* bytes = loaded != nullptr ? static_cast<const unsigned char*>(LockResource(loaded)) : nullptr;
  if (bytes == nullptr) return "unknown";
  const DWORD size = SizeofResource(module, info);
  for (DWORD offset = 0; offset + sizeof(VS_FIXEDFILEINFO) <= size; offset += 4) {
    VS_FIXEDFILEINFO fixed;
    std::memcpy(&fixed, bytes + offset, sizeof fixed);
    if (fixed.dwSignature != 0xFEEF04BD) continue;
    char text[64];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", static_cast<unsigned>(HIWORD(fixed.dwProductVersionMS)),
                  static_cast<unsigned>(LOWORD(fixed.dwProductVersionMS)),
                  static_cast<unsigned>(HIWORD(fixed.dwProductVersionLS)),
                  static_cast<unsigned>(LOWORD(fixed.dwProductVersionLS)));
    return text;
  }
  return "unknown";
}

std::vector<std::wstring> ListOf(const Section& group, const wchar_t* key) {
  const Value* value = group.Find(key);
  return value != nullptr ? value->list : std::vector<std::wstring>{};
}

}  // namespace

std::wstring GroupLabel(const Section& group, std::size_t index) {
  return group.name.empty() ? std::to_wstring(index) : group.name;
}

Kestrel::Rules::WatchGroupBounds BoundsOf(const Section& group) {
  using namespace Kestrel::Rules;
  // The configuration reader has refused a group whose bounds the watcher
  // would refuse.
  const auto bounds = ReadWatchGroupBounds([&](const wchar_t* key) { return group.Int32(key); });
  if (const auto* read = std::get_if<WatchGroupBounds>(&bounds)) return *read;
  return {kDefaultRecommendedBytes, kDefaultWarningBytes, kDefaultStopBytes, std::nullopt};
}

Kestrel::Rules::Level GroupLevel(const std::vector<std::optional<std::uint64_t>>& freeBytes,
                                 const Kestrel::Rules::WatchGroupBounds& bounds) {
  using Kestrel::Rules::Level;
  Level worst = Level::kNormal;
  for (const auto& bytes : freeBytes) {
    if (!bytes) continue;
    // The watcher holds free space as a signed 64-bit number.
    const auto value = static_cast<std::int64_t>(
        std::min<std::uint64_t>(*bytes, static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())));
    worst = std::max(worst, Kestrel::Rules::EvaluateLevel(value, bounds));
  }
  return worst;
}

struct MetricsWriter::State {
  State(std::wstring path, const Config& config, ModuleHost& host)
      : path(std::move(path)), config(config), host(host), version(ModuleVersion(host.ModulePath())) {
    FILETIME created{}, exited{}, kernel{}, user{};
    if (GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) startTime = UnixSeconds(created);
  }

  std::wstring path;
  const Config& config;
  ModuleHost& host;
  std::string version;
  double startTime = 0;

  std::mutex packLock;  // pack runs are recorded from the runner's thread
  PackTotals pack;

  std::mutex writeLock;  // one collection and replace at a time
  ComponentRef<IVHRequestProcessor> diskManager;
  ComponentRef<IVHRequestProcessor> watcher;

  std::vector<std::optional<std::uint64_t>> FreeSpace(const std::vector<std::wstring>& paths);
  bool QueryFreeSpace(const std::vector<std::wstring>& paths, std::vector<std::optional<std::uint64_t>>& out);
  void Services(std::vector<GroupSample>& groups);
  void WatcherGroups(std::vector<GroupSample>& groups);
  std::vector<GroupSample> Collect();
};

// Asks the disk manager for `paths` in one request; false when it failed as a
// whole, which it does when any one path cannot be read.
bool MetricsWriter::State::QueryFreeSpace(const std::vector<std::wstring>& paths,
                                          std::vector<std::optional<std::uint64_t>>& out) {
  try {
    if (!diskManager) diskManager = host.Create<IVHRequestProcessor>(WatchDog64::CLSID_DiskManager, L"disk manager");
    Node request;
    request.SetName(L"QueryFreeSpace");
    std::wstring raw;
    for (const std::wstring& path : paths) {
      raw += path;
      raw.push_back(L'\0');
    }
    request.SetString(L"DirectoryPaths", raw);
    HVHNODE response = nullptr;
    Check(diskManager->ProcessRequest(request.Get(), &response), L"QueryFreeSpace");
    const Node owned(response);
    const auto values = owned.GetInt64Array(L"FreeSpace").value_or(std::vector<std::int64_t>{});
    if (values.size() != paths.size()) return false;
    out.clear();
    for (std::int64_t value : values) out.push_back(static_cast<std::uint64_t>(value));
    return true;
  } catch (const HostError&) {
    return false;
  }
}

std::vector<std::optional<std::uint64_t>> MetricsWriter::State::FreeSpace(const std::vector<std::wstring>& paths) {
  std::vector<std::optional<std::uint64_t>> result(paths.size());
  if (paths.empty() || QueryFreeSpace(paths, result)) return result;
  // One unreadable path fails the whole request: ask again path by path so
  // the others are still reported.
  for (std::size_t i = 0; i < paths.size(); ++i) {
    std::vector<std::optional<std::uint64_t>> one;
    result[i] = QueryFreeSpace({paths[i]}, one) ? one[0] : std::nullopt;
  }
  return result;
}

void MetricsWriter::State::Services(std::vector<GroupSample>& groups) {
  const ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (!manager) return;
  for (GroupSample& group : groups) {
    group.servicesKnown = true;
    for (ServiceSample& service : group.services) {
      const ScHandle handle(OpenServiceW(manager.Get(), service.name.c_str(), SERVICE_QUERY_STATUS));
      if (!handle) {
        const DWORD error = GetLastError();
        service.exists = error != ERROR_SERVICE_DOES_NOT_EXIST && error != ERROR_INVALID_NAME;
        continue;
      }
      SERVICE_STATUS status{};
      service.running = QueryServiceStatus(handle.Get(), &status) && status.dwCurrentState == SERVICE_RUNNING;
    }
  }
}

// The watcher's own word on each group; a group it does not list, or a
// failed request, gives no samples rather than a guess.
void MetricsWriter::State::WatcherGroups(std::vector<GroupSample>& groups) {
  if (!watcher) return;
  Node request;
  request.SetName(L"ListGroups");
  HVHNODE response = nullptr;
  if (FAILED(watcher->ProcessRequest(request.Get(), &response))) return;
  const Node owned(response);
  for (std::uint32_t i = 0, count = owned ? owned.ChildCount() : 0; i < count; ++i) {
    const Node child = owned.Child(i);
    const std::wstring name = child.Name();
    if (name.empty() || name.find_first_not_of(L"0123456789") != std::wstring::npos || name.size() > 9) continue;
    const std::size_t index = std::stoul(name);
    const auto stopped = child.GetInteger(L"ServicesStopped");
    const auto recoveries = child.GetInteger(L"Recoveries");
    if (index >= groups.size() || !stopped || !recoveries) continue;
    groups[index].servicesStopped = *stopped != 0;
    groups[index].recoveries = *recoveries;
  }
}

std::vector<GroupSample> MetricsWriter::State::Collect() {
  std::vector<GroupSample> groups;
  if (!config.watcher) return groups;
  const std::wstring moduleDirectory = host.ModuleDirectory();
  std::vector<std::wstring> allPaths;
  for (std::size_t i = 0; i < config.watcher->groups.size(); ++i) {
    const Section& section = config.watcher->groups[i];
    GroupSample group;
    group.label = GroupLabel(section, i);
    group.bounds = BoundsOf(section);
    // A path or name given twice in a group would repeat a series.
    for (const std::wstring& configured : ListOf(section, L"Paths")) {
      const std::wstring path = Kestrel::Rules::AnchoredAt(configured, moduleDirectory);
      if (std::any_of(group.paths.begin(), group.paths.end(), [&](const PathSample& p) { return SameName(p.path, path); }))
        continue;
      group.paths.push_back({path, std::nullopt});
      allPaths.push_back(path);
    }
    for (const std::wstring& name : ListOf(section, L"ServiceNames")) {
      if (std::none_of(group.services.begin(), group.services.end(),
                       [&](const ServiceSample& s) { return SameName(s.name, name); })) {
        group.services.push_back({name});
      }
    }
    groups.push_back(std::move(group));
  }
  const auto free = FreeSpace(allPaths);
  std::size_t next = 0;
  for (GroupSample& group : groups) {
    for (PathSample& path : group.paths) path.freeBytes = free[next++];
  }
  Services(groups);
  WatcherGroups(groups);
  return groups;
}

MetricsWriter::MetricsWriter(std::wstring path, const Config& config, ModuleHost& host)
    : m_state(std::make_unique<State>(std::move(path), config, host)) {}

MetricsWriter::~MetricsWriter() = default;

const std::wstring& MetricsWriter::Path() const noexcept { return m_state->path; }

void MetricsWriter::RecordPackRun(const PackRunResult& run) {
  const std::lock_guard lock(m_state->packLock);
  PackTotals& totals = m_state->pack;
  ++totals.runs;
  if (FAILED(run.hr)) ++totals.failures;
  totals.files += run.files;
  totals.bytes += run.bytes;
  totals.skipped += run.skipped;
  totals.deletedArchives += run.deletedArchives;
  if (run.archives) {
    totals.archives = run.archives;
    totals.archivesBytes = run.archivesBytes;
  }
  totals.last = run;
}

void MetricsWriter::WatchedBy(ComponentRef<IVHRequestProcessor> watcher) {
  const std::lock_guard lock(m_state->writeLock);
  m_state->watcher = std::move(watcher);
}

bool MetricsWriter::Write(std::wstring* error, std::wstring* notes) {
  try {
    const std::lock_guard lock(m_state->writeLock);
    PackTotals totals;
    {
      const std::lock_guard packLock(m_state->packLock);
      totals = m_state->pack;
    }
    const std::string text = Detail::RenderMetrics(m_state->Collect(), totals, m_state->startTime, m_state->version);
    return Detail::ReplaceMetricsFile(m_state->path, text, error, notes);
  } catch (const std::exception& failure) {
    if (error != nullptr) *error = L"cannot write the metrics file " + m_state->path + L": " + Widen(failure.what());
  } catch (const HostError& failure) {
    if (error != nullptr) *error = L"cannot write the metrics file " + m_state->path + L": " + failure.Text();
  } catch (...) {
    if (error != nullptr) *error = L"cannot write the metrics file " + m_state->path + L": unexpected failure";
  }
  return false;
}

}  // namespace Host
