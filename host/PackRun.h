#pragma once
// What one pack run did. The module's pack request answers only with an
// HRESULT, so the host compares the logs folder before and after it.

#include <windows.h>

#include <cstdint>
#include <map>
#include <string>

#include "Metrics.h"
#include "components/ComponentInterfaces.h"

namespace Host {

class Node;
struct Config;
class ModuleHost;

struct FolderEntry {
  std::uint64_t size = 0;
  std::uint64_t created = 0;  // file time
};
// Files (not folders) of a folder by name; empty when it cannot be read.
using FolderSnapshot = std::map<std::wstring, FolderEntry>;
FolderSnapshot SnapshotFolder(const std::wstring& folder);

// Which files the packer would take: matching the mask and older than the
// age limit (by creation time against the local clock, as the packer counts
// it) or larger than the size limit.
struct PackRules {
  std::wstring folder;  // environment references expanded
  std::wstring mask;
  std::uint64_t maxAgeHours = 0;
  std::uint64_t maxSizeMegabytes = 0;
};
PackRules PackRulesOf(const Config& config);

// The difference of two snapshots: the new archive, the files that went
// with their sizes, and the files the rules selected that are still there.
PackRunResult ComparePackRun(const FolderSnapshot& before, const FolderSnapshot& after, const PackRules& rules,
                             std::uint64_t localNow, HRESULT hr);

// "archive logs_….zip: 3 files, 4096 bytes packed; 1 skipped" or "nothing to pack".
std::wstring DescribePackRun(const PackRunResult& run);

// Sends PackLogs to a configured log packer and observes the folder around it.
PackRunResult RunPack(IVHRequestProcessor* packer, const PackRules& rules);

// The local clock as a file time, as the packer reads it.
std::uint64_t LocalNowAsFileTime();

}  // namespace Host
