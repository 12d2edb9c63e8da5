#pragma once
// Running processes as records: id, image path and creation time.

#include <windows.h>

#include <cstdint>
#include <functional>

#include "DataLayer/NodePtr.h"
#include "Path.h"

namespace Kestrel {

// One running process. Made from an id, it reads the image path and the
// creation time; a process that cannot be opened or queried raises HRX.
class CProcess {
 public:
  explicit CProcess(DWORD processId);

  DWORD Id() const noexcept { return m_nProcessId; }
  const CPath& ExecutablePath() const noexcept { return m_executablePath; }
  std::uint64_t CreationTime() const noexcept { return m_nCreationTime; }  // FILETIME, UTC

 private:
  DWORD m_nProcessId;
  CPath m_executablePath;
  std::uint64_t m_nCreationTime = 0;
};

using ProcessCallback = std::function<bool(const CProcess&)>;

class ProcessEnumerator {
 public:
  // Calls `callback` once per process in the system's order, except the idle
  // (0) and system (4) processes, until it returns false.
  void EnumerateProcesses(const ProcessCallback& callback) const;
};

// A "Process" node named by the decimal id, with "Id" and "ExecutablePath".
NodePtr ProcessToNode(const CProcess& process);

namespace Detail {

// The process-id call, replaceable so tests can present id lists the real
// system cannot be made to produce (an exact buffer fill, a vanished id).
using EnumProcessesFn = BOOL(WINAPI*)(DWORD* ids, DWORD bytes, DWORD* returned);

class ScopedEnumProcessesOverride {
 public:
  explicit ScopedEnumProcessesOverride(EnumProcessesFn replacement) noexcept;
  ~ScopedEnumProcessesOverride();
  ScopedEnumProcessesOverride(const ScopedEnumProcessesOverride&) = delete;
  ScopedEnumProcessesOverride& operator=(const ScopedEnumProcessesOverride&) = delete;

 private:
  EnumProcessesFn m_previous;
};

}  // namespace Detail

}  // namespace Kestrel
