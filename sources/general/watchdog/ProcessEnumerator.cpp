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

std::atomic<Detail::EnumProcessesFn> g_enumProcesses{&::K32EnumProcesses};

Handle OpenForQuery(DWORD processId) {
  Handle process(::OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, processId));
  if (!process) ThrowLastError();
  return process;
}

CPath QueryImagePath(DWORD processId) {
  const Handle process = OpenForQuery(processId);
  wchar_t path[MAX_PATH];
  DWORD size = MAX_PATH;
  if (!::QueryFullProcessImageNameW(process.Get(), 0, path, &size)) ThrowLastError();
  return CPath(std::wstring(path));
}

std::uint64_t QueryCreationTime(DWORD processId) {
  const Handle process = OpenForQuery(processId);
  FILETIME creation, exit, kernel, user;
  if (!::GetProcessTimes(process.Get(), &creation, &exit, &kernel, &user)) ThrowLastError();
  return (static_cast<std::uint64_t>(creation.dwHighDateTime) << 32) | creation.dwLowDateTime;
}

}  // namespace

CProcess::CProcess(DWORD processId)
    : m_nProcessId(processId), m_executablePath(QueryImagePath(processId)), m_nCreationTime(QueryCreationTime(processId)) {}

void ProcessEnumerator::EnumerateProcesses(const ProcessCallback& callback) const {
  const Detail::EnumProcessesFn enumProcesses = g_enumProcesses.load();
  DWORD nAllocated = kInitialIdCount;
  std::vector<DWORD> ids(nAllocated);
  DWORD bytesGiven = nAllocated * sizeof(DWORD);
  DWORD bytesReturned = 0;
  if (!enumProcesses(ids.data(), bytesGiven, &bytesReturned)) ThrowLastError();
  // A full buffer may have cut the list short, so it grows until one is left
  // partly empty.
  while (bytesReturned == bytesGiven) {
    WD64_ASSERT(nAllocated > 0, kSource);
    nAllocated *= 2;
    ids.resize(nAllocated);
    bytesGiven = nAllocated * sizeof(DWORD);
    if (!enumProcesses(ids.data(), bytesGiven, &bytesReturned)) ThrowLastError();
  }
  ids.resize(bytesReturned / sizeof(DWORD));
  for (const DWORD id : ids) {
    if ((id & 0xFFFFFFFBu) == 0) continue;  // the idle and system processes
    if (!callback(CProcess(id))) break;
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

ScopedEnumProcessesOverride::ScopedEnumProcessesOverride(EnumProcessesFn replacement) noexcept
    : m_previous(g_enumProcesses.exchange(replacement)) {}

ScopedEnumProcessesOverride::~ScopedEnumProcessesOverride() { g_enumProcesses.store(m_previous); }

}  // namespace Detail

}  // namespace Kestrel
