#pragma once
// One pack run as the host shows it: the module's own report of what it
// packed and left (PackLogs with "Report"), read into a PackRunResult.

#include <windows.h>

#include <string>

#include "Metrics.h"
#include "components/ComponentInterfaces.h"

namespace Host {

struct Config;

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
