#pragma once
// Writes a new zip archive, one deflated entry per file, streamed in chunks,
// into a file the caller has created and keeps open: the archive goes
// nowhere but through that handle. Every failure of the zip library is
// logged with its return code and raised as E_FAIL.

#include <windows.h>

#include <cstdint>
#include <string>


namespace Kestrel {

class CZipArchive {
 public:
  // Starts the archive at the current position of `file` (open for reading
  // and writing, empty). The handle stays the caller's and must outlive the
  // archive; `shownPath` only names it in log lines.
  CZipArchive(HANDLE file, std::wstring shownPath);
  // Closes the archive when Close was not called. Raises a failed close like
  // Close does, except while an earlier exception unwinds the stack: then the
  // failure is logged only, so the first error is the one that travels.
  ~CZipArchive() noexcept(false);
  CZipArchive(const CZipArchive&) = delete;
  CZipArchive& operator=(const CZipArchive&) = delete;

  // Adds what `source` (open for reading, at its start) holds as one entry
  // named `entryName`, reading it in chunks until its end. `expectedSize`
  // only decides whether the entry needs the 64-bit extension. Returns false
  // when reading the source failed: the entry is then finished short, the
  // read failure logged, and the caller must not count the file as packed.
  // A failure of the archive itself raises HRX.
  bool Write(HANDLE source, const std::wstring& sourcePath, const std::wstring& entryName, std::uint64_t expectedSize);
  // Writes the central directory; later calls do nothing. The file stays open.
  void Close();

 private:
  void CloseArchive(bool bRaise);

  std::wstring m_archivePath;
  void* m_hZip = nullptr;
  int m_nUncaughtAtCreation;
};

namespace Detail {
// Entries from this size on carry the 64-bit extension; the margin covers
// deflate's worst-case growth of incompressible data past 32-bit sizes.
constexpr std::uint64_t kZip64EntryBytes = 0xFC000000ull;
// Bytes read from a source per call; the memory a file costs, whatever its size.
constexpr std::uint32_t kZipChunkBytes = 1u << 20;
// General-purpose flag bit 11: the entry name is UTF-8.
constexpr unsigned long kZipUtf8NameFlag = 1ul << 11;

// An entry name as the archive stores it: in the default code page when that
// holds it exactly, otherwise in UTF-8 (and `bUtf8` is set).
std::string EntryNameBytes(const std::wstring& name, bool& bUtf8);
}  // namespace Detail

}  // namespace Kestrel
