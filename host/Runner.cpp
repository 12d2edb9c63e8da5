#include "Runner.h"

#include <cstdarg>
#include <cstdio>

#include "Config.h"
#include "ModuleHost.h"

namespace Host {

void Say(const char* format, ...) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  std::printf("[%02u:%02u:%02u] ", now.wHour, now.wMinute, now.wSecond);
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::printf("\n");
  std::fflush(stdout);
}

int RunComponents(ModuleHost& host, const Config& config, HANDLE stopEvent, std::optional<DWORD> forSeconds) {
  ComponentRef<IVHConfigurable> watcher;
  ComponentRef<IVHConfigurable> watchdog;
  ComponentRef<IVHConfigurable> packer;
  int exitCode = 0;
  try {
    if (config.watcher) {
      watcher = host.Create<IVHConfigurable>(WatchDog64::CLSID_FreeSpaceWatcher, L"free-space watcher");
      const Node node = config.WatcherNode();
      Check(watcher->Configure(node.Get()), L"configuring the free-space watcher");
      Say("free-space watcher: watching %zu group(s)", config.watcher->groups.size());
    }
    if (config.watchdog) {
      watchdog = host.Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog, L"watchdog");
      const Node node = config.WatchdogNode();
      Check(watchdog->Configure(node.Get()), L"configuring the watchdog");
      Say("watchdog: heartbeat every %lld s", static_cast<long long>(config.watchdog->Find(L"RefreshIntervalSeconds")->number));
    }
    if (config.packer) {
      packer = host.Create<IVHConfigurable>(WatchDog64::CLSID_LogPacker, L"log packer");
      const Node node = config.PackerNode();
      Check(packer->Configure(node.Get()), L"configuring the log packer");
      Say("log packer: packing %s every %lld s", Narrow(config.packer->settings.Find(L"LogsDirectoryPath")->text).c_str(),
          static_cast<long long>(config.packer->packIntervalSeconds));
    }

    const ULONGLONG started = GetTickCount64();
    ULONGLONG nextPack = started;
    for (;;) {
      const ULONGLONG now = GetTickCount64();
      if (packer && now >= nextPack) {
        auto processor = packer.As<IVHRequestProcessor>();
        Node request;
        request.SetName(L"PackLogs");
        HVHNODE response = nullptr;
        const HRESULT hr = processor->ProcessRequest(request.Get(), &response);
        if (response != nullptr) VhnCloseNodeHandle(response);
        if (FAILED(hr)) {
          Say("log packer: %s", Narrow(HostError(hr, L"packing logs").Text()).c_str());
        } else {
          Say("log packer: pack run finished");
        }
        nextPack = now + static_cast<ULONGLONG>(config.packer->packIntervalSeconds) * 1000;
      }
      ULONGLONG wait = packer ? nextPack - now : INFINITE;
      if (forSeconds) {
        const ULONGLONG end = started + static_cast<ULONGLONG>(*forSeconds) * 1000;
        if (now >= end) break;
        wait = std::min(wait, end - now);
      }
      if (WaitForSingleObject(stopEvent, static_cast<DWORD>(std::min<ULONGLONG>(wait, INFINITE - 1))) ==
          WAIT_OBJECT_0) {
        break;
      }
    }
  } catch (const HostError& error) {
    Say("%s", Narrow(error.Text()).c_str());
    exitCode = 1;
  }

  // The watcher and the watchdog stop their workers before they go; the log
  // packer goes last, and its release also ends the watchdog's worker.
  if (watcher) {
    watcher.As<IVHShutdownable>()->Shutdown();
    watcher.Reset();
    Say("free-space watcher: stopped");
  }
  if (watchdog) {
    watchdog.As<IVHShutdownable>()->Shutdown();
    watchdog.Reset();
    Say("watchdog: stopped");
  }
  packer.Reset();
  return exitCode;
}

}  // namespace Host
