#pragma once
// Writes a new zip archive, one deflated entry per whole file. Every failure
// of the zip library is logged with its return code and raised as E_FAIL.

#include <cstdint>
#include <memory>
#include <string>

#include "Path.h"

namespace Kestrel {

class CZipArchive {
 public:
  // Creates the archive file, replacing one of the same name.
  explicit CZipArchive(const CPath& archivePath);
  // Closes the archive when Close was not called. Raises a failed close like
  // Close does, except while an earlier exception unwinds the stack: then the
  // failure is logged only, so the first error is the one that travels.
  ~CZipArchive() noexcept(false);
  CZipArchive(const CZipArchive&) = delete;
  CZipArchive& operator=(const CZipArchive&) = delete;

  // Adds the whole source file as one entry named `entryName`.
  void Write(const CPath& sourcePath, const CPath& entryName);
  // Writes the central directory and closes the file; later calls do nothing.
  void Close();

  const CPath& ArchivePath() const noexcept { return m_archivePath; }

 private:
  void CloseArchive(bool bRaise);

  CPath m_archivePath;
  void* m_hZip = nullptr;
  int m_nUncaughtAtCreation;
};

namespace Detail {
// The largest file one entry takes: the whole file goes to the library in one
// call with a 32-bit length, and the entries carry 32-bit sizes, in which
// 0xFFFFFFFF already means "see the 64-bit extension".
constexpr std::uint64_t kMaxZipEntryBytes = 0xFFFFFFFEull;

// A whole file in one buffer of exactly its size.
struct FileContents {
  std::unique_ptr<char[]> data;
  std::uint64_t size = 0;
};
// Reads a file whole; logs the read-failure lines and raises E_FAIL when the
// file cannot be read or is too large for one entry.
FileContents ReadFileContents(const CPath& path);

// The path in the system's default code page, as the zip library takes it.
std::string ToNarrow(const std::wstring& text);
}  // namespace Detail

}  // namespace Kestrel
