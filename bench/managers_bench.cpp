// Cost of "ListProcesses" and "ListServices" next to the bare system calls
// they wrap: the framework and the node building should add little.
// Usage: managers_bench [rounds] [sleeping children, started from test_helper.exe]

#include <windows.h>
#include <psapi.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

#include "DataLayer/NodePtr.h"
#include "platform/ModulePath.h"
#include "components/ComponentsCommon.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Pair {
  double component;
  double bare;
};

// Microseconds per call of both, the two alternating round by round so the
// load of a shared machine falls on both alike; the best of three batches.
Pair MeasureMicros(int rounds, const std::function<void()>& component, const std::function<void()>& bare) {
  Pair best{1e300, 1e300};
  for (int batch = 0; batch < 3; ++batch) {
    Clock::duration componentTime{};
    Clock::duration bareTime{};
    for (int round = 0; round < rounds; ++round) {
      const auto start = Clock::now();
      component();
      const auto middle = Clock::now();
      bare();
      bareTime += Clock::now() - middle;
      componentTime += middle - start;
    }
    const double componentMicros = std::chrono::duration<double, std::micro>(componentTime).count() / rounds;
    const double bareMicros = std::chrono::duration<double, std::micro>(bareTime).count() / rounds;
    if (componentMicros < best.component) best.component = componentMicros;
    if (bareMicros < best.bare) best.bare = bareMicros;
  }
  return best;
}

// The process calls of one listing: the ids, then per process the image
// name and the creation time, each through its own open.
std::size_t BareProcessListing() {
  std::vector<DWORD> ids(64);
  DWORD returned = 0;
  DWORD bytes = static_cast<DWORD>(ids.size() * sizeof(DWORD));
  ::K32EnumProcesses(ids.data(), bytes, &returned);
  while (returned == bytes) {
    ids.resize(ids.size() * 2);
    bytes = static_cast<DWORD>(ids.size() * sizeof(DWORD));
    ::K32EnumProcesses(ids.data(), bytes, &returned);
  }
  ids.resize(returned / sizeof(DWORD));
  std::size_t listed = 0;
  for (const DWORD id : ids) {
    if ((id & 0xFFFFFFFBu) == 0) continue;
    HANDLE process = ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, id);
    if (process == nullptr) continue;
    wchar_t path[MAX_PATH];
    DWORD size = MAX_PATH;
    ::QueryFullProcessImageNameW(process, 0, path, &size);
    ::CloseHandle(process);
    process = ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, id);
    if (process == nullptr) continue;
    FILETIME creation, exit, kernel, user;
    ::GetProcessTimes(process, &creation, &exit, &kernel, &user);
    ::CloseHandle(process);
    ++listed;
  }
  return listed;
}

std::size_t BareServiceListing() {
  SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ENUMERATE_SERVICE);
  if (manager == nullptr) return 0;
  DWORD needed = 0;
  DWORD count = 0;
  std::vector<ENUM_SERVICE_STATUSW> entries;
  BOOL ok = ::EnumServicesStatusW(manager, 0x3B, SERVICE_STATE_ALL, nullptr, 0, &needed, &count, nullptr);
  while (!ok && ::GetLastError() == ERROR_MORE_DATA) {
    entries.resize(needed / sizeof(ENUM_SERVICE_STATUSW) + 1);
    ok = ::EnumServicesStatusW(manager, 0x3B, SERVICE_STATE_ALL, entries.data(),
                               static_cast<DWORD>(entries.size() * sizeof(ENUM_SERVICE_STATUSW)), &needed, &count,
                               nullptr);
  }
  ::CloseServiceHandle(manager);
  return count;
}

// One request as the host makes it, the response released afterwards.
std::size_t Request(IVHRequestProcessor* processor, const wchar_t* name) {
  NodePtr request;
  request.SetName(name);
  HVHNODE hResponse = nullptr;
  if (processor->ProcessRequest(request.Get(), &hResponse) != S_OK) {
    std::fprintf(stderr, "%ls failed\n", name);
    std::exit(1);
  }
  const NodePtr response(hResponse);
  return response.GetChildCount();
}

// Extra processes so the listing has a realistic length; killed at the end.
std::vector<HANDLE> StartSleepers(int count) {
  std::vector<HANDLE> processes;
  const std::wstring helper = Kestrel::ModuleDirectory() + L"test_helper.exe";
  for (int index = 0; index < count; ++index) {
    std::wstring commandLine = L"\"" + helper + L"\" sleep 600000";
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(helper.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                          &info)) {
      std::fprintf(stderr, "cannot start %ls\n", helper.c_str());
      break;
    }
    ::CloseHandle(info.hThread);
    processes.push_back(info.hProcess);
  }
  ::Sleep(count > 0 ? 2000 : 0);
  return processes;
}

void StopSleepers(const std::vector<HANDLE>& processes) {
  for (HANDLE process : processes) ::TerminateProcess(process, 0);
  for (HANDLE process : processes) {
    ::WaitForSingleObject(process, 5000);
    ::CloseHandle(process);
  }
}

void Report(const char* label, std::size_t items, double component, double bare) {
  std::printf("%-14s %5zu items  component %9.1f us  system calls %9.1f us  ratio %.2f\n", label, items, component,
              bare, component / bare);
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 50;
  const std::vector<HANDLE> sleepers = StartSleepers(argc > 2 ? std::atoi(argv[2]) : 0);
  IVHRequestProcessor* processor = nullptr;
  if (GetComponentsModule().CreateComponent(&WatchDog64::CLSID_ProcessManager, &IVHRequestProcessor::IID,
                                            reinterpret_cast<void**>(&processor)) != S_OK) {
    std::fprintf(stderr, "cannot create the process manager\n");
    return 1;
  }
  // Warm both paths once so the first wineserver round trips do not count.
  BareProcessListing();
  BareServiceListing();
  Request(processor, L"ListProcesses");
  Request(processor, L"ListServices");

  std::printf("rounds %d (best of 3 batches, per call)\n", rounds);
  std::size_t processes = 0;
  const Pair processTimes = MeasureMicros(
      rounds, [&] { processes = Request(processor, L"ListProcesses"); }, [] { BareProcessListing(); });
  Report("ListProcesses", processes, processTimes.component, processTimes.bare);

  std::size_t services = 0;
  const Pair serviceTimes = MeasureMicros(
      rounds, [&] { services = Request(processor, L"ListServices"); }, [] { BareServiceListing(); });
  Report("ListServices", services, serviceTimes.component, serviceTimes.bare);

  processor->Release();
  StopSleepers(sleepers);
  return 0;
}
