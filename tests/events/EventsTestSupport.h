#pragma once
// Shared by the event tests: settings put in place before the process-wide
// event objects are first used, file reading and the module log.

#include <windows.h>

#include <string>

namespace EventsTest {

// The environment names the source over the INI file; the log name comes
// from the INI file only.
inline constexpr wchar_t kSourceName[] = L"Vigil Hub Tests";
inline constexpr wchar_t kIniLogName[] = L"Kestrel Tests Log";

// This process's own directory under the temp directory, with a separator.
const std::wstring& TempDirectory();
// The file the process-wide events file writer appends to.
inline std::wstring EventsFilePath() { return TempDirectory() + L"events.log"; }
// Where the test program and the message files are built.
std::wstring BinDirectory();

// The whole file as UTF-16 text; empty when it does not exist.
std::wstring ReadUtf16File(const std::wstring& path);

// Text the module log received since construction.
class CModuleLogTail {
 public:
  CModuleLogTail();
  std::wstring NewText() const;

 private:
  std::wstring m_sPath;
  std::size_t m_nStart;
};

}  // namespace EventsTest
