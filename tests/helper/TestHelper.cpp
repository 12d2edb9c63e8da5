// A second process for tests that need one. Each subcommand is one entry in
// the table below:
//
//   test_helper hold FILE MS          holds FILE open without write sharing
//   test_helper lock FILE MS          holds FILE open with no sharing at all
//   test_helper sleep MS              sleeps, then exits with 0
//   test_helper host-reconfigure      a watcher configured again while it runs
//   test_helper host-watchdogs ROUNDS watchdogs configured from threads at once
//   test_helper host-unload           unloads the module once IsLocked reports 0
//   test_helper append FILE PREFIX COUNT keep|line
//                                     appends "PREFIX N" lines 0..COUNT-1, a
//                                     millisecond apart: "keep" holds one
//                                     handle (read/write/delete sharing) and
//                                     reopens it every 5 s, "line" opens the
//                                     file for every line; a refused open is
//                                     retried, so no line is dropped
//
// Exit code 0 on success, 2 on bad arguments, 1 when the work failed.

#include <windows.h>
// After windows.h, which it needs.
#include <shellapi.h>
#include <tlhelp32.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "components/ComponentInterfaces.h"

namespace {

struct Arguments {
  int count;
  wchar_t** values;
};

bool ParseUnsigned(const wchar_t* text, unsigned long& value) {
  wchar_t* end = nullptr;
  value = std::wcstoul(text, &end, 10);
  return end != text && *end == L'\0';
}

int HoldShared(const Arguments& args, DWORD share) {
  unsigned long ms = 0;
  if (args.count < 2 || !ParseUnsigned(args.values[1], ms)) return 2;
  HANDLE file = ::CreateFileW(args.values[0], GENERIC_READ, share, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return 1;
  ::Sleep(ms);
  ::CloseHandle(file);
  return 0;
}

int Hold(const Arguments& args) { return HoldShared(args, FILE_SHARE_READ); }
int Lock(const Arguments& args) { return HoldShared(args, 0); }

int SleepFor(const Arguments& args) {
  unsigned long ms = 0;
  if (args.count < 1 || !ParseUnsigned(args.values[0], ms)) return 2;
  ::Sleep(ms);
  return 0;
}

// Host sequences ------------------------------------------------------------
// The module driven the way a host drives it: WatchDog64.dll and DataLayer.dll
// loaded at run time from this program's folder, components made by class
// id. A sequence that crashes or ends the process shows in the exit code.

struct DataLayerApi {
  decltype(&VhnCreateNode) createNode = nullptr;
  decltype(&VhnSetAttribute) setAttribute = nullptr;
  decltype(&VhnAddChild) addChild = nullptr;
  decltype(&VhnCloseNodeHandle) closeNode = nullptr;
};

struct HostModule {
  HMODULE hModule = nullptr;
  IComponentsModule* pModule = nullptr;
  DataLayerApi vhn;

  bool Load() {
    // A crash on any thread (a worker left in unmapped code) ends the process
    // with exit code 4 at once, instead of waiting on a debugger.
    ::SetUnhandledExceptionFilter([](EXCEPTION_POINTERS*) -> LONG {
      std::fputs("crashed\n", stdout);
      std::fflush(stdout);
      ::TerminateProcess(::GetCurrentProcess(), 4);
      return EXCEPTION_EXECUTE_HANDLER;
    });
    wchar_t self[MAX_PATH];
    const DWORD length = ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring folder(self, length);
    folder.erase(folder.find_last_of(L'\\') + 1);
    HMODULE dataLayer = ::LoadLibraryW((folder + L"DataLayer.dll").c_str());
    hModule = ::LoadLibraryW((folder + L"WatchDog64.dll").c_str());
    if (dataLayer == nullptr || hModule == nullptr) return false;
    vhn.createNode = reinterpret_cast<decltype(vhn.createNode)>(
        reinterpret_cast<void*>(::GetProcAddress(dataLayer, "VhnCreateNode")));
    vhn.setAttribute = reinterpret_cast<decltype(vhn.setAttribute)>(
        reinterpret_cast<void*>(::GetProcAddress(dataLayer, "VhnSetAttribute")));
    vhn.addChild =
        reinterpret_cast<decltype(vhn.addChild)>(reinterpret_cast<void*>(::GetProcAddress(dataLayer, "VhnAddChild")));
    vhn.closeNode = reinterpret_cast<decltype(vhn.closeNode)>(
        reinterpret_cast<void*>(::GetProcAddress(dataLayer, "VhnCloseNodeHandle")));
    const auto getModule = reinterpret_cast<WatchDog64::GetComponentsModuleObjectFn>(
        reinterpret_cast<void*>(::GetProcAddress(hModule, WatchDog64::kGetComponentsModuleObjectName)));
    void* object = nullptr;
    if (getModule == nullptr || getModule(&object) != S_OK || !vhn.createNode || !vhn.setAttribute || !vhn.addChild ||
        !vhn.closeNode)
      return false;
    pModule = static_cast<IComponentsModule*>(object);
    return true;
  }

  template <typename I>
  I* Create(const GUID& clsid) {
    void* object = nullptr;
    return pModule->CreateComponent(&clsid, &I::IID, &object) == S_OK ? static_cast<I*>(object) : nullptr;
  }

  int IsLocked() {
    int locked = -1;
    pModule->IsLocked(&locked);
    return locked;
  }

  // A node with one 32- or 64-bit attribute.
  HVHNODE Node(const wchar_t* name, std::uint16_t type, std::int64_t value) {
    HVHNODE node = nullptr;
    vhn.createNode(&node);
    const std::int32_t small = static_cast<std::int32_t>(value);
    if (type == VHN_TYPE_INT32) vhn.setAttribute(node, name, type, &small, sizeof(small));
    if (type == VHN_TYPE_INT64) vhn.setAttribute(node, name, type, &value, sizeof(value));
    return node;
  }
};

// Runs `count` copies of `work` on threads released at once.
template <typename Work>
void AtOnce(int count, Work work) {
  struct Start {
    HANDLE go;
    Work* work;
    int index;
  };
  HANDLE go = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  std::vector<Start> starts(static_cast<std::size_t>(count));
  std::vector<HANDLE> threads;
  for (int i = 0; i < count; ++i) {
    starts[static_cast<std::size_t>(i)] = Start{go, &work, i};
    threads.push_back(::CreateThread(
        nullptr, 0,
        [](void* parameter) -> DWORD {
          auto* start = static_cast<Start*>(parameter);
          ::WaitForSingleObject(start->go, INFINITE);
          (*start->work)(start->index);
          return 0;
        },
        &starts[static_cast<std::size_t>(i)], 0, nullptr));
  }
  ::SetEvent(go);
  for (HANDLE thread : threads) {
    ::WaitForSingleObject(thread, INFINITE);
    ::CloseHandle(thread);
  }
  ::CloseHandle(go);
}

unsigned CountOwnThreads() {
  unsigned count = 0;
  HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry{};
  entry.dwSize = sizeof(entry);
  for (BOOL more = ::Thread32First(snapshot, &entry); more; more = ::Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID == ::GetCurrentProcessId()) ++count;
  }
  ::CloseHandle(snapshot);
  return count;
}

// A watcher configured again while it runs, and again after Shutdown, and
// one configured from eight threads at once; prints each result.
int HostReconfigure(const Arguments&) {
  HostModule host;
  if (!host.Load()) return 1;
  HVHNODE config = host.Node(L"ActionsPerformIntervalSec", VHN_TYPE_INT32, 1);
  auto* watcher = host.Create<IVHConfigurable>(WatchDog64::CLSID_FreeSpaceWatcher);
  IVHShutdownable* shutdown = nullptr;
  if (watcher == nullptr || watcher->QueryInterface(&IVHShutdownable::IID, reinterpret_cast<void**>(&shutdown)) != S_OK)
    return 1;
  std::wprintf(L"configure 0x%08lX\n", static_cast<unsigned long>(watcher->Configure(config)));
  std::wprintf(L"again 0x%08lX\n", static_cast<unsigned long>(watcher->Configure(config)));
  std::wprintf(L"shutdown 0x%08lX\n", static_cast<unsigned long>(shutdown->Shutdown()));
  std::wprintf(L"after shutdown 0x%08lX\n", static_cast<unsigned long>(watcher->Configure(config)));
  std::wprintf(L"and again 0x%08lX\n", static_cast<unsigned long>(watcher->Configure(config)));
  shutdown->Release();
  watcher->Release();

  auto* contested = host.Create<IVHConfigurable>(WatchDog64::CLSID_FreeSpaceWatcher);
  if (contested == nullptr) return 1;
  std::atomic<int> succeeded{0};
  AtOnce(8, [&](int) {
    if (contested->Configure(config) == S_OK) ++succeeded;
  });
  std::wprintf(L"concurrent successes %d\n", succeeded.load());
  contested->Release();  // without Shutdown: the release stops its worker

  // Configure and Shutdown racing on fresh watchers, each released at once.
  int unexpected = 0;
  for (int round = 0; round < 20; ++round) {
    auto* raced = host.Create<IVHConfigurable>(WatchDog64::CLSID_FreeSpaceWatcher);
    IVHShutdownable* stopper = nullptr;
    if (raced == nullptr || raced->QueryInterface(&IVHShutdownable::IID, reinterpret_cast<void**>(&stopper)) != S_OK)
      return 1;
    std::atomic<int> bad{0};
    AtOnce(6, [&](int index) {
      const HRESULT hr = index % 2 == 0 ? raced->Configure(config) : stopper->Shutdown();
      if (hr != S_OK && hr != HRESULT_FROM_WIN32(ERROR_INVALID_STATE)) ++bad;
    });
    unexpected += bad.load();
    stopper->Release();
    raced->Release();
  }
  std::wprintf(L"raced rounds unexpected %d\n", unexpected);
  host.vhn.closeNode(config);
  std::wprintf(L"locked after release %d\n", host.IsLocked());
  std::fflush(stdout);
  return 0;
}

// ROUNDS rounds of two watchdog components configured at once from two
// threads, every third round with a Shutdown racing them; prints how many
// worker threads run afterwards.
int HostWatchdogs(const Arguments& args) {
  unsigned long rounds = 0;
  if (args.count < 1 || !ParseUnsigned(args.values[0], rounds)) return 2;
  HostModule host;
  if (!host.Load()) return 1;
  HVHNODE config = host.Node(L"RefreshIntervalSeconds", VHN_TYPE_INT64, 1);
  IVHConfigurable* dogs[2] = {host.Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog),
                              host.Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog)};
  IVHShutdownable* stopper = host.Create<IVHShutdownable>(WatchDog64::CLSID_WatchDog);
  if (dogs[0] == nullptr || dogs[1] == nullptr || stopper == nullptr) return 1;
  const unsigned baseline = CountOwnThreads();
  std::atomic<int> failures{0};
  for (unsigned long round = 0; round < rounds; ++round) {
    AtOnce(round % 3 == 2 ? 3 : 2, [&](int index) {
      const HRESULT hr = index < 2 ? dogs[index]->Configure(config) : stopper->Shutdown();
      if (hr != S_OK) ++failures;
    });
  }
  // The last round may have ended with the Shutdown; one more Configure
  // leaves a worker running for sure.
  if (dogs[0]->Configure(config) != S_OK) ++failures;
  const unsigned running = CountOwnThreads() - baseline;
  stopper->Shutdown();
  const unsigned afterShutdown = CountOwnThreads() - baseline;
  std::wprintf(L"failures %d workers %u after shutdown %u\n", failures.load(), running, afterShutdown);
  dogs[0]->Release();
  dogs[1]->Release();
  stopper->Release();
  host.vhn.closeNode(config);
  std::fflush(stdout);
  return 0;
}

// A host that unloads the library as soon as IsLocked reports 0: first after
// releasing a running watcher, then after releasing a configured watchdog
// without Shutdown (its worker keeps the lock until it is stopped).
int HostUnload(const Arguments&) {
  HostModule host;
  if (!host.Load()) return 1;
  auto waitUnlocked = [&](DWORD limitMs) {
    const DWORD start = ::GetTickCount();
    while (host.IsLocked() != 0) {
      if (::GetTickCount() - start > limitMs) return false;
      ::Sleep(5);
    }
    return true;
  };

  HVHNODE watcherConfig = host.Node(L"ActionsPerformIntervalSec", VHN_TYPE_INT32, 1);
  auto* watcher = host.Create<IVHConfigurable>(WatchDog64::CLSID_FreeSpaceWatcher);
  if (watcher == nullptr || watcher->Configure(watcherConfig) != S_OK) return 1;
  watcher->Release();
  host.vhn.closeNode(watcherConfig);
  std::wprintf(L"watcher released, locked %d\n", host.IsLocked());

  HVHNODE config = host.Node(L"RefreshIntervalSeconds", VHN_TYPE_INT64, 1);
  auto* dog = host.Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog);
  if (dog == nullptr || dog->Configure(config) != S_OK) return 1;
  dog->Release();
  if (waitUnlocked(1000)) {
    std::wprintf(L"unlocked while the worker runs\n");
  } else {
    std::wprintf(L"locked while the worker runs\n");
    auto* stopper = host.Create<IVHShutdownable>(WatchDog64::CLSID_WatchDog);
    if (stopper == nullptr) return 1;
    stopper->Shutdown();
    stopper->Release();
    if (!waitUnlocked(10000)) return 3;
  }
  host.vhn.closeNode(config);
  std::fflush(stdout);
  ::FreeLibrary(host.hModule);
  // Long enough for a worker left in unmapped code to crash the process.
  ::Sleep(500);
  std::wprintf(L"unloaded and alive\n");
  std::fflush(stdout);
  return 0;
}

HANDLE OpenForAppend(const wchar_t* path) {
  for (;;) {
    HANDLE file = ::CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != INVALID_HANDLE_VALUE) return file;
    if (::GetLastError() != ERROR_SHARING_VIOLATION && ::GetLastError() != ERROR_ACCESS_DENIED) return file;
    ::Sleep(1);
  }
}

int Append(const Arguments& args) {
  unsigned long count = 0;
  if (args.count < 4 || !ParseUnsigned(args.values[2], count)) return 2;
  const bool keep = std::wcscmp(args.values[3], L"keep") == 0;
  if (!keep && std::wcscmp(args.values[3], L"line") != 0) return 2;
  HANDLE file = INVALID_HANDLE_VALUE;
  DWORD opened = 0;
  for (unsigned long i = 0; i < count; ++i) {
    if (file == INVALID_HANDLE_VALUE || !keep || ::GetTickCount() - opened >= 5000) {
      if (file != INVALID_HANDLE_VALUE) ::CloseHandle(file);
      file = OpenForAppend(args.values[0]);
      if (file == INVALID_HANDLE_VALUE) return 1;
      opened = ::GetTickCount();
    }
    char line[160];
    const int length = std::snprintf(line, sizeof(line), "%ls %lu\r\n", args.values[1], i);
    DWORD written = 0;
    if (!::WriteFile(file, line, static_cast<DWORD>(length), &written, nullptr) || written != DWORD(length)) return 1;
    if (!keep) {
      ::CloseHandle(file);
      file = INVALID_HANDLE_VALUE;
    }
    ::Sleep(1);
  }
  if (file != INVALID_HANDLE_VALUE) ::CloseHandle(file);
  return 0;
}

struct Command {
  const wchar_t* name;
  const wchar_t* usage;
  int (*run)(const Arguments& args);
};

const Command kCommands[] = {
    {L"hold", L"hold FILE MS", &Hold},
    {L"lock", L"lock FILE MS", &Lock},
    {L"sleep", L"sleep MS", &SleepFor},
    {L"host-reconfigure", L"host-reconfigure", &HostReconfigure},
    {L"host-watchdogs", L"host-watchdogs ROUNDS", &HostWatchdogs},
    {L"host-unload", L"host-unload", &HostUnload},
    {L"append", L"append FILE PREFIX COUNT keep|line", &Append},
};

int Usage() {
  std::fwprintf(stderr, L"usage:\n");
  for (const Command& command : kCommands) std::fwprintf(stderr, L"  test_helper %ls\n", command.usage);
  return 2;
}

}  // namespace

int main() {
  int argc = 0;
  wchar_t** argv = ::CommandLineToArgvW(::GetCommandLineW(), &argc);
  if (argv == nullptr || argc < 2) return Usage();
  int result = -1;
  for (const Command& command : kCommands) {
    if (std::wcscmp(argv[1], command.name) == 0) {
      result = command.run(Arguments{argc - 2, argv + 2});
      break;
    }
  }
  ::LocalFree(argv);
  return result == -1 ? Usage() : result;
}
