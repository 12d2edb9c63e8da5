// The metrics file replaced whole: a new plain file of a checked folder,
// written, flushed and renamed over the old one through its handle.

#include <windows.h>
#include <bcrypt.h>

#include <cstdio>
#include <optional>

#include "ErrorHandling.h"
#include "metrics/Metrics.h"
#include "module/HostHandles.h"
#include "platform/FileTrust.h"
#include "platform/PlainFile.h"

namespace Host {

namespace {

// How long a replace waits for a reader that holds the file without letting
// it be replaced (a collector reading it at that moment).
constexpr int kReplaceAttempts = 100;
constexpr DWORD kReplacePauseMs = 20;
// What opening a folder that is a link while refusing links fails with.
constexpr DWORD kReparsePointEncountered = 4395;

std::wstring SystemText(DWORD error) { return Kestrel::DescribeHResult(HRESULT_FROM_WIN32(error)); }

bool ProcessEnded(DWORD pid) {
  ProcessHandle process(OpenProcess(SYNCHRONIZE, FALSE, pid));
  if (!process) return GetLastError() == ERROR_INVALID_PARAMETER;
  return WaitForSingleObject(process.Get(), 0) == WAIT_OBJECT_0;
}

// Temporaries are "<file name>.<pid>-<random>.tmp" beside the file: nobody
// can guess the next name to block it, and the process id tells a writer
// that was killed from one at work. The next writer removes those of the
// killed ones, but only plain files of the folder: a link planted under such
// a name is left alone, and so is its target.
void RemoveStaleTemporaries(const Kestrel::CFolder& folder, const std::wstring& name, std::wstring& notes) {
  WIN32_FIND_DATAW found{};
  const FindHandle find(FindFirstFileW(folder.Join(name + L".*.tmp").c_str(), &found));
  if (!find) return;
  do {
    const std::wstring candidate = found.cFileName;
    if (candidate.size() <= name.size() + 1 || candidate.compare(0, name.size() + 1, name + L".") != 0) continue;
    const wchar_t* digits = candidate.c_str() + name.size() + 1;
    wchar_t* end = nullptr;
    const unsigned long pid = std::wcstoul(digits, &end, 10);
    if (end == digits || *end != L'-' || pid == GetCurrentProcessId() || !ProcessEnded(pid)) continue;
    Kestrel::PlainFile stale = Kestrel::OpenPlainFile(
        folder, candidate, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING);
    if (stale) {
      Kestrel::DeleteByHandle(stale.file.Get());
    } else if (stale.refusal != Kestrel::EntryRefusal::kNone) {
      notes += (notes.empty() ? L"" : L"; ") + std::wstring(L"left ") + candidate + L" alone: " + stale.Reason();
    }
  } while (FindNextFileW(find.Get(), &found));
}

}  // namespace

namespace Detail {

bool ReplaceMetricsFile(const std::wstring& path, const std::string& text, std::wstring* error, std::wstring* notes) {
  const std::size_t slash = path.find_last_of(L"\\/");
  // "C:\m.prom" lies in "C:\", with its separator.
  const std::wstring folderPath =
      slash == std::wstring::npos ? L"." : path.substr(0, slash == 2 && path[1] == L':' ? 3 : slash);
  const std::wstring name = path.substr(slash + 1);
  auto fail = [&](const std::wstring& why) {
    if (error != nullptr) *error = L"cannot write the metrics file " + path + L": " + why;
    return false;
  };
  auto failCode = [&](const std::wstring& step, DWORD code) { return fail(step + L": " + SystemText(code)); };

  // The folder is opened once for the whole write, and everything in it is
  // checked against where it really is. A folder that is a link, or one that
  // others may change, could send the writes of a privileged host anywhere.
  std::optional<Kestrel::CFolder> folder;
  try {
    folder.emplace(folderPath, Kestrel::CFolder::Links::kRefuse);
  } catch (const Kestrel::HRX& failure) {
    if (failure.Code() == HRESULT_FROM_WIN32(kReparsePointEncountered)) {
      return fail(L"its folder " + folderPath + L" is a link or junction; metrics are written only into a real folder");
    }
    return fail(L"opening its folder " + folderPath + L": " + failure.Description());
  }
  try {
    const Kestrel::TrustVerdict verdict = Kestrel::JudgeFile(folder->Path());
    if (!verdict.bTrusted) {
      return fail(L"its folder " + folderPath + L" is not safe to write into: " + verdict.Text() +
                  L" (only SYSTEM, Administrators and the account the host runs as may own or change it)");
    }
  } catch (const Kestrel::HRX& failure) {
    return fail(L"reading who may change its folder " + folderPath + L": " + failure.Description());
  }
  std::wstring left;
  RemoveStaleTemporaries(*folder, name, left);
  if (notes != nullptr) *notes = left;

  unsigned char random[8];
  if (!BCRYPT_SUCCESS(BCryptGenRandom(nullptr, random, sizeof random, BCRYPT_USE_SYSTEM_PREFERRED_RNG))) {
    return fail(L"no random name for a temporary file");
  }
  wchar_t suffix[24];
  std::swprintf(suffix, std::size(suffix), L"%02x%02x%02x%02x%02x%02x%02x%02x", random[0], random[1], random[2],
                random[3], random[4], random[5], random[6], random[7]);
  const std::wstring temporaryName = name + L"." + std::to_wstring(GetCurrentProcessId()) + L"-" + suffix + L".tmp";
  const std::wstring temporary = folder->Join(temporaryName);
  Kestrel::PlainFile file = Kestrel::OpenPlainFile(*folder, temporaryName, GENERIC_WRITE | DELETE, 0, CREATE_NEW);
  if (!file) return fail(L"creating " + temporary + L": " + file.Reason());
  DWORD written = 0;
  const bool ok = WriteFile(file.file.Get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
                  written == text.size() && FlushFileBuffers(file.file.Get());
  if (!ok) {
    const DWORD code =
        written != text.size() && GetLastError() == ERROR_SUCCESS ? ERROR_HANDLE_DISK_FULL : GetLastError();
    Kestrel::DeleteByHandle(file.file.Get());
    return failCode(L"writing " + temporary, code);
  }
  // The rename replaces whatever entry holds the name, a link included,
  // never what a link points to.
  for (int attempt = 1;; ++attempt) {
    if (Kestrel::RenameByHandle(file.file.Get(), folder->Join(name), true)) return true;
    const DWORD code = GetLastError();
    const bool held = code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION || code == ERROR_LOCK_VIOLATION;
    if (!held || attempt == kReplaceAttempts) {
      Kestrel::DeleteByHandle(file.file.Get());
      return failCode(L"replacing it with " + temporary, code);
    }
    Sleep(kReplacePauseMs);
  }
}

}  // namespace Detail

}  // namespace Host
