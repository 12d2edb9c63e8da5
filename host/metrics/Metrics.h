#pragma once
// Metrics for Prometheus' textfile collector: what the host learns of the
// watched paths, the groups' services and the log packer, written as one
// text-exposition file that is replaced atomically.

#include <windows.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "module/ModuleHost.h"
#include "rules/WatchGroupRules.h"
#include "runner/PackRun.h"

namespace Host {

struct Config;
struct Section;

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
  // The running free-space watcher, asked at each write how its groups stand
  // ("ListGroups"); without one the group state families have no samples.
  void WatchedBy(ComponentRef<IVHRequestProcessor> watcher);
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

// The `group` label of a watch group: its name, else its position in the
// configuration.
std::wstring GroupLabel(const Section& group, std::size_t index);

// A group's bounds as the watcher takes them from its keys.
Kestrel::Rules::WatchGroupBounds BoundsOf(const Section& group);

// The worst level among the readable paths of a group, by the watcher's
// comparisons; a path whose free space could not be read (nullopt) is left
// out, as the watcher drops it. Free space beyond the watcher's signed 64
// bits counts as the most there can be.
Kestrel::Rules::Level GroupLevel(const std::vector<std::optional<std::uint64_t>>& freeBytes,
                                 const Kestrel::Rules::WatchGroupBounds& bounds);

// A label value in UTF-8 with backslash, double quote and line feed escaped.
std::string EscapeLabelValue(const std::wstring& value);

namespace Detail {
// Writes `text` into the metrics file `path` by replacing it whole (see
// MetricsWriter); false with the reason in `error`.
bool ReplaceMetricsFile(const std::wstring& path, const std::string& text, std::wstring* error, std::wstring* notes);
}  // namespace Detail

}  // namespace Host
