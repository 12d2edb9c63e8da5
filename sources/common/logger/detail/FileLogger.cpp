#include "FileLogger.h"

#include <cstdint>
#include <cwchar>
#include <utility>

#include "AppendLock.h"
#include "DebugOutput.h"
#include "ErrorHandling.h"
#include "LoggerCore.h"
#include "platform/TickCount.h"

namespace VHLogger::Detail {

namespace {

constexpr std::uint32_t kDefaultKeepOpenMs = 5000;
constexpr HRESULT kHrSharingViolation = static_cast<HRESULT>(0x80070020);
constexpr int kOpenAttempts = 4;
constexpr DWORD kOpenRetryPauseMs = 10;
// Opening the folder costs more than opening the file in it (its final path
// is asked of the system), so it is reused this long.
constexpr DWORD kFolderReuseMs = 5000;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

HRESULT LastErrorResult() noexcept {
  const DWORD error = ::GetLastError();
  return error == 0 ? E_FAIL : Kestrel::HResultFromWin32(error);
}

unsigned AsUnsigned(HRESULT hr) noexcept { return static_cast<unsigned>(hr); }

bool WriteAll(HANDLE file, const void* data, std::size_t bytes) noexcept {
  DWORD written = 0;
  return ::WriteFile(file, data, static_cast<DWORD>(bytes), &written, nullptr) != FALSE;
}

void ReportToDebugger(const std::wstring& path, const std::wstring& reason) noexcept {
  DebugOutput(L"FileLogger: log file '%ls' refused: %ls", path.c_str(), reason.c_str());
}

}  // namespace

CFileLogger::CFileLogger(std::wstring fileName, std::wstring banner, RefusalReporter reportRefusal)
    : m_sBanner(std::move(banner)),
      m_sFileName(std::move(fileName)),
      m_bNameIsPath(m_sFileName.find_first_of(L"\\/") != std::wstring::npos),
      m_pReportRefusal(reportRefusal != nullptr ? reportRefusal : &ReportToDebugger) {}

CFileLogger::~CFileLogger() = default;

std::wstring CFileLogger::FilePath() const {
  return m_bNameIsPath ? m_sFileName : GetLogger().GetLogDirectory() + m_sFileName;
}

void CFileLogger::Write(const wchar_t* text, std::size_t length) noexcept {
  if (text == nullptr) return;
  if (length == npos) length = std::wcslen(text);
  std::shared_ptr<CAppendLock> appendLock;
  const Handle file = ObtainHandle(appendLock);
  if (!file) return;
  // The write runs outside the critical section on a private handle, so one
  // slow writer does not hold up the others; append access puts each line
  // whole at the end of the file. Asking for the file type first binds a fresh
  // handle to its file where that happens lazily (Wine fetches the descriptor
  // from its server), so only the write itself runs under the append lock.
  ::GetFileType(file.Get());
  HRESULT hr = S_OK;
  {
    CAppendLock::Hold hold(appendLock.get());
    if (!WriteAll(file.Get(), text, length * sizeof(wchar_t))) hr = LastErrorResult();
  }
  if (FAILED(hr)) DebugOutput(L"FileLogger: cannot write (error: 0x%08x)", AsUnsigned(hr));
}

Handle CFileLogger::ObtainHandle(std::shared_ptr<CAppendLock>& appendLock) noexcept {
  std::uint32_t keepOpen = kDefaultKeepOpenMs;
  try {
    CLogger& logger = GetLogger();
    logger.RefreshConfiguration();
    if (!logger.Settings().GetDWord(L"KeepOpenInterval", keepOpen)) keepOpen = kDefaultKeepOpenMs;
  } catch (...) {
    keepOpen = kDefaultKeepOpenMs;
  }

  const std::lock_guard lock(m_cs);
  if (keepOpen == 0) {
    // Every line opens and closes the file; no handle stays between lines.
    m_kept.Reset();
    Handle file = Open();
    appendLock = m_pAppendLock;
    return file;
  }

  const DWORD now = Kestrel::TickCount();
  if (m_nLastOpen == 0 || now - m_nLastOpen >= keepOpen) {
    m_nLastOpen = now;
    m_kept.Reset();
    m_kept = Open();
  }
  if (!m_kept) return {};

  // Duplicated under the lock: a line written after a reopen then always
  // goes to the file the reopen chose, never to the one it replaced.
  Handle duplicate;
  const HANDLE process = ::GetCurrentProcess();
  if (!::DuplicateHandle(process, m_kept.Get(), process, duplicate.Put(), 0, FALSE, DUPLICATE_SAME_ACCESS)) {
    DebugOutput(L"FileLogger: cannot duplicate handle (error: 0x%08x)", AsUnsigned(LastErrorResult()));
    return {};
  }
  appendLock = m_pAppendLock;
  return duplicate;
}

const Kestrel::CFolder& CFileLogger::Folder(const std::wstring& folderPath) {
  const DWORD now = Kestrel::TickCount();
  if (!m_pFolder || m_sFolderPath != folderPath || now - m_nFolderOpened >= kFolderReuseMs) {
    m_pFolder.reset();
    m_pFolder = std::make_unique<Kestrel::CFolder>(folderPath);
    m_sFolderPath = folderPath;
    m_nFolderOpened = now;
  }
  return *m_pFolder;
}

Handle CFileLogger::Open() noexcept {
  std::wstring folderPath;
  std::wstring name = m_sFileName;
  std::wstring path;
  std::uint32_t thresholdMb = 0;
  try {
    CLogger& logger = GetLogger();
    if (m_bNameIsPath) {
      const std::size_t separator = m_sFileName.find_last_of(L"\\/");
      folderPath = m_sFileName.substr(0, separator == 0 ? 1 : separator);
      name = m_sFileName.substr(separator + 1);
      path = m_sFileName;
    } else {
      bool bUsable = true;
      folderPath = logger.GetLogDirectory(&bUsable);
      // A refused folder was reported where it was refused.
      if (!bUsable) return {};
      path = folderPath + name;
    }
    logger.RefreshConfiguration();
    if (!logger.Settings().GetDWord(L"LogFileSizeThresholdMB", thresholdMb)) thresholdMb = 0;
  } catch (...) {
    if (path.empty()) {
      DebugOutput(L"FileLogger: cannot open log file '%ls' (error: 0x%08x)", m_sFileName.c_str(), AsUnsigned(E_FAIL));
      return {};
    }
  }

  HRESULT hr = S_OK;
  Kestrel::PlainFile opened;
  try {
    const Kestrel::CFolder& folder = Folder(folderPath);
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
      opened = Kestrel::OpenPlainFile(folder, name, FILE_APPEND_DATA, kShareAll, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL);
      hr = Kestrel::HResultFromWin32(opened.error);
      if (hr == S_OK) break;
      if (hr != kHrSharingViolation) break;
      // Another writer may hold the file for a moment (a copy, a packer).
      ::Sleep(kOpenRetryPauseMs);
    }
  } catch (const Kestrel::HRX& error) {
    hr = error.Code();
  } catch (...) {
    hr = E_OUTOFMEMORY;
  }

  // A folder that failed is opened afresh next time: it may have been
  // replaced meanwhile.
  if (!opened) m_pFolder.reset();
  if (opened.refusal != Kestrel::EntryRefusal::kNone) {
    if (path != m_sRefusedPath) {
      m_pReportRefusal(path, Kestrel::RefusalText(opened.refusal));
      try {
        m_sRefusedPath = path;
      } catch (...) {
      }
    }
    return {};
  }

  if (opened) {
    m_sRefusedPath.clear();
    const HANDLE file = opened.file.Get();
    if (thresholdMb != 0) {
      DWORD high = 0;
      ::SetLastError(NO_ERROR);
      const DWORD low = ::GetFileSize(file, &high);
      std::uint64_t size = (static_cast<std::uint64_t>(high) << 32) | low;
      if (low == INVALID_FILE_SIZE && ::GetLastError() != NO_ERROR) {
        hr = LastErrorResult();
        size = 0;
      }
      const std::uint64_t sizeMb = size >> 20;
      if (sizeMb >= thresholdMb) {
        if (!m_bTooBig) {
          DebugOutput(L"FileLogger: log file '%ls' is too big (size=%dMB threshold=%dMB)", path.c_str(),
                      static_cast<int>(sizeMb), static_cast<int>(thresholdMb));
          m_bTooBig = true;
        }
        return {};
      }
      m_bTooBig = false;
    }

    BY_HANDLE_FILE_INFORMATION info{};
    DWORD volumeSerial = 0xFFFFFFFF;
    DWORD indexHigh = 0xFFFFFFFF;
    DWORD indexLow = 0xFFFFFFFF;
    if (::GetFileInformationByHandle(file, &info)) {
      volumeSerial = info.dwVolumeSerialNumber;
      indexHigh = info.nFileIndexHigh;
      indexLow = info.nFileIndexLow;
    } else if (!m_sBanner.empty()) {
      DebugOutput(L"FileLogger: cannot write (error: 0x%08x)", AsUnsigned(LastErrorResult()));
    }
    if (CAppendLock::Needed() && (!m_pAppendLock || !m_pAppendLock->Is(volumeSerial, indexHigh, indexLow))) {
      try {
        m_pAppendLock = std::make_shared<CAppendLock>(volumeSerial, indexHigh, indexLow);
      } catch (...) {
        m_pAppendLock.reset();
      }
    }

    // The banner opens every file this logger starts to use: a new one, or
    // one that replaced a file moved or deleted meanwhile.
    if (!m_sBanner.empty() &&
        (volumeSerial != m_nVolumeSerial || indexHigh != m_nFileIndexHigh || indexLow != m_nFileIndexLow)) {
      m_nVolumeSerial = volumeSerial;
      m_nFileIndexHigh = indexHigh;
      m_nFileIndexLow = indexLow;
      CAppendLock::Hold hold(m_pAppendLock.get());
      if (!WriteAll(file, m_sBanner.data(), m_sBanner.size() * sizeof(wchar_t))) {
        DebugOutput(L"FileLogger: cannot write (error: 0x%08x)", AsUnsigned(LastErrorResult()));
      }
    }
  }

  if (FAILED(hr)) {
    DebugOutput(L"FileLogger: cannot open log file '%ls' (error: 0x%08x)", path.c_str(), AsUnsigned(hr));
  }
  return std::move(opened.file);
}

}  // namespace VHLogger::Detail
