#pragma once
// Metrics for Prometheus' textfile collector: what the host learns of the
// watched paths, the groups' services and the log packer, written as one
// text-exposition file that is replaced atomically.

#include <windows.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Host {

class ModuleHost;
struct Config;
struct Section;

// What one pack run did, as the host saw it.
struct PackRunResult {
  std::chrono::system_clock::time_point finished;
  HRESULT hr = S_OK;          // the pack request's result
  std::wstring archive;       // archive made; empty when nothing was packed
  std::uint64_t files = 0;    // files packed
  std::uint64_t bytes = 0;    // their bytes before packing
  std::uint64_t skipped = 0;  // selected files left on disk for a later run
};

// RecordPackRun and Write may be called from different threads; Write
// blocks for the collection (a disk-manager request, the service manager) and
// for up to two seconds more while a reader holds the file. Each write opens
// the file's folder once and refuses it when it is a link or others may
// change it; the temporary is a new plain file under a random name, and the
// file is replaced through its handle.
class MetricsWriter {
 public:
  // `path` is the .prom file to keep current; `config` and `host` must
  // outlive the writer.
  MetricsWriter(std::wstring path, const Config& config, ModuleHost& host);
  ~MetricsWriter();
  MetricsWriter(const MetricsWriter&) = delete;
  MetricsWriter& operator=(const MetricsWriter&) = delete;

  const std::wstring& Path() const noexcept;
  void RecordPackRun(const PackRunResult& run);
  // Collects every family and replaces the file. Never throws: returns false
  // with a text for people in `error` when the file could not be written.
  // `notes` receives what the write left alone (a link named like a stale
  // temporary), empty when nothing.
  bool Write(std::wstring* error = nullptr, std::wstring* notes = nullptr);

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

// The pieces of a metrics file that decide something, open to tests.

// The `group` label of a watch group. Its position in the configuration for
// now; the one place to change when groups carry names of their own.
std::wstring GroupLabel(const Section& group, std::size_t index);

// A group's bounds in bytes: the GB or MB key of each, else the watcher's
// defaults (100 GB, 20 GB, 5 GB).
struct GroupBounds {
  std::int64_t recommended = 0;
  std::int64_t warning = 0;
  std::int64_t stop = 0;
};
GroupBounds ReadBounds(const Section& group);

// 0 normal, 1 below the recommended minimum, 2 below the warning bound, 3
// below the stop bound, by the watcher's strict comparisons. A path whose free
// space could not be read (nullopt) is left out, as the watcher drops it.
int GroupLevel(const std::vector<std::optional<std::uint64_t>>& freeBytes, const GroupBounds& bounds);

// The path the watcher queries for a configured one: environment references
// expanded, a relative path put after the module's folder.
std::wstring WatchedPath(const std::wstring& configured, const std::wstring& moduleDirectory);

// A label value in UTF-8 with backslash, double quote and line feed escaped.
std::string EscapeLabelValue(const std::wstring& value);

}  // namespace Host
