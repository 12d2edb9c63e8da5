#include "LogPackerRun.h"

#include <algorithm>
#include <cwchar>
#include <optional>
#include <utility>
#include <vector>

#include "DirectoryEnumerator.h"
#include "ErrorHandling.h"
#include "Handle.h"
#include "LogPackerConfiguration.h"
#include "ZipArchive.h"
#include "logger/Logger.h"

namespace Kestrel {

namespace {

constexpr wchar_t kSource[] = L"LogPacker";

bool StartsWithNoCase(const std::wstring& text, const wchar_t* prefix) {
  const int length = static_cast<int>(std::wcslen(prefix));
  return static_cast<int>(text.size()) >= length &&
         ::CompareStringOrdinal(text.c_str(), length, prefix, length, TRUE) == CSTR_EQUAL;
}

bool EqualNoCase(const std::wstring& a, const std::wstring& b) {
  return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()), TRUE) ==
         CSTR_EQUAL;
}

std::wstring Hex16(std::uint64_t value) {
  wchar_t text[17];
  std::swprintf(text, 17, L"%016llX", static_cast<unsigned long long>(value));
  return text;
}

std::wstring Reason(DWORD error) { return DescribeHResult(HRESULT_FROM_WIN32(error)); }

CPath Join(const CPath& directory, const std::wstring& name) {
  return CPath::Verbatim(directory.String() + L"\\" + name);
}

std::uint64_t SystemTimeNow() {
  FILETIME now;
  ::GetSystemTimeAsFileTime(&now);
  return (static_cast<std::uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
}

// Held for the whole run. A run killed while holding it leaves the mutex
// abandoned, which the next run takes as acquired.
class FolderGuard {
 public:
  explicit FolderGuard(const CPath& directory) {
    const std::wstring name = Detail::FolderGuardName(directory.String());
    m_hMutex.Reset(::CreateMutexW(nullptr, FALSE, (L"Global\\" + name).c_str()));
    // Without the right to make global objects, processes of one session
    // still exclude each other.
    if (!m_hMutex) m_hMutex.Reset(::CreateMutexW(nullptr, FALSE, (L"Local\\" + name).c_str()));
    ThrowLastErrorIf(!m_hMutex);
    const DWORD result = ::WaitForSingleObject(m_hMutex.Get(), INFINITE);
    if (result == WAIT_ABANDONED) {
      VH_LOG(VHLogger::SEV_INFO, kSource, L"An earlier pack run of this folder ended without finishing; its files are "
                                          L"picked up first");
    } else if (result != WAIT_OBJECT_0) {
      ThrowLastError();
    }
  }
  ~FolderGuard() { ::ReleaseMutex(m_hMutex.Get()); }
  FolderGuard(const FolderGuard&) = delete;
  FolderGuard& operator=(const FolderGuard&) = delete;

 private:
  Handle m_hMutex;
};

// A file taken for this archive: held open without write or delete sharing
// from before its entry starts until it is deleted, so nobody writes to it,
// renames it or replaces it meanwhile.
struct TakenFile {
  Handle file;
  CPath path;
  std::wstring entryName;
  bool bPacked = false;
};

// Opens a file for packing; on failure logs one WARN line and returns none.
std::optional<TakenFile> Take(const CPath& path, const std::wstring& entryName, const std::wstring& shownName) {
  Handle file(::CreateFileW(path.c_str(), GENERIC_READ | DELETE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                            FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!file) {
    const DWORD error = ::GetLastError();
    if (error == ERROR_SHARING_VIOLATION) {
      // A writer (this module's own logger too) still holds it.
      VH_LOG(VHLogger::SEV_WARN, kSource, L"Log file \"" << shownName << L"\" is still open for writing; left as \""
                                                         << path.String() << L"\" for a later run");
    } else {
      VH_LOG(VHLogger::SEV_WARN, kSource, L"Log file \"" << shownName << L"\" not packed, left for a later run: "
                                                         << Reason(error));
    }
    return std::nullopt;
  }
  return TakenFile{std::move(file), path, entryName};
}

class PackRun {
 public:
  explicit PackRun(const LogPackerSettings& settings) : m_settings(settings) {}

  CPath Run() {
    FolderGuard guard(m_settings.logsDirectory);
    RemovePartialArchives();
    const std::vector<std::wstring> moved = FindMovedFiles();
    const std::vector<std::wstring> selected = SelectFiles();
    if (moved.empty() && selected.empty()) return {};

    SYSTEMTIME now;
    ::GetLocalTime(&now);
    const std::wstring archiveName = Detail::ArchiveName(now);
    const CPath partialPath =
        Join(m_settings.logsDirectory, std::wstring(Detail::kPartialPrefix) + Hex16(SystemTimeNow()) + L".tmp");

    std::optional<HRX> failure;
    {
      CZipArchive archive(partialPath);
      try {
        // Earlier generations first, so lines stay in order across archives.
        for (const std::wstring& name : moved) {
          const std::wstring original = Detail::OriginalOfMoved(name);
          if (HasEntry(original)) continue;  // one generation of a name in an archive
          if (auto taken = Take(Join(m_settings.logsDirectory, name), original, original)) {
            Pack(archive, *taken);
          } else {
            m_waiting.push_back(original);  // later generations wait behind it
          }
        }
        for (const std::wstring& name : selected) {
          if (HasEntry(name)) continue;  // an earlier generation went into this archive; this one waits
          if (auto taken = MoveAsideAndTake(name)) Pack(archive, *taken);
        }
      } catch (const HRX& error) {
        failure = error;
      }
      try {
        archive.Close();
      } catch (const HRX&) {
        // An archive that could not be closed is no archive: nothing is deleted.
        ::DeleteFileW(partialPath.c_str());
        if (failure) throw *failure;
        throw;
      }
    }

    const bool bAnyPacked = std::any_of(m_taken.begin(), m_taken.end(), [](const TakenFile& t) { return t.bPacked; });
    CPath archivePath;
    if (!bAnyPacked) {
      ::DeleteFileW(partialPath.c_str());
    } else {
      archivePath = Publish(partialPath, archiveName);
      DeletePacked(archivePath);
    }
    if (failure) throw *failure;
    return archivePath;
  }

 private:
  // Temporary archives of runs that died before finishing; with the guard
  // held none is being written, and none of their files was deleted.
  void RemovePartialArchives() {
    DirectoryEnumerator(Join(m_settings.logsDirectory, std::wstring(Detail::kPartialPrefix) + L"*"))
        .EnumerateFindData([&](const WIN32_FIND_DATAW& data) {
          const std::wstring name = data.cFileName;
          if (StartsWithNoCase(name, Detail::kPartialPrefix) && !(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) {
            ::DeleteFileW(Join(m_settings.logsDirectory, name).c_str());
          }
          return true;
        });
  }

  // Files moved aside by earlier runs, taken whatever their age or size (a
  // renamed file may look new), oldest generation first.
  std::vector<std::wstring> FindMovedFiles() {
    std::vector<std::wstring> moved;
    DirectoryEnumerator(Join(m_settings.logsDirectory, std::wstring(Detail::kMovedPrefix) + L"*"))
        .EnumerateFindData([&](const WIN32_FIND_DATAW& data) {
          std::wstring name = data.cFileName;
          if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && !Detail::OriginalOfMoved(name).empty()) {
            moved.push_back(std::move(name));
          }
          return true;
        });
    std::sort(moved.begin(), moved.end(), [](const std::wstring& a, const std::wstring& b) {
      return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()),
                                    TRUE) == CSTR_LESS_THAN;
    });
    return moved;
  }

  std::vector<std::wstring> SelectFiles() {
    CPathBuilder pattern;
    pattern.Append(m_settings.logsDirectory.String()).Append(L"\\").Append(m_settings.fileMask.String());
    std::vector<std::wstring> selected;
    const std::uint64_t localNow = GetLocalTimeAsFileTime();
    DirectoryEnumerator(CPath::Verbatim(pattern.c_str())).EnumerateFindData([&](const WIN32_FIND_DATAW& data) {
      std::wstring name = data.cFileName;
      // Folders (with "." and "..") and the packer's own files are no logs.
      if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) || Detail::IsPackerOwnName(name)) return true;
      const CPath path = Join(m_settings.logsDirectory, name);
      try {
        if (Detail::IsTooOld(localNow, GetFileCreationTime(path), m_settings.maxAgeInHours) ||
            Detail::IsTooLarge(GetFileSize(path), m_settings.maxSizeInMegabytes)) {
          selected.push_back(std::move(name));
        }
      } catch (const HRX& error) {
        VH_LOG(VHLogger::SEV_WARN, kSource, L"Log file \"" << name << L"\" not packed, left for a later run: "
                                                           << error.Text());
      }
      return true;
    });
    return selected;
  }

  // Renames the file first: a writer that opens it by name goes on in a
  // fresh file, and one that still holds it keeps the moved file until it
  // lets go (the file then waits for a later run).
  std::optional<TakenFile> MoveAsideAndTake(const std::wstring& name) {
    const CPath original = Join(m_settings.logsDirectory, name);
    std::uint64_t unique = std::max(SystemTimeNow(), m_lastUnique + 1);
    for (;;) {
      m_lastUnique = unique;
      const CPath moved = Join(m_settings.logsDirectory, Detail::MovedName(unique, name));
      if (::MoveFileExW(original.c_str(), moved.c_str(), 0)) return Take(moved, name, name);
      const DWORD error = ::GetLastError();
      if (error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS) {
        ++unique;
        continue;
      }
      VH_LOG(VHLogger::SEV_WARN, kSource, L"Log file \"" << name << L"\" not packed, left for a later run: "
                                                         << Reason(error));
      return std::nullopt;
    }
  }

  // True when the name is taken in this archive, or an earlier generation of
  // it could not be taken and the later ones wait behind it.
  bool HasEntry(const std::wstring& entryName) const {
    return std::any_of(m_taken.begin(), m_taken.end(),
                       [&](const TakenFile& taken) { return EqualNoCase(taken.entryName, entryName); }) ||
           std::any_of(m_waiting.begin(), m_waiting.end(),
                       [&](const std::wstring& name) { return EqualNoCase(name, entryName); });
  }

  void Pack(CZipArchive& archive, TakenFile& taken) {
    LARGE_INTEGER size{};
    ::GetFileSizeEx(taken.file.Get(), &size);
    m_taken.push_back(std::move(taken));
    TakenFile& file = m_taken.back();
    file.bPacked = archive.Write(file.file.Get(), file.path, file.entryName, static_cast<std::uint64_t>(size.QuadPart));
    if (!file.bPacked) {
      VH_LOG(VHLogger::SEV_WARN, kSource, L"Log file \"" << file.entryName << L"\" could not be read whole; left as \""
                                                         << file.path.String() << L"\" for a later run");
    }
  }

  // Makes the closed archive durable, then gives it the first free final
  // name; an existing archive is never replaced.
  CPath Publish(const CPath& partialPath, const std::wstring& archiveName) {
    {
      Handle archive(::CreateFileW(partialPath.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                   OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
      ThrowLastErrorIf(!archive);
      ThrowLastErrorIf(!::FlushFileBuffers(archive.Get()));
    }
    for (unsigned number = 1;; ++number) {
      const CPath finalPath = Join(m_settings.logsDirectory, Detail::NumberedArchiveName(archiveName, number));
      if (::MoveFileExW(partialPath.c_str(), finalPath.c_str(), MOVEFILE_WRITE_THROUGH)) return finalPath;
      const DWORD error = ::GetLastError();
      if ((error != ERROR_ALREADY_EXISTS && error != ERROR_FILE_EXISTS) || number == 100000) ThrowWin32(error);
    }
  }

  void DeletePacked(const CPath& archivePath) {
    std::size_t packed = 0;
    for (TakenFile& taken : m_taken) {
      if (!taken.bPacked) continue;
      ++packed;
      FILE_DISPOSITION_INFO disposition{TRUE};
      if (!::SetFileInformationByHandle(taken.file.Get(), FileDispositionInfo, &disposition, sizeof(disposition))) {
        const DWORD error = ::GetLastError();
        // Packed again by a later run: a duplicate, never a loss.
        VH_LOG(VHLogger::SEV_WARN, kSource, L"Packed log file \"" << taken.path.String() << L"\" could not be deleted: "
                                                                  << Reason(error));
      }
      taken.file.Reset();
    }
    VH_LOG(VHLogger::SEV_INFO, kSource, L"Packed " << packed << (packed == 1 ? L" log file" : L" log files")
                                                   << L" into \"" << archivePath.String() << L"\"");
  }

  const LogPackerSettings& m_settings;
  std::vector<TakenFile> m_taken;
  std::vector<std::wstring> m_waiting;
  std::uint64_t m_lastUnique = 0;
};

}  // namespace

namespace Detail {

std::wstring MovedName(std::uint64_t unique, const std::wstring& name) {
  return std::wstring(kMovedPrefix) + Hex16(unique) + L"." + name;
}

std::wstring OriginalOfMoved(const std::wstring& found) {
  const std::size_t prefix = std::wcslen(kMovedPrefix);
  if (!StartsWithNoCase(found, kMovedPrefix) || found.size() < prefix + 18 || found[prefix + 16] != L'.') return {};
  for (std::size_t i = prefix; i < prefix + 16; ++i) {
    if (!std::iswxdigit(found[i])) return {};
  }
  return found.substr(prefix + 17);
}

bool IsPackerOwnName(const std::wstring& found) {
  return StartsWithNoCase(found, kMovedPrefix) || StartsWithNoCase(found, kPartialPrefix);
}

std::wstring NumberedArchiveName(const std::wstring& archiveName, unsigned number) {
  if (number <= 1) return archiveName;
  const std::size_t dot = archiveName.rfind(L'.');
  return archiveName.substr(0, dot) + L"_" + std::to_wstring(number) + archiveName.substr(dot);
}

std::wstring FolderGuardName(const std::wstring& directory) {
  std::wstring full = directory;
  const DWORD needed = ::GetFullPathNameW(directory.c_str(), 0, nullptr, nullptr);
  if (needed != 0) {
    std::vector<wchar_t> buffer(needed);
    const DWORD length = ::GetFullPathNameW(directory.c_str(), needed, buffer.data(), nullptr);
    if (length != 0 && length < needed) full.assign(buffer.data(), length);
  }
  while (full.size() > 3 && (full.back() == L'\\' || full.back() == L'/')) full.pop_back();
  if (!full.empty()) ::CharUpperBuffW(full.data(), static_cast<DWORD>(full.size()));
  // Mutex names cannot hold "\": the path is hashed (FNV-1a over its UTF-16 units).
  std::uint64_t hash = 0xCBF29CE484222325ull;
  for (const wchar_t unit : full) {
    hash ^= static_cast<std::uint16_t>(unit);
    hash *= 0x100000001B3ull;
  }
  return L"WatchDog64.LogPacker." + Hex16(hash);
}

}  // namespace Detail

CPath PackLogFolder(const LogPackerSettings& settings) { return PackRun(settings).Run(); }

}  // namespace Kestrel
