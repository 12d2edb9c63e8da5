#pragma once
// Files that a privileged process reads, writes, renames or deletes are
// worked on through handles, and only once the handle is known to hold a
// plain file of the intended folder: not a link, not a second name of a file
// elsewhere, not a file that lies outside the folder. Checking a name and
// then opening it would leave a gap that a link planted in between slips
// through; a checked handle has none.

#include <windows.h>

#include <string>
#include <string_view>

#include "Handle.h"

namespace Kestrel {

// Why an entry is not a plain file of its folder.
enum class EntryRefusal {
  kNone,
  kLink,          // a symbolic link, junction or other reparse point
  kFolder,        // a folder where a file is expected
  kSeveralNames,  // a hard link: the same file has another name elsewhere
  kOutside,       // the opened file does not lie directly inside the folder
};

// The text a log line gives for a refusal, such as "a link, not a plain file
// of the folder".
const wchar_t* RefusalText(EntryRefusal refusal) noexcept;

// True when `filePath` names an entry directly inside `folderPath`. Both are
// final paths ("\\?\C:\Logs", "\\?\UNC\server\share\Logs"), compared without
// regard to case.
bool IsDirectlyInside(std::wstring_view folderPath, std::wstring_view filePath) noexcept;

// The final path of an open file or folder, with "\\?\" in front; raises HRX.
std::wstring FinalPathOf(HANDLE handle);

// A folder opened once, so every file taken from it can be checked against
// where the folder really is.
class CFolder {
 public:
  enum class Links {
    kFollow,  // the folder may be given through a link: its final path counts
    kRefuse,  // a folder that is itself a link is refused (0x8007112B)
  };

  // Opens the folder for listing; raises HRX when it cannot be opened or is
  // not a folder.
  explicit CFolder(std::wstring path, Links links = Links::kFollow);

  // The path as given, without a trailing separator.
  const std::wstring& Path() const noexcept { return m_sPath; }
  // Where the folder really is.
  const std::wstring& FinalPath() const noexcept { return m_sFinalPath; }
  HANDLE Get() const noexcept { return m_hFolder.Get(); }
  // The given path followed by "\" and the name, taken as it is.
  std::wstring Join(const std::wstring& name) const { return m_sPath + L"\\" + name; }

 private:
  bool IsWhereNamed() const;

  std::wstring m_sPath;
  Handle m_hFolder;
  std::wstring m_sFinalPath;
};

// A file opened by OpenPlainFile, or why it was not.
struct PlainFile {
  Handle file;
  DWORD error = ERROR_SUCCESS;                // the open itself failed
  EntryRefusal refusal = EntryRefusal::kNone;  // opened, but refused (and closed)

  explicit operator bool() const noexcept { return file.IsValid(); }
  // The system's text for the error, or the refusal's text.
  std::wstring Reason() const;
};

// Why an open handle, opened by `name`, is not a plain file of the folder
// with one name, or
// kNone when it is. For handles opened some other way than OpenPlainFile
// (with FILE_FLAG_OPEN_REPARSE_POINT and FILE_READ_ATTRIBUTES); raises HRX
// when the handle cannot be examined.
EntryRefusal ExamineEntry(const CFolder& folder, const std::wstring& name, HANDLE file);

// Opens `name` inside the folder without following a link at its place, and
// keeps the handle only when it holds a plain file of the folder with one
// name. `disposition` may create the file (OPEN_ALWAYS, CREATE_NEW). The
// handle always carries FILE_READ_ATTRIBUTES, which the checks need.
PlainFile OpenPlainFile(const CFolder& folder, const std::wstring& name, DWORD access, DWORD share,
                        DWORD disposition, DWORD flagsAndAttributes = FILE_ATTRIBUTE_NORMAL);

// Deletes the open file (it needs DELETE access). Where the system offers it
// the name goes at once, even while another process holds the file with
// delete sharing, and a read-only attribute is no hindrance; elsewhere the
// read-only attribute is cleared through the handle (FILE_WRITE_ATTRIBUTES)
// and the classic delete-on-close is set. False with the thread's last error
// on failure.
bool DeleteByHandle(HANDLE file) noexcept;

// Renames the open file (it needs DELETE access) to `newPath`, a full path in
// the same volume; an existing file is replaced only when `bReplace`. False
// with the thread's last error on failure.
bool RenameByHandle(HANDLE file, const std::wstring& newPath, bool bReplace) noexcept;

}  // namespace Kestrel
