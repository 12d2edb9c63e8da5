#include "PackRun.h"

#include <shlwapi.h>

#include "Config.h"
#include "HostHandles.h"
#include "ModuleHost.h"
#include "Nodes.h"

namespace Host {

namespace {

constexpr std::uint64_t kTicksPerHour = 36000000000ull;

std::uint64_t ToNumber(FILETIME time) {
  return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

std::wstring Expand(const std::wstring& text) {
  const DWORD size = ExpandEnvironmentStringsW(text.c_str(), nullptr, 0);
  if (size == 0) return text;
  std::wstring expanded(size, L'\0');
  const DWORD length = ExpandEnvironmentStringsW(text.c_str(), expanded.data(), size);
  if (length == 0 || length > size) return text;
  expanded.resize(length - 1);
  return expanded;
}

bool StartsWithNoCase(const std::wstring& name, const wchar_t* prefix) {
  const int length = lstrlenW(prefix);
  return static_cast<int>(name.size()) >= length &&
         CompareStringOrdinal(name.c_str(), length, prefix, length, TRUE) == CSTR_EQUAL;
}

bool IsArchiveName(const std::wstring& name) {
  return name.size() > 9 && StartsWithNoCase(name, L"logs_") && PathMatchSpecW(name.c_str(), L"*.zip");
}

// The packer renames a file it takes to "~wd64pack.<16 hex digits>.<name>"
// and writes its archive as "~wd64zip.<hex>.tmp" until it is whole.
constexpr wchar_t kMovedPrefix[] = L"~wd64pack.";
constexpr std::size_t kMovedNameStart = 10 + 17;

bool IsPackerOwnName(const std::wstring& name) {
  return StartsWithNoCase(name, kMovedPrefix) || StartsWithNoCase(name, L"~wd64zip.");
}

std::wstring OriginalOfMoved(const std::wstring& name) {
  return StartsWithNoCase(name, kMovedPrefix) && name.size() > kMovedNameStart ? name.substr(kMovedNameStart)
                                                                                : std::wstring();
}

}  // namespace

std::uint64_t LocalNowAsFileTime() {
  SYSTEMTIME now;
  GetLocalTime(&now);
  FILETIME time{};
  SystemTimeToFileTime(&now, &time);
  return ToNumber(time);
}

FolderSnapshot SnapshotFolder(const std::wstring& folder) {
  FolderSnapshot snapshot;
  WIN32_FIND_DATAW data;
  const std::wstring pattern = folder + (folder.empty() || folder.back() == L'\\' ? L"*" : L"\\*");
  const FindHandle search(FindFirstFileW(pattern.c_str(), &data));
  if (!search) return snapshot;
  do {
    if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) continue;
    FolderEntry entry;
    entry.size = (static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    entry.created = ToNumber(data.ftCreationTime);
    snapshot.emplace(data.cFileName, entry);
  } while (FindNextFileW(search.Get(), &data));
  return snapshot;
}

PackRules PackRulesOf(const Config& config) {
  PackRules rules;
  if (!config.packer) return rules;
  const Section& settings = config.packer->settings;
  if (const Value* value = settings.Find(L"LogsDirectoryPath")) rules.folder = Expand(value->text);
  if (const Value* value = settings.Find(L"LogFileMask")) rules.mask = Expand(value->text);
  if (const Value* value = settings.Find(L"MaxLogFileAgeInHours")) rules.maxAgeHours = static_cast<std::uint64_t>(value->number);
  if (const Value* value = settings.Find(L"MaxLogFileSizeInMegabytes")) {
    rules.maxSizeMegabytes = static_cast<std::uint64_t>(value->number);
  }
  return rules;
}

PackRunResult ComparePackRun(const FolderSnapshot& before, const FolderSnapshot& after, const PackRules& rules,
                             std::uint64_t localNow, HRESULT hr) {
  PackRunResult run;
  run.finished = std::chrono::system_clock::now();
  run.hr = hr;
  for (const auto& [name, entry] : after) {
    if (IsArchiveName(name) && before.find(name) == before.end()) run.archive = name;
  }
  // Files the run moved aside and could not take yet (a writer held them).
  std::map<std::wstring, int> movedThisRun;
  for (const auto& [name, entry] : after) {
    if (before.find(name) == before.end() && !OriginalOfMoved(name).empty()) ++movedThisRun[OriginalOfMoved(name)];
  }
  for (const auto& [name, entry] : before) {
    const bool moved = !OriginalOfMoved(name).empty();
    if (IsArchiveName(name) || (!moved && (IsPackerOwnName(name) || !PathMatchSpecW(name.c_str(), rules.mask.c_str())))) {
      continue;
    }
    if (after.find(name) == after.end()) {
      if (!moved && movedThisRun[name] > 0) {
        --movedThisRun[name];
        ++run.skipped;
        continue;
      }
      ++run.files;
      run.bytes += entry.size;
      continue;
    }
    if (moved) {
      ++run.skipped;  // taken by an earlier run and still held
      continue;
    }
    // Limits too large for 64 bits mean no limit, as the packer counts them.
    const bool tooOld = rules.maxAgeHours <= UINT64_MAX / kTicksPerHour && localNow > entry.created &&
                        localNow - entry.created > rules.maxAgeHours * kTicksPerHour;
    const bool tooLarge = rules.maxSizeMegabytes < (std::uint64_t{1} << 44) && entry.size > (rules.maxSizeMegabytes << 20);
    if (tooOld || tooLarge) ++run.skipped;
  }
  // Files that went without an archive were not packed by this run.
  if (run.archive.empty()) {
    run.skipped += run.files;
    run.files = 0;
    run.bytes = 0;
  }
  return run;
}

std::wstring DescribePackRun(const PackRunResult& run) {
  std::wstring text;
  if (run.archive.empty()) {
    text = L"nothing to pack";
  } else {
    text = L"packed " + std::to_wstring(run.files) + (run.files == 1 ? L" file, " : L" files, ") +
           std::to_wstring(run.bytes) + L" bytes into " + run.archive;
  }
  if (run.skipped > 0) {
    text += L"; " + std::to_wstring(run.skipped) + (run.skipped == 1 ? L" file" : L" files") +
            L" due for packing left on disk (in use?)";
  }
  return text;
}

PackRunResult RunPack(IVHRequestProcessor* packer, const PackRules& rules) {
  const FolderSnapshot before = SnapshotFolder(rules.folder);
  Node request;
  request.SetName(L"PackLogs");
  HVHNODE response = nullptr;
  const HRESULT hr = packer->ProcessRequest(request.Get(), &response);
  CloseNode(response);
  PackRunResult run = ComparePackRun(before, SnapshotFolder(rules.folder), rules, LocalNowAsFileTime(), hr);
  return run;
}

}  // namespace Host
