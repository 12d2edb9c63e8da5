#include "ProcessEnumerator.h"

#include <psapi.h>

#include <atomic>
#include <sstream>
#include <vector>

#include "Assert.h"
#include "ErrorHandling.h"
#include "Handle.h"

namespace Kestrel {

namespace {

constexpr wchar_t kSource[] = L"ProcessEnumerator";
constexpr DWORD kInitialIdCount = 64;

const Detail::ProcessApi kSystemApi = {&::K32EnumProcesses, &::OpenProcess, &::QueryFullProcessImageNameW};
std::atomic<const Detail::ProcessApi*> g_pApi{&kSystemApi};

[[noreturn]] void Raise(DWORD error) {
  if (error == ERROR_SUCCESS) ThrowHr(E_FAIL);
  ThrowWin32(error);
}

// Limited query access is all the two queries need, and it is granted for
// protected processes (the session manager, csrss, anti-malware services),
// which refuse full query access even to LocalSystem.
// Empty when the id no longer names a process: it ended after the listing.
// Any other refusal raises.
Handle OpenForQuery(const Detail::ProcessApi& api, DWORD processId) {
  Handle process(api.openProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
  if (!process) {
    const DWORD error = ::GetLastError();
    if (error != ERROR_INVALID_PARAMETER) Raise(error);
  }
  return process;
}

// After a failed query: true when the process has ended meanwhile (it is
// then left out); otherwise the query's error is raised.
bool EndedOrRaise(HANDLE process, DWORD error) {
  DWORD exitCode = 0;
  if (::GetExitCodeProcess(process, &exitCode) && exitCode != STILL_ACTIVE) return true;
  Raise(error);
}

}  // namespace

CProcess::CProcess(DWORD processId) : m_nProcessId(processId) {
  std::optional<CProcess> read = ReadIfRunning(processId);
  // The id names no running process, as OpenProcess says of a vanished one.
  if (!read) ThrowWin32(ERROR_INVALID_PARAMETER);
  *this = std::move(*read);
}

std::optional<CProcess> CProcess::ReadIfRunning(DWORD processId) {
  const Detail::ProcessApi& api = *g_pApi.load();
  std::wstring path;
  {
    const Handle process = OpenForQuery(api, processId);
    if (!process) return std::nullopt;
    wchar_t buffer[MAX_PATH];
    DWORD size = MAX_PATH;
    if (!api.queryImageName(process.Get(), 0, buffer, &size)) {
      if (EndedOrRaise(process.Get(), ::GetLastError())) return std::nullopt;
    }
    path = buffer;
  }
  const Handle process = OpenForQuery(api, processId);
  if (!process) return std::nullopt;
  FILETIME creation, exit, kernel, user;
  if (!::GetProcessTimes(process.Get(), &creation, &exit, &kernel, &user)) {
    if (EndedOrRaise(process.Get(), ::GetLastError())) return std::nullopt;
  }
  return CProcess(processId, CPath(path),
                  (static_cast<std::uint64_t>(creation.dwHighDateTime) << 32) | creation.dwLowDateTime);
}

void ProcessEnumerator::EnumerateProcesses(const ProcessCallback& callback) const {
  const Detail::ProcessApi& api = *g_pApi.load();
  DWORD nAllocated = kInitialIdCount;
  std::vector<DWORD> ids(nAllocated);
  DWORD bytesGiven = nAllocated * sizeof(DWORD);
  DWORD bytesReturned = 0;
  if (!api.enumProcesses(ids.data(), bytesGiven, &bytesReturned)) ThrowLastError();
  // A full buffer may have cut the list short, so it grows until one is left
  // partly empty.
  while (bytesReturned == bytesGiven) {
    WD64_ASSERT(nAllocated > 0, kSource);
    nAllocated *= 2;
    ids.resize(nAllocated);
    bytesGiven = nAllocated * sizeof(DWORD);
    if (!api.enumProcesses(ids.data(), bytesGiven, &bytesReturned)) ThrowLastError();
  }
  ids.resize(bytesReturned / sizeof(DWORD));
  for (const DWORD id : ids) {
    if ((id & 0xFFFFFFFBu) == 0) continue;  // the idle and system processes
    // A process that ended since the listing is no longer running: leaving
    // it out is the answer a moment later, not a failure.
    const std::optional<CProcess> process = CProcess::ReadIfRunning(id);
    if (process && !callback(*process)) break;
  }
}

NodePtr ProcessToNode(const CProcess& process) {
  std::wostringstream name;
  name << process.Id();
  NodePtr node;
  node.SetName(name.str());
  node.SetType(L"Process");
  const std::uint32_t id = process.Id();
  node.SetAttribute(L"Id", VHN_TYPE_INT32, &id, sizeof(id));
  node.SetAttribute(L"ExecutablePath", process.ExecutablePath().c_str());
  return node;
}

namespace Detail {

CScopedProcessApi::CScopedProcessApi(const ProcessApi& api) noexcept : m_pPrevious(g_pApi.exchange(&api)) {}

CScopedProcessApi::~CScopedProcessApi() { g_pApi.store(m_pPrevious); }

}  // namespace Detail

}  // namespace Kestrel
