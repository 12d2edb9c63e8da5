#include "demo/Demo.h"

#include <windows.h>
#include <tlhelp32.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "config/Config.h"
#include "module/EventSourceRegistration.h"
#include "module/HostHandles.h"
#include "module/ModuleHost.h"
#include "module/ModuleSettings.h"
#include "platform/ModulePath.h"
#include "requests/Requests.h"
#include "service/Service.h"

namespace Host {

namespace {

namespace fs = std::filesystem;

constexpr wchar_t kDemoService[] = L"WatchDog64Demo";

void Heading(const char* text) { std::printf("\n== %s\n", text); }

DWORD ServiceState(SC_HANDLE service) {
  SERVICE_STATUS status{};
  return QueryServiceStatus(service, &status) ? status.dwCurrentState : 0;
}

// The demonstration service: this program again, as a service that only
// waits to be stopped.
ScHandle StartDemoService(SC_HANDLE manager) {
  const std::wstring command = L"\"" + Kestrel::ExecutableFilePath() + L"\" demo-service";
  ScHandle service(OpenServiceW(manager, kDemoService, SERVICE_ALL_ACCESS));
  if (!service) {
    service.Reset(CreateServiceW(manager, kDemoService, L"WatchDog64 demonstration service", SERVICE_ALL_ACCESS,
                                 SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                 command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
  }
  if (!service) Check(HRESULT_FROM_WIN32(GetLastError()), L"creating the demonstration service");
  if (ServiceState(service.Get()) != SERVICE_RUNNING && !StartServiceW(service.Get(), 0, nullptr)) {
    Check(HRESULT_FROM_WIN32(GetLastError()), L"starting the demonstration service");
  }
  for (int i = 0; i < 100 && ServiceState(service.Get()) != SERVICE_RUNNING; ++i) Sleep(100);
  return service;
}

std::int64_t FreeBytes(const std::wstring& path) {
  ULARGE_INTEGER available{};
  if (!GetDiskFreeSpaceExW(path.c_str(), &available, nullptr, nullptr)) {
    Check(HRESULT_FROM_WIN32(GetLastError()), L"GetDiskFreeSpaceExW");
  }
  return static_cast<std::int64_t>(available.QuadPart);
}

int CountThreads() {
  const Handle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  int count = 0;
  for (BOOL more = Thread32First(snapshot.Get(), &entry); more; more = Thread32Next(snapshot.Get(), &entry)) {
    if (entry.th32OwnerProcessID == GetCurrentProcessId()) ++count;
  }
  return count;
}

void AgeFile(const fs::path& path, int hours) {
  const Handle file(CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  ULARGE_INTEGER time{};
  time.LowPart = now.dwLowDateTime;
  time.HighPart = now.dwHighDateTime;
  time.QuadPart -= static_cast<ULONGLONG>(hours) * 36000000000ULL;
  FILETIME old{time.LowPart, time.HighPart};
  SetFileTime(file.Get(), &old, &old, &old);
}

void WriteText(const fs::path& path, std::size_t bytes) {
  std::ofstream out(path, std::ios::binary);
  const std::string line = "2026-11-21 12:00:00.000 | INFO | 1234  5678 | Worker:42 | request served\r\n";
  for (std::size_t written = 0; written < bytes; written += line.size()) out << line;
}

void ListFolder(const fs::path& folder) {
  for (const auto& entry : fs::directory_iterator(folder)) {
    std::printf("    %-28s %10llu bytes\n", entry.path().filename().string().c_str(),
                static_cast<unsigned long long>(entry.file_size()));
  }
}

void PrintEvents(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // The module writes UTF-16 without a byte-order mark.
  const std::wstring text(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / 2);
  std::printf("%s\n", Narrow(text).c_str());
}

}  // namespace

int RunDemo() {
  const fs::path demo = fs::path(ProgramDirectory()) / L"demo";
  const fs::path logs = demo / L"logs";
  const fs::path events = demo / L"events.log";
  fs::remove_all(demo);
  fs::create_directories(logs);
  // The module reads its settings from GS_ variables when it loads.
  SetEnvironmentVariableW(L"GS_EventReporting_EventsLogFile", events.c_str());

  ModuleHost host;
  std::printf("WatchDog64 demonstration: %s\n", Narrow(host.ModulePath()).c_str());
  // Registered the way an installer does, so Event Viewer reads our texts.
  ModuleSettings settings(host.ModulePath());
  const auto source = settings.EventSource();
  const HRESULT registered = EventSourceRegistration::Register(source);
  const Config none = ParseConfig("{}", L"<demo>", host.ModuleDirectory());

  Heading("Disk manager: the machine's drives and the free space of two folders");
  PrintRequest(RunRequest(host, none, {L"ListDisks", {}, false}), false);
  PrintRequest(RunRequest(host, none, {L"QueryFreeSpace", {L"DirectoryPaths=" + demo.wstring() + L";%TEMP%"}, false}), false);

  Heading("Process manager: the running processes");
  PrintRequest(RunRequest(host, none, {L"ListProcesses", {}, false}), false);
  Heading("Process manager: services known to the service manager");
  PrintRequest(RunRequest(host, none, {L"ListServices", {}, false}), false);
  Heading("Process manager: a request to stop a service is validated, never acted on");
  PrintRequest(RunRequest(host, none, {L"StopServices", {L"Service=WatchDog64Demo|WatchDog64 demonstration service"}, false}), false);

  Heading("Free-space watcher: a stop bound above the real free space stops the group's service");
  ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  if (!manager) Check(HRESULT_FROM_WIN32(GetLastError()), L"opening the service manager");
  ScHandle service = StartDemoService(manager.Get());
  std::printf("  service %s is %s\n", Narrow(kDemoService).c_str(), StateName(ServiceState(service.Get())));
  const std::int64_t freeMb = FreeBytes(demo.wstring()) >> 20;
  std::printf("  free space in %s: %lld MB; stop bound set to %lld MB, checked every second\n",
              demo.string().c_str(), static_cast<long long>(freeMb), static_cast<long long>(freeMb + 1024));
  Config watch = none;
  watch.watcher = WatcherConfig{Section{L"/freeSpaceWatcher", {{L"ActionsPerformIntervalSec", {ValueKind::Int32, 1}}}}};
  watch.watcher->groups.push_back(Section{
      L"/freeSpaceWatcher/groups/0",
      {{L"FreeSpaceRecommendedMinimumMB", {ValueKind::Int32, freeMb + 4096}},
       {L"FreeSpaceWarningLowerBoundMB", {ValueKind::Int32, freeMb + 2048}},
       {L"FreeSpaceStopServicesLowerBoundMB", {ValueKind::Int32, freeMb + 1024}},
       {L"Paths", {ValueKind::StringList, 0, {}, {demo.wstring()}}},
       {L"ServiceNames", {ValueKind::StringList, 0, {}, {kDemoService}}}}});
  {
    auto watcher = host.Create<IVHConfigurable>(WatchDog64::CLSID_FreeSpaceWatcher, L"free-space watcher");
    const Node node = watch.WatcherNode();
    Check(watcher->Configure(node.Get()), L"configuring the free-space watcher");
    DWORD state = SERVICE_RUNNING;
    for (int i = 0; i < 150 && state != SERVICE_STOPPED; ++i) {
      Sleep(100);
      state = ServiceState(service.Get());
    }
    watcher.As<IVHShutdownable>()->Shutdown();
    std::printf("  service %s is now %s\n", Narrow(kDemoService).c_str(), StateName(state));
  }
  DeleteService(service.Get());
  std::printf("  the event the watcher raised, from %s:\n\n", events.string().c_str());
  PrintEvents(events);

  Heading("Log packer: old and large logs packed into a dated archive");
  WriteText(logs / L"service-old.log", 20 * 1024);
  AgeFile(logs / L"service-old.log", 48);
  WriteText(logs / L"service-large.log", 3 * 1024 * 1024);
  WriteText(logs / L"service-today.log", 4 * 1024);
  WriteText(logs / L"notes.txt", 1024);
  std::printf("  before (older than 24 hours or larger than 2 MB is packed):\n");
  ListFolder(logs);
  Config pack = none;
  pack.packer = PackerConfig{Section{L"/logPacker",
                                     {{L"LogsDirectoryPath", {ValueKind::String, 0, logs.wstring()}},
                                      {L"LogFileMask", {ValueKind::String, 0, L"*.log"}},
                                      {L"MaxLogFileAgeInHours", {ValueKind::Int64, 24}},
                                      {L"MaxLogFileSizeInMegabytes", {ValueKind::Int64, 2}}}}};
  PrintRequest(RunRequest(host, pack, {L"PackLogs", {}, false}), false);
  std::printf("  after:\n");
  ListFolder(logs);

  Heading("Watchdog: one heartbeat worker while configured");
  {
    const int before = CountThreads();
    auto watchdog = host.Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog, L"watchdog");
    Node node;
    node.SetInt64(L"RefreshIntervalSeconds", 1);
    Check(watchdog->Configure(node.Get()), L"configuring the watchdog");
    std::printf("  threads: %d before, %d while configured", before, CountThreads());
    watchdog.As<IVHShutdownable>()->Shutdown();
    std::printf(", %d after Shutdown\n", CountThreads());
  }

  Heading("Where to look");
  std::printf("  module log:   %sLogs\\WatchDog64.log\n", Narrow(host.ModuleDirectory()).c_str());
  std::printf("  events file:  %s\n", events.string().c_str());
  std::printf("  event source: '%s' in log '%s', message file %s: %s\n", Narrow(source.sSourceName).c_str(),
              Narrow(source.sLogName).c_str(), Narrow(source.sMessageFile).c_str(),
              SUCCEEDED(registered) ? "registered by this demonstration (wd64host eventsource unregister removes it)"
                                    : Narrow(HostError(registered, L"registering").Text()).c_str());
  return 0;
}

}  // namespace Host
