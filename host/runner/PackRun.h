#pragma once
// One pack run as the host shows it: the module's own report of what it
// packed and left (PackLogs with "Report"), read into a PackRunResult.

#include <windows.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "components/ComponentInterfaces.h"

namespace Host {

struct Config;

// What one pack run did, as the module reported it.
struct PackRunResult {
  std::chrono::system_clock::time_point finished;
  HRESULT hr = S_OK;          // the pack request's result
  std::wstring archive;       // archive made; empty when nothing was packed
  std::uint64_t files = 0;    // files packed
  std::uint64_t bytes = 0;    // their bytes before packing
  std::uint64_t skipped = 0;  // selected files left on disk for a later run
  std::uint64_t deletedArchives = 0;  // earlier archives the retention deleted
  // The packer's archives in the folder after the run; empty when the
  // module did not count them.
  std::optional<std::uint64_t> archives, archivesBytes;
};

// The folder and mask a configuration packs, for people to read.
struct PackTarget {
  std::wstring folder;  // environment references expanded
  std::wstring mask;
};
PackTarget PackTargetOf(const Config& config);

// "packed 3 files, 4096 bytes into logs_….zip; 1 file due for packing left
// on disk (in use?)" or "nothing to pack".
std::wstring DescribePackRun(const PackRunResult& run);

// Sends PackLogs with "Report" to a configured log packer.
PackRunResult RunPack(IVHRequestProcessor* packer);

}  // namespace Host
