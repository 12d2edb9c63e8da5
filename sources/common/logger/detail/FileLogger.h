#pragma once
// A log writer that appends lines to a UTF-16 text file (no byte-order
// mark), shared by many threads and by other processes writing the same file.
//
// It keeps one handle open for "KeepOpenInterval" ms and writes each line
// through a private duplicate of it, outside its lock. Reopening at that
// interval follows a file that was moved away; the banner opens every file
// it starts to use; at "LogFileSizeThresholdMB" it stops writing. Its own
// troubles go to the debugger output only.
//
// It writes only into a plain file of its folder: the module runs as SYSTEM,
// and a link or a second name planted at the log's name would make it
// append to a file of the planter's choice. Such a file is refused, reported
// once, and left untouched.

#include <windows.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include "Handle.h"
#include "LogInterfaces.h"
#include "platform/PlainFile.h"

namespace VHLogger::Detail {

class CAppendLock;

class CFileLogger : public ILogWriter {
 public:
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

  // Tells of a refused file (its path and why); called once for each run of
  // refused opens of one path, inside the logger's lock.
  using RefusalReporter = void (*)(const std::wstring& path, const std::wstring& reason) noexcept;

  // A name holding "\" or "/" is used as it stands; a bare name lives in the
  // logger's log directory. An empty banner writes none. A refused file goes
  // to `reportRefusal`, by default to the debugger output.
  CFileLogger(std::wstring fileName, std::wstring banner, RefusalReporter reportRefusal = nullptr);
  ~CFileLogger() override;
  CFileLogger(const CFileLogger&) = delete;
  CFileLogger& operator=(const CFileLogger&) = delete;

  // Appends `length` characters (npos: up to the terminating NUL). Never
  // throws; a line that cannot be written is dropped.
  void Write(const wchar_t* text, std::size_t length) noexcept override;

  // The file the next open uses.
  std::wstring FilePath() const;

 private:
  // A handle for the caller alone (empty when none), and the append lock of
  // its file.
  Handle ObtainHandle(std::shared_ptr<CAppendLock>& appendLock) noexcept;
  // The file opened for appending, or none; sets the append lock of its file.
  Handle Open() noexcept;
  const Kestrel::CFolder& Folder(const std::wstring& folderPath);

  DWORD m_nLastOpen = 0;
  std::wstring m_sBanner;
  std::wstring m_sFileName;
  bool m_bNameIsPath;
  RefusalReporter m_pReportRefusal;
  // Opening may write a log line of its own, which comes back here.
  std::recursive_mutex m_cs;
  // The kept handle; writers take duplicates of it under the lock, so a
  // replaced one is closed at once.
  Handle m_kept;
  DWORD m_nFileIndexLow = 0;
  DWORD m_nFileIndexHigh = 0;
  DWORD m_nVolumeSerial = 0;
  bool m_bTooBig = false;
  // The refused file last reported, until an open succeeds again.
  std::wstring m_sRefusedPath;
  // The folder of the last open, reused for a few seconds when every line
  // opens the file; dropped after a failed or refused open.
  std::unique_ptr<Kestrel::CFolder> m_pFolder;
  std::wstring m_sFolderPath;
  DWORD m_nFolderOpened = 0;
  std::shared_ptr<CAppendLock> m_pAppendLock;
};

}  // namespace VHLogger::Detail
