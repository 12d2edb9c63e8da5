#pragma once
// A log writer that appends lines to a UTF-16 text file (no byte-order
// mark), shared by many threads and by other processes writing the same file.
//
// It keeps one handle open for "KeepOpenInterval" ms and writes each line
// through a private duplicate of it, outside its lock. Reopening at that
// interval follows a file that was moved away; the banner opens every file
// it starts to use; at "LogFileSizeThresholdMB" it stops writing. Its own
// troubles go to the debugger output only.

#include <windows.h>

#include <cstddef>
#include <memory>
#include <string>

#include "LogInterfaces.h"
#include "settings/CriticalSection.h"

namespace VHLogger::Detail {

// Lets an open go through a kernel transaction. The module's own loggers
// never carry one.
struct CTransactionDescriptor {
  HANDLE hTransaction = nullptr;
  bool bAllowPlainOpen = false;
};

class CAppendLock;

class CFileLogger : public ILogWriter {
 public:
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

  // A name holding "\" or "/" is used as it stands; a bare name lives in the
  // logger's log directory. An empty banner writes none.
  CFileLogger(std::wstring fileName, std::wstring banner);
  ~CFileLogger() override;
  CFileLogger(const CFileLogger&) = delete;
  CFileLogger& operator=(const CFileLogger&) = delete;

  // Appends `length` characters (npos: up to the terminating NUL). Never
  // throws; a line that cannot be written is dropped.
  void Write(const wchar_t* text, std::size_t length) noexcept override;

  // The file the next open uses.
  std::wstring FilePath() const;

 private:
  struct CHandleHolder {
    CHandleHolder() = default;
    ~CHandleHolder() { Close(); }
    CHandleHolder(const CHandleHolder&) = delete;
    CHandleHolder& operator=(const CHandleHolder&) = delete;
    void Close() noexcept;

    HANDLE hFile = nullptr;
    CTransactionDescriptor* pTransaction = nullptr;
    std::shared_ptr<CAppendLock> pAppendLock;
  };

  // A handle the caller owns and closes (null when none), and the append
  // lock of its file.
  HANDLE ObtainHandle(std::shared_ptr<CAppendLock>& appendLock) noexcept;
  void Open(CHandleHolder& holder) noexcept;
  static HANDLE CreateForAppend(const std::wstring& path, const CTransactionDescriptor* transaction);

  DWORD m_nLastOpen = 0;
  std::wstring m_sBanner;
  std::wstring m_sFileName;
  bool m_bNameIsPath;
  GlobalSettings::Detail::CCriticalSection m_cs;
  // The kept handle; writers take duplicates of it inside the critical
  // section, so a replaced one is closed at once.
  std::shared_ptr<CHandleHolder> m_pKept;
  DWORD m_nFileIndexLow = 0;
  DWORD m_nFileIndexHigh = 0;
  DWORD m_nVolumeSerial = 0;
  bool m_bTooBig = false;
  std::shared_ptr<CAppendLock> m_pAppendLock;
};

}  // namespace VHLogger::Detail
