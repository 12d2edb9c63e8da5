#include "FileLogger.h"

#include <cstdint>
#include <cwchar>
#include <utility>

#include "AppendLock.h"
#include "DebugOutput.h"
#include "ErrorHandling.h"
#include "LoggerCore.h"
#include "settings/TickCount.h"

namespace VHLogger::Detail {

namespace {

using GlobalSettings::Detail::CCriticalSection;

constexpr std::uint32_t kDefaultKeepOpenMs = 5000;
constexpr HRESULT kHrSharingViolation = static_cast<HRESULT>(0x80070020);
constexpr int kOpenAttempts = 4;
constexpr DWORD kOpenRetryPauseMs = 10;

using CreateFileTransactedFn = HANDLE(WINAPI*)(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE,
                                               HANDLE, PUSHORT, PVOID);

HRESULT LastErrorResult() noexcept {
  const DWORD error = ::GetLastError();
  return error == 0 ? E_FAIL : Kestrel::HResultFromWin32(error);
}

unsigned AsUnsigned(HRESULT hr) noexcept { return static_cast<unsigned>(hr); }

bool WriteAll(HANDLE file, const void* data, std::size_t bytes) noexcept {
  DWORD written = 0;
  return ::WriteFile(file, data, static_cast<DWORD>(bytes), &written, nullptr) != FALSE;
}

}  // namespace

void CFileLogger::CHandleHolder::Close() noexcept {
  if (hFile != nullptr) {
    ::CloseHandle(hFile);
    hFile = nullptr;
  }
  pAppendLock.reset();
}

CFileLogger::CFileLogger(std::wstring fileName, std::wstring banner)
    : m_sBanner(std::move(banner)),
      m_sFileName(std::move(fileName)),
      m_bNameIsPath(m_sFileName.find_first_of(L"\\/") != std::wstring::npos) {}

CFileLogger::~CFileLogger() = default;

std::wstring CFileLogger::FilePath() const {
  return m_bNameIsPath ? m_sFileName : GetLogger().GetLogDirectory() + m_sFileName;
}

void CFileLogger::Write(const wchar_t* text, std::size_t length) noexcept {
  if (text == nullptr) return;
  if (length == npos) length = std::wcslen(text);
  std::shared_ptr<CAppendLock> appendLock;
  HANDLE file = ObtainHandle(appendLock);
  if (file == nullptr) return;
  // The write runs outside the critical section on a private handle, so one
  // slow writer does not hold up the others; append access puts each line
  // whole at the end of the file. Asking for the file type first binds a fresh
  // handle to its file where that happens lazily (Wine fetches the descriptor
  // from its server), so only the write itself runs under the append lock.
  ::GetFileType(file);
  HRESULT hr = S_OK;
  {
    CAppendLock::Hold hold(appendLock.get());
    if (!WriteAll(file, text, length * sizeof(wchar_t))) hr = LastErrorResult();
  }
  if (FAILED(hr)) DebugOutput(L"FileLogger: cannot write (error: 0x%08x)", AsUnsigned(hr));
  ::CloseHandle(file);
}

HANDLE CFileLogger::ObtainHandle(std::shared_ptr<CAppendLock>& appendLock) noexcept {
  std::uint32_t keepOpen = kDefaultKeepOpenMs;
  try {
    CLogger& logger = GetLogger();
    logger.RefreshConfiguration();
    if (!logger.Settings().GetDWord(L"KeepOpenInterval", keepOpen)) keepOpen = kDefaultKeepOpenMs;
  } catch (...) {
    keepOpen = kDefaultKeepOpenMs;
  }

  CCriticalSection::Lock lock(m_cs);
  if (keepOpen == 0) {
    // Every line opens and closes the file; no handle stays between lines.
    m_pKept.reset();
    CHandleHolder holder;
    Open(holder);
    appendLock = holder.pAppendLock;
    return std::exchange(holder.hFile, nullptr);
  }

  const DWORD now = GlobalSettings::Detail::TickCount();
  if (m_nLastOpen == 0 || now - m_nLastOpen >= keepOpen) {
    m_nLastOpen = now;
    m_pKept.reset();
    try {
      auto fresh = std::make_shared<CHandleHolder>();
      Open(*fresh);
      if (fresh->hFile != nullptr) m_pKept = std::move(fresh);
    } catch (...) {
      // Without memory for the holder the line is dropped.
    }
  }
  if (!m_pKept) return nullptr;

  // Duplicated inside the critical section: a line written after a reopen
  // then always goes to the file the reopen chose, never to the one it
  // replaced.
  HANDLE duplicate = nullptr;
  const HANDLE process = ::GetCurrentProcess();
  if (!::DuplicateHandle(process, m_pKept->hFile, process, &duplicate, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
    DebugOutput(L"FileLogger: cannot duplicate handle (error: 0x%08x)", AsUnsigned(LastErrorResult()));
    return nullptr;
  }
  appendLock = m_pKept->pAppendLock;
  return duplicate;
}

HANDLE CFileLogger::CreateForAppend(const std::wstring& path, const CTransactionDescriptor* transaction) {
  constexpr DWORD kAccess = FILE_APPEND_DATA;
  constexpr DWORD kShare = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  HANDLE file = INVALID_HANDLE_VALUE;
  if (transaction == nullptr || (transaction->hTransaction == nullptr && transaction->bAllowPlainOpen)) {
    file = ::CreateFileW(path.c_str(), kAccess, kShare, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  } else if (transaction->hTransaction != nullptr) {
    const auto createTransacted = reinterpret_cast<CreateFileTransactedFn>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "CreateFileTransactedW")));
    if (createTransacted == nullptr) {
      ::SetLastError(ERROR_PROC_NOT_FOUND);
      return nullptr;
    }
    file = createTransacted(path.c_str(), kAccess, kShare, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr,
                            transaction->hTransaction, nullptr, nullptr);
  } else {
    ::SetLastError(ERROR_INVALID_PARAMETER);
  }
  return file == INVALID_HANDLE_VALUE ? nullptr : file;
}

void CFileLogger::Open(CHandleHolder& holder) noexcept {
  std::wstring path;
  std::uint32_t thresholdMb = 0;
  try {
    path = FilePath();
    CLogger& logger = GetLogger();
    logger.RefreshConfiguration();
    if (!logger.Settings().GetDWord(L"LogFileSizeThresholdMB", thresholdMb)) thresholdMb = 0;
  } catch (...) {
    if (path.empty()) {
      DebugOutput(L"FileLogger: cannot open log file '%ls' (error: 0x%08x)", m_sFileName.c_str(), AsUnsigned(E_FAIL));
      return;
    }
  }

  HRESULT hr = S_OK;
  HANDLE file = nullptr;
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    file = CreateForAppend(path, holder.pTransaction);
    if (file != nullptr) {
      hr = S_OK;
      break;
    }
    hr = LastErrorResult();
    if (hr != kHrSharingViolation) break;
    // Another writer may hold the file for a moment (a copy, a packer).
    ::Sleep(kOpenRetryPauseMs);
  }

  if (file != nullptr) {
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
        ::CloseHandle(file);
        if (!m_bTooBig) {
          DebugOutput(L"FileLogger: log file '%ls' is too big (size=%dMB threshold=%dMB)", path.c_str(),
                      static_cast<int>(sizeMb), static_cast<int>(thresholdMb));
          m_bTooBig = true;
        }
        return;
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
    holder.pAppendLock = m_pAppendLock;

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
    holder.hFile = file;
  }

  if (FAILED(hr)) {
    DebugOutput(L"FileLogger: cannot open log file '%ls' (error: 0x%08x)", path.c_str(), AsUnsigned(hr));
  }
}

}  // namespace VHLogger::Detail
