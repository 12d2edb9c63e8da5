#include "LogPackerRun.h"

#include <ntsecapi.h>

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "DirectoryEnumerator.h"
#include "ErrorHandling.h"
#include "Handle.h"
#include "ZipArchive.h"
#include "logger/Logger.h"
#include "platform/PlainFile.h"
#include "rules/LogPackerRules.h"

namespace Kestrel {

namespace Rules = PackerRules;

namespace {

constexpr wchar_t kSource[] = L"LogPacker";
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
// A taken file is read, cleared of its read-only attribute, deleted or
// renamed through one handle.
constexpr DWORD kTakeAccess = GENERIC_READ | DELETE | FILE_WRITE_ATTRIBUTES;
// "The object manager encountered a reparse point while retrieving an object."
constexpr DWORD kErrorReparsePointEncountered = 4395;

Detail::PackRunSeam g_seam;

std::wstring Reason(DWORD error) { return DescribeHResult(HResultFromWin32(error)); }

bool EqualNoCase(const std::wstring& a, const std::wstring& b) {
  return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()), TRUE) ==
         CSTR_EQUAL;
}

std::uint64_t SystemTimeNow() {
  FILETIME now;
  ::GetSystemTimeAsFileTime(&now);
  return (static_cast<std::uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
}

bool IsNameTaken(DWORD error) { return error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS; }

CFolder OpenLogsFolder(const CPath& directory) {
  try {
    return CFolder(directory.String());
  } catch (const HRX& error) {
    // A missing folder reads as the missing path the folder listing reported.
    if (error.Code() != HResultFromWin32(ERROR_FILE_NOT_FOUND)) throw;
    ThrowHr(HResultFromWin32(ERROR_PATH_NOT_FOUND),
            Reason(ERROR_PATH_NOT_FOUND) + L" (logs folder \"" + directory.String() + L"\")");
  }
}

// The folder's lock: a file of the folder held without sharing for the whole
// run and deleted when its handle closes, so every process honours it (any
// account, any path to the folder, another machine on a share) and a killed
// run's lock goes with its process.
class FolderLock {
 public:
  explicit FolderLock(const CFolder& folder) {
    const ULONGLONG start = ::GetTickCount64();
    const ULONGLONG wait = g_seam.lockWaitMilliseconds;
    for (;;) {
      PlainFile lock = OpenPlainFile(folder, Rules::kLockName, DELETE, 0, OPEN_ALWAYS);
      if (lock) {
        // Marked for deletion only now that the handle is known to hold the
        // folder's own file: a planted link never passes a delete on.
        FILE_DISPOSITION_INFO disposition{TRUE};
        ThrowLastErrorIf(
            !::SetFileInformationByHandle(lock.file.Get(), FileDispositionInfo, &disposition, sizeof(disposition)));
        m_hLock = std::move(lock.file);
        return;
      }
      const std::wstring path = folder.Join(Rules::kLockName);
      if (lock.refusal != EntryRefusal::kNone) {
        ThrowHr(HResultFromWin32(kErrorReparsePointEncountered),
                L"The pack lock \"" + path + L"\" is " + lock.Reason() + L"; nothing was packed");
      }
      // Held by another run: a sharing violation, or access denied while its
      // holder's delete is pending.
      if (lock.error != ERROR_SHARING_VIOLATION && lock.error != ERROR_ACCESS_DENIED) {
        ThrowHr(HResultFromWin32(lock.error), L"The pack lock \"" + path + L"\" cannot be opened: " + lock.Reason());
      }
      const ULONGLONG waited = ::GetTickCount64() - start;
      if (waited >= wait) {
        ThrowHr(HResultFromWin32(ERROR_BUSY), L"Another pack run holds the logs folder \"" + folder.Path() +
                                                  L"\": its lock \"" + Rules::kLockName + L"\" stayed taken for " +
                                                  std::to_wstring(waited / 1000) + L" s (" + lock.Reason() +
                                                  L"); nothing was packed");
      }
      ::Sleep(static_cast<DWORD>(std::min<ULONGLONG>(100, wait - waited)));
    }
  }

 private:
  Handle m_hLock;
};

// A file taken for this archive: held open without write or delete sharing
// from before its entry starts until it is deleted, so nobody writes to it,
// renames it or replaces it meanwhile.
struct TakenFile {
  Handle file;
  std::wstring name;       // its name in the folder now
  std::wstring entryName;  // its original name
  std::uint64_t bytes = 0;
  bool bMovedNow = false;  // renamed by this run, put back if the archive fails
  bool bPacked = false;
};

class PackRun {
 public:
  explicit PackRun(const LogPackerSettings& settings)
      : m_settings(settings), m_folder(OpenLogsFolder(settings.logsDirectory)) {}

  PackReport Run() {
    FolderLock lock(m_folder);
    if (DeleteLeftovers(Rules::kPartialPrefix, [](const std::wstring& name) { return Rules::IsPartialName(name); })) {
      VH_LOG(VHLogger::SEV_INFO, kSource, L"An earlier pack run of this folder ended without finishing; its files "
                                          L"are picked up first");
    }
    DeleteLeftovers(Rules::kDonePrefix, [](const std::wstring& name) { return !Rules::OriginalOfDone(name).empty(); });
    Pack();
    const bool bRetention = m_settings.maxArchiveAgeInDays != 0 || m_settings.maxArchivesTotalSizeInMegabytes != 0;
    if (bRetention || m_settings.bCountArchives) {
      try {
        TendArchives(bRetention);
      } catch (const HRX& error) {
        // The run itself succeeded; the next one tries again.
        VH_LOG(VHLogger::SEV_WARN, kSource,
               (bRetention ? L"Archives beyond the retention limits not deleted: " : L"Archives not counted: ")
                   << error.Text());
      }
    }
    return std::move(m_report);
  }

 private:
  void Pack() {
    const std::vector<std::wstring> moved = FindMovedFiles();
    const std::vector<std::wstring> selected = SelectFiles();
    if (moved.empty() && selected.empty()) return;

    SYSTEMTIME now;
    ::GetLocalTime(&now);
    const std::wstring archiveName = Rules::ArchiveName(now);
    Handle partial = CreatePartialArchive();

    std::optional<HRX> failure;
    {
      CZipArchive archive(partial.Get(), m_folder.Join(m_partialName));
      try {
        // Earlier generations first, so lines stay in order across archives.
        for (const std::wstring& name : moved) {
          const std::wstring original = Rules::OriginalOfMoved(name);
          if (WaitsBehind(original)) continue;
          if (auto taken = Take(name, original)) {
            Pack(archive, std::move(*taken));
          } else {
            m_waiting.push_back(original);  // later generations wait behind it
          }
        }
        for (const std::wstring& name : selected) {
          if (WaitsBehind(name)) continue;
          if (auto taken = MoveAsideAndTake(name)) Pack(archive, std::move(*taken));
        }
      } catch (const HRX& error) {
        failure = error;
      }
      try {
        archive.Close();
      } catch (const HRX&) {
        // An archive that could not be closed is no archive: nothing is deleted.
        Abandon(partial);
        if (failure) throw *failure;
        throw;
      }
    }

    if (std::none_of(m_taken.begin(), m_taken.end(), [](const TakenFile& t) { return t.bPacked; })) {
      DeleteByHandle(partial.Get());
    } else {
      try {
        m_report.archivePath = Publish(partial.Get(), archiveName);
      } catch (const HRX&) {
        Abandon(partial);
        if (failure) throw *failure;
        throw;
      }
      partial.Reset();
      DeletePacked();
    }
    if (failure) throw *failure;
  }

  // The packer's own archives of the folder beyond the retention limits,
  // each deleted through a handle checked to hold a plain file of the folder:
  // a link or a second name under an archive's name is left alone, whatever
  // it leads to. A run killed meanwhile has deleted whole archives only.
  // Those left are counted for the report.
  void TendArchives(bool bRetention) {
    struct Found {
      Handle file;
      std::uint64_t bytes;
    };
    std::map<std::wstring, Found> found;
    DirectoryEnumerator(CPath::Verbatim(m_folder.Join(L"logs_*.zip")))
        .EnumerateFindData([&](const WIN32_FIND_DATAW& data) {
          const std::wstring name = data.cFileName;
          if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) || !Rules::ArchiveStampOf(name)) return true;
          // Shared for reading only: an archive someone writes to is not
          // taken. Only counting, it takes nothing and shares everything.
          PlainFile file =
              bRetention ? OpenPlainFile(m_folder, name, DELETE | FILE_WRITE_ATTRIBUTES,
                                         FILE_SHARE_READ | FILE_SHARE_DELETE, OPEN_EXISTING)
                         : OpenPlainFile(m_folder, name, FILE_READ_ATTRIBUTES,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING);
          LARGE_INTEGER size{};
          if (file && ::GetFileSizeEx(file.file.Get(), &size)) {
            found[name] = {std::move(file.file), static_cast<std::uint64_t>(size.QuadPart)};
          } else if (file.refusal != EntryRefusal::kNone) {
            VH_LOG(VHLogger::SEV_WARN, kSource, L"Archive \"" << name << L"\" left alone: " << file.Reason());
          }
          return true;
        });
    std::vector<Rules::ArchiveFacts> archives;
    for (const auto& [name, archive] : found) archives.push_back({name, archive.bytes});
    const std::wstring made = m_report.archivePath.substr(m_report.archivePath.rfind(L'\\') + 1);
    const std::vector<Rules::ArchiveBeyond> beyondLimits =
        bRetention ? Rules::ArchivesBeyondLimits(archives, GetLocalTimeAsFileTime(), m_settings.maxArchiveAgeInDays,
                                                 m_settings.maxArchivesTotalSizeInMegabytes, made)
                   : std::vector<Rules::ArchiveBeyond>{};
    for (const auto& entry : found) m_report.archivesBytes += entry.second.bytes;
    m_report.archives = found.size();
    m_report.bArchivesCounted = true;
    for (const Rules::ArchiveBeyond& beyond : beyondLimits) {
      const Found& archive = found[beyond.name];
      if (!DeleteByHandle(archive.file.Get())) {
        VH_LOG(VHLogger::SEV_WARN, kSource,
               L"Archive \"" << beyond.name << L"\" could not be deleted: " << Reason(::GetLastError()));
        continue;
      }
      const std::wstring why =
          beyond.bTooOld
              ? L"older than " + std::to_wstring(m_settings.maxArchiveAgeInDays) + L" days"
              : L"the archives held more than " + std::to_wstring(m_settings.maxArchivesTotalSizeInMegabytes) + L" MB";
      VH_LOG(VHLogger::SEV_INFO, kSource,
             L"Deleted archive \"" << beyond.name << L"\" (" << archive.bytes << L" bytes): " << why);
      m_report.deletedArchives.push_back({beyond.name, archive.bytes});
      --m_report.archives;
      m_report.archivesBytes -= archive.bytes;
    }
  }

  // One warning line, and the same reason in the report.
  void Skip(const std::wstring& name, const std::wstring& reason) {
    VH_LOG(VHLogger::SEV_WARN, kSource, L"Log file \"" << name << L"\" not packed: " << reason);
    m_report.skipped.push_back({name, reason});
  }

  // Temporary archives of runs that died before finishing (with the lock
  // held none is being written, and none of their files was deleted), and
  // packed files whose delete failed before. Returns how many went.
  template <typename IsLeftover>
  std::size_t DeleteLeftovers(const wchar_t* prefix, IsLeftover isLeftover) {
    std::size_t deleted = 0;
    DirectoryEnumerator(CPath::Verbatim(m_folder.Join(std::wstring(prefix) + L"*")))
        .EnumerateFindData([&](const WIN32_FIND_DATAW& data) {
          const std::wstring name = data.cFileName;
          if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) || !isLeftover(name)) return true;
          const PlainFile file = OpenPlainFile(m_folder, name, DELETE | FILE_WRITE_ATTRIBUTES, kShareAll, OPEN_EXISTING);
          if (file.refusal != EntryRefusal::kNone) {
            VH_LOG(VHLogger::SEV_WARN, kSource, L"\"" << name << L"\" left alone: " << file.Reason());
          } else if (file && DeleteByHandle(file.file.Get())) {
            ++deleted;
          }
          return true;
        });
    return deleted;
  }

  // Files moved aside by earlier runs, taken whatever their age or size (a
  // renamed file may look new), oldest generation first.
  std::vector<std::wstring> FindMovedFiles() {
    std::vector<std::wstring> moved;
    DirectoryEnumerator(CPath::Verbatim(m_folder.Join(std::wstring(Rules::kMovedPrefix) + L"*")))
        .EnumerateFindData([&](const WIN32_FIND_DATAW& data) {
          std::wstring name = data.cFileName;
          if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && !Rules::OriginalOfMoved(name).empty()) {
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

  // Plain files matching the mask that are too old or too large. Each is
  // judged on a checked handle: a link or a second name of a file elsewhere
  // is refused here, before anything is read of it.
  std::vector<std::wstring> SelectFiles() {
    CPathBuilder pattern;
    pattern.Append(m_folder.Path().c_str()).Append(L"\\").Append(m_settings.fileMask.c_str());
    std::vector<std::wstring> selected;
    const std::uint64_t localNow = GetLocalTimeAsFileTime();
    DirectoryEnumerator(CPath::Verbatim(pattern.c_str())).EnumerateFindData([&](const WIN32_FIND_DATAW& data) {
      std::wstring name = data.cFileName;
      // The packer's own files and plain folders (with "." and "..") are no
      // logs; an entry listed as a link is refused before it is opened.
      const DWORD attributes = data.dwFileAttributes;
      if (Rules::IsPackerOwnName(name)) return true;
      if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
        Skip(name, RefusalText(EntryRefusal::kLink));
        return true;
      }
      if (attributes & FILE_ATTRIBUTE_DIRECTORY) return true;
      const PlainFile file = OpenPlainFile(m_folder, name, FILE_READ_ATTRIBUTES, kShareAll, OPEN_EXISTING);
      BY_HANDLE_FILE_INFORMATION info{};
      if (!file || !::GetFileInformationByHandle(file.file.Get(), &info)) {
        Skip(name, file.refusal != EntryRefusal::kNone ? file.Reason()
                                                       : Reason(file ? ::GetLastError() : file.error) +
                                                             L"; left for a later run");
        return true;
      }
      const std::uint64_t created =
          (static_cast<std::uint64_t>(info.ftCreationTime.dwHighDateTime) << 32) | info.ftCreationTime.dwLowDateTime;
      const std::uint64_t size = (static_cast<std::uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow;
      if (Rules::IsTooOld(localNow, created, m_settings.maxAgeInHours) ||
          Rules::IsTooLarge(size, m_settings.maxSizeInMegabytes)) {
        selected.push_back(std::move(name));
      }
      return true;
    });
    return selected;
  }

  // A new plain file of the folder under a name nobody can guess, so nothing
  // planted beforehand can redirect what the archive writes.
  Handle CreatePartialArchive() {
    for (int attempt = 1;; ++attempt) {
      std::uint64_t random[2] = {};
      if (!::RtlGenRandom(random, sizeof(random))) ThrowHr(E_FAIL, L"No random bytes for a temporary archive name");
      m_partialName = Rules::PartialName(random[0], random[1]);
      PlainFile file =
          OpenPlainFile(m_folder, m_partialName, GENERIC_READ | GENERIC_WRITE | DELETE, 0, CREATE_NEW);
      if (file) return std::move(file.file);
      if (file.refusal == EntryRefusal::kNone && IsNameTaken(file.error) && attempt < 3) continue;
      ThrowHr(HResultFromWin32(file.error != ERROR_SUCCESS ? file.error : kErrorReparsePointEncountered),
              L"The temporary archive \"" + m_folder.Join(m_partialName) + L"\" cannot be created: " + file.Reason());
    }
  }

  std::optional<TakenFile> Take(const std::wstring& name, const std::wstring& original) {
    PlainFile file =
        OpenPlainFile(m_folder, name, kTakeAccess, FILE_SHARE_READ, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN);
    if (file) return TakenFile{std::move(file.file), name, original};
    if (file.refusal != EntryRefusal::kNone) {
      Skip(name, file.Reason());
    } else if (file.error == ERROR_SHARING_VIOLATION) {
      // A writer (this module's own logger too) still holds it.
      Skip(original, L"still open for writing; left as \"" + name + L"\" for a later run");
    } else {
      Skip(original, file.Reason() + L"; left as \"" + name + L"\" for a later run");
    }
    return std::nullopt;
  }

  // Renames the file first: a writer that opens it by name goes on in a
  // fresh file, and one that still holds it keeps the moved file until it
  // lets go (the file then waits for a later run). The rename goes through a
  // checked handle that shares everything, so writers are no hindrance to it.
  std::optional<TakenFile> MoveAsideAndTake(const std::wstring& name) {
    std::wstring moved;
    {
      const PlainFile file = OpenPlainFile(m_folder, name, DELETE, kShareAll, OPEN_EXISTING);
      if (!file) {
        Skip(name, file.refusal != EntryRefusal::kNone ? file.Reason() : file.Reason() + L"; left for a later run");
        return std::nullopt;
      }
      moved = RenameAside(file.file.Get(), Rules::MovedName, name);
      if (moved.empty()) {
        Skip(name, Reason(::GetLastError()) + L"; left for a later run");
        return std::nullopt;
      }
    }
    auto taken = Take(moved, name);
    if (taken) taken->bMovedNow = true;
    return taken;
  }

  // Renames the open file to `makeName(unique, name)` with the first unique
  // number free; empty with the thread's last error when it cannot.
  std::wstring RenameAside(HANDLE file, std::wstring (*makeName)(std::uint64_t, const std::wstring&),
                           const std::wstring& name) {
    for (std::uint64_t unique = std::max(SystemTimeNow(), m_lastUnique + 1);; ++unique) {
      m_lastUnique = unique;
      std::wstring aside = makeName(unique, name);
      if (RenameByHandle(file, m_folder.Join(aside), false)) return aside;
      if (!IsNameTaken(::GetLastError())) return {};
    }
  }

  // True when an earlier generation of the name is in this archive or could
  // not be taken: this one waits for a later run.
  bool WaitsBehind(const std::wstring& entryName) {
    const bool bWaits =
        std::any_of(m_taken.begin(), m_taken.end(),
                    [&](const TakenFile& taken) { return EqualNoCase(taken.entryName, entryName); }) ||
        std::any_of(m_waiting.begin(), m_waiting.end(), [&](const std::wstring& name) { return EqualNoCase(name, entryName); });
    if (bWaits) m_report.skipped.push_back({entryName, L"an older file of that name goes first; left for the next run"});
    return bWaits;
  }

  void Pack(CZipArchive& archive, TakenFile taken) {
    LARGE_INTEGER size{};
    ::GetFileSizeEx(taken.file.Get(), &size);
    taken.bytes = static_cast<std::uint64_t>(size.QuadPart);
    m_taken.push_back(std::move(taken));
    TakenFile& file = m_taken.back();
    file.bPacked = archive.Write(file.file.Get(), m_folder.Join(file.name), file.entryName, file.bytes);
    if (!file.bPacked) Skip(file.entryName, L"could not be read whole; left as \"" + file.name + L"\" for a later run");
  }

  // Makes the closed archive durable, then gives it the first free final
  // name through its handle; an existing archive is never replaced.
  std::wstring Publish(HANDLE partial, const std::wstring& archiveName) {
    ThrowLastErrorIf(!::FlushFileBuffers(partial));
    for (unsigned number = 1;; ++number) {
      std::wstring finalPath = m_folder.Join(Rules::NumberedArchiveName(archiveName, number));
      DWORD error = g_seam.publishError;
      if (error == ERROR_SUCCESS) {
        if (RenameByHandle(partial, finalPath, false)) return finalPath;
        error = ::GetLastError();
      }
      if (!IsNameTaken(error) || number == 100000) {
        ThrowHr(HResultFromWin32(error), L"The archive cannot be published as \"" + finalPath + L"\": " + Reason(error));
      }
    }
  }

  // The archive failed: it goes, and the files this run moved aside get
  // their names back where those are still free.
  void Abandon(Handle& partial) {
    DeleteByHandle(partial.Get());
    partial.Reset();
    for (TakenFile& taken : m_taken) {
      if (taken.bMovedNow) RenameByHandle(taken.file.Get(), m_folder.Join(taken.entryName), false);
      taken.file.Reset();
    }
  }

  // A packed file whose delete fails is set aside under a name the selection
  // passes over: it is in this archive, and no later archive takes it again.
  void DeletePacked() {
    std::size_t packed = 0;
    for (TakenFile& taken : m_taken) {
      if (!taken.bPacked) continue;
      ++packed;
      if (DeleteByHandle(taken.file.Get())) {
        m_report.packed.push_back({taken.entryName, taken.bytes});
      } else {
        const DWORD error = ::GetLastError();
        const std::wstring done = RenameAside(taken.file.Get(), Rules::DoneName, taken.entryName);
        const std::wstring reason =
            Reason(error) + (done.empty() ? L"; it is packed again by a later run"
                                          : L"; set aside as \"" + done + L"\", never packed again");
        VH_LOG(VHLogger::SEV_WARN, kSource, L"Packed log file \"" << taken.entryName << L"\" could not be deleted: "
                                                                  << reason);
        m_report.skipped.push_back({taken.entryName, reason});
      }
      taken.file.Reset();
    }
    VH_LOG(VHLogger::SEV_INFO, kSource, L"Packed " << packed << (packed == 1 ? L" log file" : L" log files")
                                                   << L" into \"" << m_report.archivePath << L"\"");
  }

  const LogPackerSettings& m_settings;
  CFolder m_folder;
  std::wstring m_partialName;
  std::vector<TakenFile> m_taken;
  std::vector<std::wstring> m_waiting;
  std::uint64_t m_lastUnique = 0;
  PackReport m_report;
};

}  // namespace

namespace Detail {

ScopedPackRunSeam::ScopedPackRunSeam(const PackRunSeam& seam) noexcept : m_previous(std::exchange(g_seam, seam)) {}
ScopedPackRunSeam::~ScopedPackRunSeam() { g_seam = m_previous; }

}  // namespace Detail

PackReport PackLogFolder(const LogPackerSettings& settings) { return PackRun(settings).Run(); }

}  // namespace Kestrel
