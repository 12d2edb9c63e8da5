#pragma once
// Metrics for Prometheus' textfile collector: what the host learns of the
// watched paths, the groups' services and the log packer, written as one
// text-exposition file that is replaced atomically.

#include <windows.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace Host {

class ModuleHost;
struct Config;

// What one pack run did, as the host saw it.
struct PackRunResult {
  std::chrono::system_clock::time_point finished;
  HRESULT hr = S_OK;          // the pack request's result
  std::wstring archive;       // archive made; empty when nothing was packed
  std::uint64_t files = 0;    // files packed
  std::uint64_t bytes = 0;    // their bytes before packing
  std::uint64_t skipped = 0;  // selected files left on disk for a later run
};

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
  bool Write(std::wstring* error = nullptr);

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace Host
