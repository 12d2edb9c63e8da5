#include "Metrics.h"

#include <bcrypt.h>
#include <shlwapi.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <mutex>

#include "Config.h"
#include "ErrorHandling.h"
#include "HostHandles.h"
#include "ModuleHost.h"
#include "Nodes.h"
#include "platform/FileTrust.h"
#include "platform/PlainFile.h"

namespace Host {

namespace {

constexpr std::int64_t kGB = std::int64_t{1} << 30;
constexpr std::int64_t kMB = std::int64_t{1} << 20;

// How long a replace waits for a reader that holds the file without letting
// it be replaced (a collector reading it at that moment).
constexpr int kReplaceAttempts = 100;
constexpr DWORD kReplacePauseMs = 20;
// What opening a folder that is a link while refusing links fails with.
constexpr DWORD kReparsePointEncountered = 4395;

std::wstring SystemText(DWORD error) { return DescribeCode(HRESULT_FROM_WIN32(error)); }

double UnixSeconds(const FILETIME& time) {
  ULARGE_INTEGER ticks{};
  ticks.LowPart = time.dwLowDateTime;
  ticks.HighPart = time.dwHighDateTime;
  constexpr std::uint64_t kEpochTicks = 116444736000000000ull;  // 1970-01-01 in 100 ns since 1601
  return ticks.QuadPart < kEpochTicks ? 0.0 : static_cast<double>(ticks.QuadPart - kEpochTicks) / 1e7;
}

double UnixSeconds(std::chrono::system_clock::time_point time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

std::string Seconds(double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.3f", value);
  return text;
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

// One file's text, family by family, with HELP and TYPE before the samples.
class Exposition {
 public:
  void Family(const char* name, const char* type, const char* help) {
    m_text += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  }
  using Labels = std::vector<std::pair<const char*, std::wstring>>;
  void Sample(const char* name, const Labels& labels, const std::string& value) {
    m_text += name;
    if (!labels.empty()) {
      m_text += '{';
      for (std::size_t i = 0; i < labels.size(); ++i) {
        if (i > 0) m_text += ',';
        m_text += std::string(labels[i].first) + "=\"" + EscapeLabelValue(labels[i].second) + "\"";
      }
      m_text += '}';
    }
    m_text += " " + value + "\n";
  }
  void Sample(const char* name, const Labels& labels, std::uint64_t value) {
    Sample(name, labels, std::to_string(value));
  }
  const std::string& Text() const noexcept { return m_text; }

 private:
  std::string m_text;
};

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
  GroupBounds bounds;
  std::vector<PathSample> paths;
  std::vector<ServiceSample> services;
  bool servicesKnown = false;  // false when the service manager could not be asked
};

struct PackTotals {
  std::uint64_t runs = 0, failures = 0, files = 0, bytes = 0, skipped = 0;
  std::optional<PackRunResult> last;
};

std::vector<std::wstring> ListOf(const Section& group, const wchar_t* key) {
  const Value* value = group.Find(key);
  return value != nullptr ? value->list : std::vector<std::wstring>{};
}

std::int64_t Bound(const Section& group, const wchar_t* gbKey, const wchar_t* mbKey, std::int64_t fallback) {
  // The configuration reader refuses both keys of one bound together.
  if (const Value* gb = group.Find(gbKey)) return static_cast<std::int32_t>(gb->number) * kGB;
  if (const Value* mb = group.Find(mbKey)) return static_cast<std::int32_t>(mb->number) * kMB;
  return fallback;
}

bool Same(const std::wstring& a, const std::wstring& b) {
  return CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()), TRUE) ==
         CSTR_EQUAL;
}

// Whether an open file of `folder` is the entry `name` itself. A link to
// another file of the same folder passes OpenPlainFile's checks where the
// system shows links without a reparse point (Wine's view of Unix links).
bool HasName(const Kestrel::CFolder& folder, HANDLE file, const std::wstring& name) {
  try {
    const std::wstring finalPath = Kestrel::FinalPathOf(file);
    return finalPath.size() > folder.FinalPath().size() &&
           Same(finalPath.substr(finalPath.find_last_of(L'\\') + 1), name);
  } catch (const Kestrel::HRX&) {
    return false;
  }
}

bool ProcessEnded(DWORD pid) {
  ProcessHandle process(OpenProcess(SYNCHRONIZE, FALSE, pid));
  if (!process) return GetLastError() == ERROR_INVALID_PARAMETER;
  return WaitForSingleObject(process.Get(), 0) == WAIT_OBJECT_0;
}

}  // namespace

std::wstring GroupLabel(const Section& group, std::size_t index) {
  return group.name.empty() ? std::to_wstring(index) : group.name;
}

GroupBounds ReadBounds(const Section& group) {
  GroupBounds bounds;
  bounds.recommended = Bound(group, L"FreeSpaceRecommendedMinimumGB", L"FreeSpaceRecommendedMinimumMB", 100 * kGB);
  bounds.warning = Bound(group, L"FreeSpaceWarningLowerBoundGB", L"FreeSpaceWarningLowerBoundMB", 20 * kGB);
  bounds.stop = Bound(group, L"FreeSpaceStopServicesLowerBoundGB", L"FreeSpaceStopServicesLowerBoundMB", 5 * kGB);
  return bounds;
}

int GroupLevel(const std::vector<std::optional<std::uint64_t>>& freeBytes, const GroupBounds& bounds) {
  int level = 0;
  for (const auto& bytes : freeBytes) {
    if (!bytes) continue;
    // The watcher holds free space as a signed 64-bit number.
    const auto value = static_cast<std::int64_t>(
        std::min<std::uint64_t>(*bytes, static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())));
    if (value < bounds.stop) {
      level = 3;
    } else if (value < bounds.warning) {
      level = std::max(level, 2);
    } else if (value < bounds.recommended) {
      level = std::max(level, 1);
    }
  }
  return level;
}

std::wstring WatchedPath(const std::wstring& configured, const std::wstring& moduleDirectory) {
  std::wstring expanded = configured;
  std::vector<wchar_t> buffer(260);
  for (;;) {
    const DWORD count = ExpandEnvironmentStringsW(configured.c_str(), buffer.data(), static_cast<DWORD>(buffer.size()));
    if (count == 0) break;  // left as written, as the watcher does
    if (count > buffer.size()) {
      buffer.resize(count);
      continue;
    }
    expanded.assign(buffer.data(), count - 1);
    break;
  }
  return PathIsRelativeW(expanded.c_str()) ? moduleDirectory + expanded : expanded;
}

std::string EscapeLabelValue(const std::wstring& value) {
  std::string escaped;
  for (char c : Narrow(value)) {
    switch (c) {
      case '\\':
        escaped += "\\\\";
        break;
      case '"':
        escaped += "\\\"";
        break;
      case '\n':
        escaped += "\\n";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
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

  std::vector<std::optional<std::uint64_t>> FreeSpace(const std::vector<std::wstring>& paths);
  bool QueryFreeSpace(const std::vector<std::wstring>& paths, std::vector<std::optional<std::uint64_t>>& out);
  void Services(std::vector<GroupSample>& groups);
  std::vector<GroupSample> Collect();
  std::string Render(const std::vector<GroupSample>& groups, const PackTotals& totals) const;
  void RemoveStaleTemporaries(const Kestrel::CFolder& folder, const std::wstring& name, std::wstring& notes) const;
  bool Replace(const std::string& text, std::wstring* error, std::wstring* notes) const;
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

std::vector<GroupSample> MetricsWriter::State::Collect() {
  std::vector<GroupSample> groups;
  if (!config.watcher) return groups;
  const std::wstring moduleDirectory = host.ModuleDirectory();
  std::vector<std::wstring> allPaths;
  for (std::size_t i = 0; i < config.watcher->groups.size(); ++i) {
    const Section& section = config.watcher->groups[i];
    GroupSample group;
    group.label = GroupLabel(section, i);
    group.bounds = ReadBounds(section);
    // A path or name given twice in a group would repeat a series.
    for (const std::wstring& configured : ListOf(section, L"Paths")) {
      const std::wstring path = WatchedPath(configured, moduleDirectory);
      if (std::any_of(group.paths.begin(), group.paths.end(), [&](const PathSample& p) { return Same(p.path, path); }))
        continue;
      group.paths.push_back({path, std::nullopt});
      allPaths.push_back(path);
    }
    for (const std::wstring& name : ListOf(section, L"ServiceNames")) {
      if (std::none_of(group.services.begin(), group.services.end(),
                       [&](const ServiceSample& s) { return Same(s.name, name); })) {
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
  return groups;
}

std::string MetricsWriter::State::Render(const std::vector<GroupSample>& groups, const PackTotals& totals) const {
  Exposition out;
  out.Family("wd64_free_bytes", "gauge",
             "Free bytes of the volume of a watched path; no sample when it cannot be read.");
  for (const GroupSample& group : groups) {
    for (const PathSample& path : group.paths) {
      if (path.freeBytes) out.Sample("wd64_free_bytes", {{"group", group.label}, {"path", path.path}}, *path.freeBytes);
    }
  }
  out.Family("wd64_path_readable", "gauge", "1 when the free space of a watched path could be read, else 0.");
  for (const GroupSample& group : groups) {
    for (const PathSample& path : group.paths) {
      out.Sample("wd64_path_readable", {{"group", group.label}, {"path", path.path}}, path.freeBytes ? 1u : 0u);
    }
  }
  out.Family("wd64_bound_bytes", "gauge", "Free-space bounds of a watch group in bytes.");
  for (const GroupSample& group : groups) {
    const std::pair<const wchar_t*, std::int64_t> bounds[] = {
        {L"recommended", group.bounds.recommended}, {L"warning", group.bounds.warning}, {L"stop", group.bounds.stop}};
    for (const auto& [name, bytes] : bounds) {
      out.Sample("wd64_bound_bytes", {{"group", group.label}, {"bound", name}}, std::to_string(bytes));
    }
  }
  out.Family("wd64_group_level", "gauge",
             "Worst readable path of a watch group: 0 normal, 1 below the recommended minimum, 2 below the warning "
             "bound, 3 below the stop bound.");
  for (const GroupSample& group : groups) {
    std::vector<std::optional<std::uint64_t>> free;
    for (const PathSample& path : group.paths) free.push_back(path.freeBytes);
    out.Sample("wd64_group_level", {{"group", group.label}},
               static_cast<std::uint64_t>(GroupLevel(free, group.bounds)));
  }
  out.Family("wd64_service_up", "gauge", "1 when a configured service is running, else 0.");
  for (const GroupSample& group : groups) {
    if (!group.servicesKnown) continue;
    for (const ServiceSample& service : group.services) {
      out.Sample("wd64_service_up", {{"group", group.label}, {"service", service.name}}, service.running ? 1u : 0u);
    }
  }
  out.Family("wd64_service_exists", "gauge", "0 when the service manager does not know a configured service name.");
  for (const GroupSample& group : groups) {
    if (!group.servicesKnown) continue;
    for (const ServiceSample& service : group.services) {
      out.Sample("wd64_service_exists", {{"group", group.label}, {"service", service.name}}, service.exists ? 1u : 0u);
    }
  }
  out.Family("wd64_logpacker_runs_total", "counter", "Pack runs since the host started.");
  out.Sample("wd64_logpacker_runs_total", {}, totals.runs);
  out.Family("wd64_logpacker_failures_total", "counter", "Pack runs that failed since the host started.");
  out.Sample("wd64_logpacker_failures_total", {}, totals.failures);
  out.Family("wd64_logpacker_files_packed_total", "counter", "Log files packed and deleted since the host started.");
  out.Sample("wd64_logpacker_files_packed_total", {}, totals.files);
  out.Family("wd64_logpacker_bytes_packed_total", "counter", "Bytes of the packed log files before packing.");
  out.Sample("wd64_logpacker_bytes_packed_total", {}, totals.bytes);
  out.Family("wd64_logpacker_files_skipped_total", "counter",
             "Selected log files left on disk for a later run since the host started.");
  out.Sample("wd64_logpacker_files_skipped_total", {}, totals.skipped);
  out.Family("wd64_logpacker_last_run_timestamp_seconds", "gauge",
             "When the last pack run finished, in Unix seconds; no sample before the first run.");
  if (totals.last)
    out.Sample("wd64_logpacker_last_run_timestamp_seconds", {}, Seconds(UnixSeconds(totals.last->finished)));
  out.Family("wd64_logpacker_last_run_success", "gauge",
             "1 when the last pack run succeeded, 0 when it failed; no sample before the first run.");
  if (totals.last) out.Sample("wd64_logpacker_last_run_success", {}, SUCCEEDED(totals.last->hr) ? 1u : 0u);
  out.Family("wd64_host_start_time_seconds", "gauge", "When the host process started, in Unix seconds.");
  out.Sample("wd64_host_start_time_seconds", {}, Seconds(startTime));
  // Last on purpose: a file that ends in this line is whole.
  out.Family("wd64_build_info", "gauge", "Always 1; the version label is the module's product version.");
  out.Sample("wd64_build_info", {{"version", Widen(version)}}, 1u);
  return out.Text();
}

// Temporaries are "<file name>.<pid>-<random>.tmp" beside the file: nobody
// can guess the next name to block it, and the process id tells a writer
// that was killed from one at work. The next writer removes those of the
// killed ones, but only plain files of the folder: a link planted under such
// a name is left alone, and so is its target.
void MetricsWriter::State::RemoveStaleTemporaries(const Kestrel::CFolder& folder, const std::wstring& name,
                                                  std::wstring& notes) const {
  WIN32_FIND_DATAW found{};
  const FindHandle find(FindFirstFileW(folder.Join(name + L".*.tmp").c_str(), &found));
  if (!find) return;
  do {
    const std::wstring candidate = found.cFileName;
    if (candidate.size() <= name.size() + 1 || candidate.compare(0, name.size() + 1, name + L".") != 0) continue;
    const wchar_t* digits = candidate.c_str() + name.size() + 1;
    wchar_t* end = nullptr;
    const unsigned long pid = std::wcstoul(digits, &end, 10);
    if (end == digits || *end != L'-' || pid == GetCurrentProcessId() || !ProcessEnded(pid)) continue;
    Kestrel::PlainFile stale = Kestrel::OpenPlainFile(
        folder, candidate, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING);
    if (stale && !HasName(folder, stale.file.Get(), candidate)) {
      stale.file.Reset();
      stale.refusal = Kestrel::EntryRefusal::kOutside;
    }
    if (stale) {
      Kestrel::DeleteByHandle(stale.file.Get());
    } else if (stale.refusal != Kestrel::EntryRefusal::kNone) {
      notes += (notes.empty() ? L"" : L"; ") + std::wstring(L"left ") + candidate + L" alone: " + stale.Reason();
    }
  } while (FindNextFileW(find.Get(), &found));
}

bool MetricsWriter::State::Replace(const std::string& text, std::wstring* error, std::wstring* notes) const {
  const std::size_t slash = path.find_last_of(L"\\/");
  // "C:\m.prom" lies in "C:\", with its separator.
  const std::wstring folderPath =
      slash == std::wstring::npos ? L"." : path.substr(0, slash == 2 && path[1] == L':' ? 3 : slash);
  const std::wstring name = path.substr(slash + 1);
  auto fail = [&](const std::wstring& why) {
    if (error != nullptr) *error = L"cannot write the metrics file " + path + L": " + why;
    return false;
  };
  auto failCode = [&](const std::wstring& step, DWORD code) { return fail(step + L": " + SystemText(code)); };

  // The folder is opened once for the whole write, and everything in it is
  // checked against where it really is. A folder that is a link, or one that
  // others may change, could send the writes of a privileged host anywhere.
  std::optional<Kestrel::CFolder> folder;
  try {
    folder.emplace(folderPath, Kestrel::CFolder::Links::kRefuse);
  } catch (const Kestrel::HRX& failure) {
    if (failure.Code() == HRESULT_FROM_WIN32(kReparsePointEncountered)) {
      return fail(L"its folder " + folderPath + L" is a link or junction; metrics are written only into a real folder");
    }
    return fail(L"opening its folder " + folderPath + L": " + failure.Description());
  }
  try {
    const Kestrel::TrustVerdict verdict = Kestrel::JudgeFile(folder->Path());
    if (!verdict.bTrusted) {
      return fail(L"its folder " + folderPath + L" is not safe to write into: " + verdict.Text() +
                  L" (only SYSTEM, Administrators and the account the host runs as may own or change it)");
    }
  } catch (const Kestrel::HRX& failure) {
    return fail(L"reading who may change its folder " + folderPath + L": " + failure.Description());
  }
  std::wstring left;
  RemoveStaleTemporaries(*folder, name, left);
  if (notes != nullptr) *notes = left;

  unsigned char random[8];
  if (!BCRYPT_SUCCESS(BCryptGenRandom(nullptr, random, sizeof random, BCRYPT_USE_SYSTEM_PREFERRED_RNG))) {
    return fail(L"no random name for a temporary file");
  }
  wchar_t suffix[24];
  std::swprintf(suffix, std::size(suffix), L"%02x%02x%02x%02x%02x%02x%02x%02x", random[0], random[1], random[2],
                random[3], random[4], random[5], random[6], random[7]);
  const std::wstring temporaryName = name + L"." + std::to_wstring(GetCurrentProcessId()) + L"-" + suffix + L".tmp";
  const std::wstring temporary = folder->Join(temporaryName);
  Kestrel::PlainFile file = Kestrel::OpenPlainFile(*folder, temporaryName, GENERIC_WRITE | DELETE, 0, CREATE_NEW);
  if (!file) return fail(L"creating " + temporary + L": " + file.Reason());
  DWORD written = 0;
  const bool ok = WriteFile(file.file.Get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
                  written == text.size() && FlushFileBuffers(file.file.Get());
  if (!ok) {
    const DWORD code =
        written != text.size() && GetLastError() == ERROR_SUCCESS ? ERROR_HANDLE_DISK_FULL : GetLastError();
    Kestrel::DeleteByHandle(file.file.Get());
    return failCode(L"writing " + temporary, code);
  }
  // The rename replaces whatever entry holds the name, a link included,
  // never what a link points to.
  for (int attempt = 1;; ++attempt) {
    if (Kestrel::RenameByHandle(file.file.Get(), folder->Join(name), true)) return true;
    const DWORD code = GetLastError();
    const bool held = code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION || code == ERROR_LOCK_VIOLATION;
    if (!held || attempt == kReplaceAttempts) {
      Kestrel::DeleteByHandle(file.file.Get());
      return failCode(L"replacing it with " + temporary, code);
    }
    Sleep(kReplacePauseMs);
  }
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
  totals.last = run;
}

bool MetricsWriter::Write(std::wstring* error, std::wstring* notes) {
  try {
    const std::lock_guard lock(m_state->writeLock);
    PackTotals totals;
    {
      const std::lock_guard packLock(m_state->packLock);
      totals = m_state->pack;
    }
    const std::string text = m_state->Render(m_state->Collect(), totals);
    return m_state->Replace(text, error, notes);
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
