// A second process for tests that need one: each subcommand is a row of
// kCommands below, and a run without one lists them. Exit code 0 on success,
// 2 on bad arguments, 1 when the work failed.

#include <windows.h>
// After windows.h, which it needs.
#include <shellapi.h>
#include <tlhelp32.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cwchar>
#include <mutex>
#include <thread>
#include <vector>

#include "Handle.h"
#include "module/ModuleHost.h"
#include "module/Nodes.h"

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

// Holds FILE open for MS milliseconds, sharing only reading or nothing.
int HoldShared(const Arguments& args, DWORD share) {
  unsigned long ms = 0;
  if (args.count < 2 || !ParseUnsigned(args.values[1], ms)) return 2;
  const Handle file(
      ::CreateFileW(args.values[0], GENERIC_READ, share, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return 1;
  ::Sleep(ms);
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
// The module driven the way a host drives it, through wd64host's own client
// of the contract: WatchDog64.dll and DataLayer.dll loaded at run time from
// this program's folder, components made by class id. A sequence that
// crashes or ends the process shows in the exit code.

using Host::ComponentRef;
using Host::Node;

// A crash on any thread (a worker left in unmapped code) ends the process
// with exit code 4 at once, instead of waiting on a debugger.
void ExitOnCrash() {
  ::SetUnhandledExceptionFilter([](EXCEPTION_POINTERS*) -> LONG {
    std::fputs("crashed\n", stdout);
    std::fflush(stdout);
    ::TerminateProcess(::GetCurrentProcess(), 4);
    return EXCEPTION_EXECUTE_HANDLER;
  });
}

int IsLocked(Host::ModuleHost& host) {
  int locked = -1;
  host.Module()->IsLocked(&locked);
  return locked;
}

Node Interval(const wchar_t* name, bool b64) {
  Node node;
  b64 ? node.SetInt64(name, 1) : node.SetInt32(name, 1);
  return node;
}

// Runs `count` copies of `work(index)` on threads released at once.
template <typename Work>
void AtOnce(int count, Work work) {
  // Not std::latch: this toolchain's libstdc++ builds it on a proxy wait that
  // can miss its wake-up (about one run in ten here), leaving a thread asleep.
  std::mutex lock;
  std::condition_variable arrived;
  int waiting = count;
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      {
        std::unique_lock<std::mutex> guard(lock);
        if (--waiting == 0) arrived.notify_all();
        arrived.wait(guard, [&] { return waiting == 0; });
      }
      work(i);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

unsigned CountOwnThreads() {
  unsigned count = 0;
  const Handle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  THREADENTRY32 entry{};
  entry.dwSize = sizeof(entry);
  for (BOOL more = ::Thread32First(snapshot.Get(), &entry); more; more = ::Thread32Next(snapshot.Get(), &entry)) {
    if (entry.th32OwnerProcessID == ::GetCurrentProcessId()) ++count;
  }
  return count;
}

// A watcher configured again while it runs, and again after Shutdown, and
// one configured from eight threads at once; prints each result.
int HostReconfigure(const Arguments&) {
  ExitOnCrash();
  Host::ModuleHost host;
  const Node config = Interval(L"ActionsPerformIntervalSec", false);
  {
    auto watcher = host.Create<IVHConfigurable>(WatchDog64::CLSID_FreeSpaceWatcher, L"component");
    const auto shutdown = watcher.As<IVHShutdownable>();
    std::wprintf(L"configure 0x%08lX\n", static_cast<unsigned long>(watcher->Configure(config.Get())));
    std::wprintf(L"again 0x%08lX\n", static_cast<unsigned long>(watcher->Configure(config.Get())));
    std::wprintf(L"shutdown 0x%08lX\n", static_cast<unsigned long>(shutdown->Shutdown()));
    std::wprintf(L"after shutdown 0x%08lX\n", static_cast<unsigned long>(watcher->Configure(config.Get())));
    std::wprintf(L"and again 0x%08lX\n", static_cast<unsigned long>(watcher->Configure(config.Get())));
  }
  {
    // Released without Shutdown: the release stops its worker.
    auto contested = host.Create<IVHConfigurable>(WatchDog64::CLSID_FreeSpaceWatcher, L"component");
    std::atomic<int> succeeded{0};
    AtOnce(8, [&](int) { succeeded += contested->Configure(config.Get()) == S_OK; });
    std::wprintf(L"concurrent successes %d\n", succeeded.load());
  }
  // Configure and Shutdown racing on fresh watchers, each released at once.
  std::atomic<int> unexpected{0};
  for (int round = 0; round < 20; ++round) {
    auto raced = host.Create<IVHConfigurable>(WatchDog64::CLSID_FreeSpaceWatcher, L"component");
    const auto stopper = raced.As<IVHShutdownable>();
    AtOnce(6, [&](int index) {
      const HRESULT hr = index % 2 == 0 ? raced->Configure(config.Get()) : stopper->Shutdown();
      unexpected += hr != S_OK && hr != HRESULT_FROM_WIN32(ERROR_INVALID_STATE);
    });
  }
  std::wprintf(L"raced rounds unexpected %d\n", unexpected.load());
  std::wprintf(L"locked after release %d\n", IsLocked(host));
  std::fflush(stdout);
  return 0;
}

// ROUNDS rounds of two watchdog components configured at once from two
// threads, every third round with a Shutdown racing them; prints how many
// worker threads run afterwards.
int HostWatchdogs(const Arguments& args) {
  unsigned long rounds = 0;
  if (args.count < 1 || !ParseUnsigned(args.values[0], rounds)) return 2;
  ExitOnCrash();
  Host::ModuleHost host;
  const Node config = Interval(L"RefreshIntervalSeconds", true);
  const ComponentRef<IVHConfigurable> dogs[2] = {host.Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog, L"dog 1"),
                                                 host.Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog, L"dog 2")};
  const auto stopper = host.Create<IVHShutdownable>(WatchDog64::CLSID_WatchDog, L"component");
  const unsigned baseline = CountOwnThreads();
  std::atomic<int> failures{0};
  for (unsigned long round = 0; round < rounds; ++round) {
    AtOnce(round % 3 == 2 ? 3 : 2, [&](int index) {
      failures += (index < 2 ? dogs[index]->Configure(config.Get()) : stopper->Shutdown()) != S_OK;
    });
  }
  // The last round may have ended with the Shutdown; one more Configure
  // leaves a worker running for sure.
  failures += dogs[0]->Configure(config.Get()) != S_OK;
  const unsigned running = CountOwnThreads() - baseline;
  stopper->Shutdown();
  std::wprintf(L"failures %d workers %u after shutdown %u\n", failures.load(), running, CountOwnThreads() - baseline);
  std::fflush(stdout);
  return 0;
}

// A host that unloads the library as soon as IsLocked reports 0: first after
// releasing a running watcher, then after releasing a configured watchdog
// without Shutdown (its worker keeps the lock until it is stopped).
int HostUnload(const Arguments&) {
  ExitOnCrash();
  Host::ModuleHost host;
  auto waitUnlocked = [&](DWORD limitMs) {
    for (const DWORD start = ::GetTickCount(); IsLocked(host) != 0; ::Sleep(5)) {
      if (::GetTickCount() - start > limitMs) return false;
    }
    return true;
  };
  {
    auto watcher = host.Create<IVHConfigurable>(WatchDog64::CLSID_FreeSpaceWatcher, L"component");
    if (watcher->Configure(Interval(L"ActionsPerformIntervalSec", false).Get()) != S_OK) return 1;
  }
  std::wprintf(L"watcher released, locked %d\n", IsLocked(host));
  {
    auto dog = host.Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog, L"component");
    if (dog->Configure(Interval(L"RefreshIntervalSeconds", true).Get()) != S_OK) return 1;
  }
  if (waitUnlocked(1000)) {
    std::wprintf(L"unlocked while the worker runs\n");
  } else {
    std::wprintf(L"locked while the worker runs\n");
    host.Create<IVHShutdownable>(WatchDog64::CLSID_WatchDog, L"component")->Shutdown();
    if (!waitUnlocked(10000)) return 3;
  }
  std::fflush(stdout);
  ::FreeLibrary(::GetModuleHandleW(host.ModulePath().c_str()));
  // Long enough for a worker left in unmapped code to crash the process.
  ::Sleep(500);
  std::wprintf(L"unloaded and alive\n");
  std::fflush(stdout);
  return 0;
}

// Opened anew while a packer or another writer holds the file for a moment:
// a refused open is retried, so no line is dropped.
Handle OpenForAppend(const wchar_t* path) {
  for (;;) {
    Handle file(::CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file || (::GetLastError() != ERROR_SHARING_VIOLATION && ::GetLastError() != ERROR_ACCESS_DENIED)) return file;
    ::Sleep(1);
  }
}

// Appends "PREFIX N" lines for N = 0..COUNT-1, a millisecond apart: "keep"
// holds one handle (sharing read, write and delete) and reopens it every 5 s,
// "line" opens the file for every line.
int Append(const Arguments& args) {
  unsigned long count = 0;
  if (args.count < 4 || !ParseUnsigned(args.values[2], count)) return 2;
  const bool keep = std::wcscmp(args.values[3], L"keep") == 0;
  if (!keep && std::wcscmp(args.values[3], L"line") != 0) return 2;
  Handle file;
  DWORD opened = 0;
  for (unsigned long i = 0; i < count; ++i, ::Sleep(1)) {
    if (!file || !keep || ::GetTickCount() - opened >= 5000) {
      file = OpenForAppend(args.values[0]);
      if (!file) return 1;
      opened = ::GetTickCount();
    }
    char line[160];
    const int length = std::snprintf(line, sizeof(line), "%ls %lu\r\n", args.values[1], i);
    DWORD written = 0;
    if (!::WriteFile(file.Get(), line, static_cast<DWORD>(length), &written, nullptr) || written != DWORD(length)) {
      return 1;
    }
    if (!keep) file.Reset();
  }
  return 0;
}

struct Command {
  const wchar_t* name;
  const wchar_t* usage;
  int (*run)(const Arguments& args);
};

const Command kCommands[] = {
    {L"hold", L"hold FILE MS               holds FILE open without write sharing", &Hold},
    {L"lock", L"lock FILE MS               holds FILE open with no sharing at all", &Lock},
    {L"sleep", L"sleep MS                   sleeps, then exits with 0", &SleepFor},
    {L"host-reconfigure", L"host-reconfigure           a watcher configured again while it runs", &HostReconfigure},
    {L"host-watchdogs", L"host-watchdogs ROUNDS      watchdogs configured from threads at once", &HostWatchdogs},
    {L"host-unload", L"host-unload                unloads the module once IsLocked reports 0", &HostUnload},
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
  const LocalMemory owned(::CommandLineToArgvW(::GetCommandLineW(), &argc));
  wchar_t** argv = static_cast<wchar_t**>(owned.Get());
  if (argv == nullptr || argc < 2) return Usage();
  for (const Command& command : kCommands) {
    if (std::wcscmp(argv[1], command.name) != 0) continue;
    try {
      return command.run(Arguments{argc - 2, argv + 2});
    } catch (const Host::HostError& error) {
      std::fwprintf(stderr, L"%ls\n", error.Text().c_str());
      return 1;
    }
  }
  return Usage();
}
