#pragma once
// Running processes as records: id, image path and creation time.

#include <windows.h>

#include <cstdint>
#include <functional>
#include <optional>

#include "DataLayer/NodePtr.h"
#include "Path.h"

namespace Kestrel {

// One running process. Made from an id, it reads the image path and the
// creation time; a process that cannot be opened or queried raises HRX.
class CProcess {
 public:
  explicit CProcess(DWORD processId);

  // The same, except that a process which ended before it could be read
  // gives nothing instead of an error.
  static std::optional<CProcess> ReadIfRunning(DWORD processId);

  DWORD Id() const noexcept { return m_nProcessId; }
  const CPath& ExecutablePath() const noexcept { return m_executablePath; }
  std::uint64_t CreationTime() const noexcept { return m_nCreationTime; }  // FILETIME, UTC

 private:
  CProcess(DWORD processId, CPath executablePath, std::uint64_t creationTime)
      : m_nProcessId(processId), m_executablePath(std::move(executablePath)), m_nCreationTime(creationTime) {}

  DWORD m_nProcessId;
  CPath m_executablePath;
  std::uint64_t m_nCreationTime = 0;
};

using ProcessCallback = std::function<bool(const CProcess&)>;

class ProcessEnumerator {
 public:
  // Calls `callback` once per process in the system's order, except the idle
  // (0) and system (4) processes and those that ended before they could be
  // read, until it returns false.
  void EnumerateProcesses(const ProcessCallback& callback) const;
};

// A "Process" node named by the decimal id, with "Id" and "ExecutablePath".
NodePtr ProcessToNode(const CProcess& process);

namespace Detail {

// The system calls of a listing, replaceable so tests can present what the
// real system cannot be made to produce on demand: an exact buffer fill, a
// process that refuses access, one that ends between the calls.
struct ProcessApi {
  BOOL(WINAPI* enumProcesses)(DWORD* ids, DWORD bytes, DWORD* returned);
  HANDLE(WINAPI* openProcess)(DWORD access, BOOL inherit, DWORD processId);
  BOOL(WINAPI* queryImageName)(HANDLE process, DWORD flags, LPWSTR name, PDWORD size);
};

// Installs replacement calls for its lifetime.
class CScopedProcessApi {
 public:
  explicit CScopedProcessApi(const ProcessApi& api) noexcept;
  ~CScopedProcessApi();
  CScopedProcessApi(const CScopedProcessApi&) = delete;
  CScopedProcessApi& operator=(const CScopedProcessApi&) = delete;

 private:
  const ProcessApi* m_pPrevious;
};

}  // namespace Detail

}  // namespace Kestrel
