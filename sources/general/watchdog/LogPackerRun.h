#pragma once
// One pack run over a logs folder. A file is deleted only once the archive
// holding it is closed and has its final name; until then the archive is a
// temporary file that no reader takes for an archive. The folder is guarded
// across processes, so two runs never pick the same file.

#include <cstdint>
#include <string>

#include "Path.h"

namespace Kestrel {

struct LogPackerSettings {
  CPath logsDirectory;
  CPath fileMask;
  std::uint64_t maxAgeInHours;
  std::uint64_t maxSizeInMegabytes;
};

// Packs the folder's old and large logs, and files an earlier run moved
// aside, into a new archive. Returns the archive's path, or an empty path
// when nothing was packed and no archive was left.
CPath PackLogFolder(const LogPackerSettings& settings);

namespace Detail {
// A file moved aside for packing: "~wd64pack.<16 hex digits>.<its name>".
// The hex digits grow with time, so older generations sort first.
inline constexpr wchar_t kMovedPrefix[] = L"~wd64pack.";
// An archive being written: "~wd64zip.<16 hex digits>.tmp".
inline constexpr wchar_t kPartialPrefix[] = L"~wd64zip.";

std::wstring MovedName(std::uint64_t unique, const std::wstring& name);
// The original name inside a moved name; empty for any other name.
std::wstring OriginalOfMoved(const std::wstring& found);
bool IsPackerOwnName(const std::wstring& found);
// "logs_X.zip", then "logs_X_2.zip", "logs_X_3.zip" ...
std::wstring NumberedArchiveName(const std::wstring& archiveName, unsigned number);
// The cross-process guard's name for a folder: one name for every spelling
// of its full path that differs only in case or a trailing separator.
std::wstring FolderGuardName(const std::wstring& directory);
}  // namespace Detail

}  // namespace Kestrel
