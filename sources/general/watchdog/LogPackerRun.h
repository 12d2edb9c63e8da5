#pragma once
// One pack run over a logs folder. Only plain files of the folder are taken,
// each through a handle checked to hold one (platform/PlainFile.h). A file is
// deleted only once the archive holding it is closed and has its final name;
// until then the archive is a temporary file that no reader takes for an
// archive. A lock file inside the folder keeps two runs apart, whatever
// account or path to the folder each uses.

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Path.h"

namespace Kestrel {

struct LogPackerSettings {
  CPath logsDirectory;
  CPath fileMask;
  std::uint64_t maxAgeInHours;
  std::uint64_t maxSizeInMegabytes;
  // Retention of the packer's archives; 0 keeps them all.
  std::uint64_t maxArchiveAgeInDays = 0;
  std::uint64_t maxArchivesTotalSizeInMegabytes = 0;
  // Counts the archives left after the run, also without a retention limit.
  bool bCountArchives = false;
};

// What a run did.
struct PackReport {
  struct Packed {
    std::wstring name;
    std::uint64_t bytes;
  };
  struct Skipped {
    std::wstring name;
    std::wstring reason;  // the text of its warning line
  };
  std::wstring archivePath;      // empty when nothing was packed
  std::vector<Packed> packed;    // in the archive and deleted
  std::vector<Skipped> skipped;  // due for packing (or refused) and left on disk
  std::vector<Packed> deletedArchives;  // earlier archives beyond the retention limits
  // The packer's archives in the folder after the run: plain files under
  // its own names. Counted with a retention limit or when asked to.
  bool bArchivesCounted = false;
  std::uint64_t archives = 0;
  std::uint64_t archivesBytes = 0;
};

// Packs the folder's old and large logs, and files an earlier run moved
// aside, into a new archive; then, when the run succeeded, deletes the
// earlier archives beyond the retention limits, oldest first.
PackReport PackLogFolder(const LogPackerSettings& settings);

namespace Detail {
// How long a run waits for another run's lock, and an error the archive's
// final rename is made to fail with (0: none). Tests shorten the one and
// set the other; the scope puts the earlier values back.
struct PackRunSeam {
  DWORD lockWaitMilliseconds = 60'000;
  DWORD publishError = 0;
};
class ScopedPackRunSeam {
 public:
  explicit ScopedPackRunSeam(const PackRunSeam& seam) noexcept;
  ~ScopedPackRunSeam();
  ScopedPackRunSeam(const ScopedPackRunSeam&) = delete;
  ScopedPackRunSeam& operator=(const ScopedPackRunSeam&) = delete;

 private:
  PackRunSeam m_previous;
};
}  // namespace Detail

}  // namespace Kestrel
