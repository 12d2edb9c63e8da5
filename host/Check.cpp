#include "Check.h"

#include <cstdio>

#include "Config.h"
#include "EventSourceRegistration.h"
#include "ModuleHost.h"

namespace Host {

namespace {

// Configures a fresh component with `node` and shuts it down again.
bool TryConfigure(ModuleHost& host, const GUID& clsid, const wchar_t* what, const Node& node,
                  const std::wstring& place) {
  auto component = host.Create<IVHConfigurable>(clsid, what);
  const HRESULT hr = component->Configure(node.Get());
  const HostError error(hr, L"");  // takes the module's published description
  if (auto shutdownable = component.As<IVHShutdownable>()) shutdownable->Shutdown();
  if (SUCCEEDED(hr)) {
    std::printf("  ok      %s\n", Narrow(place).c_str());
    return true;
  }
  std::printf("  FAILED  %s: %s\n", Narrow(place).c_str(), Narrow(error.Description()).c_str());
  return false;
}

}  // namespace

int RunCheck(ModuleHost& host, const Config& config) {
  std::printf("Checking %s against %s\n", Narrow(config.source).c_str(), Narrow(host.ModulePath()).c_str());
  int failures = 0;
  if (config.watcher) {
    if (!TryConfigure(host, WatchDog64::CLSID_FreeSpaceWatcher, L"free-space watcher",
                      config.WatcherNode(Config::kNoGroups), L"/freeSpaceWatcher")) {
      ++failures;
    }
    for (std::size_t i = 0; i < config.watcher->groups.size(); ++i) {
      if (!TryConfigure(host, WatchDog64::CLSID_FreeSpaceWatcher, L"free-space watcher",
                        config.WatcherNode(static_cast<int>(i)), config.watcher->groups[i].place)) {
        ++failures;
      }
    }
  }
  if (config.watchdog &&
      !TryConfigure(host, WatchDog64::CLSID_WatchDog, L"watchdog", config.WatchdogNode(), L"/watchdog")) {
    ++failures;
  }
  if (config.packer &&
      !TryConfigure(host, WatchDog64::CLSID_LogPacker, L"log packer", config.PackerNode(), L"/logPacker")) {
    ++failures;
  }
  ReportEventSource(host.ModuleDirectory());
  if (failures > 0) {
    std::printf("%d failure(s)\n", failures);
    return 1;
  }
  std::printf("configuration is valid\n");
  return 0;
}

bool ReportEventSource(const std::wstring& moduleDirectory) {
  const auto registration = EventSourceRegistration::FromEnvironment(moduleDirectory);
  const std::wstring key = EventSourceRegistration::SourceKeyPath(registration.sLogName, registration.sSourceName);
  wchar_t value[MAX_PATH * 4];
  DWORD size = sizeof value;
  const LSTATUS status = RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"EventMessageFile",
                                      RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr, value, &size);
  if (status != ERROR_SUCCESS) {
    std::printf("event source '%s' in log '%s': not registered (run: wd64host eventsource register)\n",
                Narrow(registration.sSourceName).c_str(), Narrow(registration.sLogName).c_str());
    return false;
  }
  const bool matches = CompareStringOrdinal(value, -1, registration.sMessageFile.c_str(), -1, TRUE) == CSTR_EQUAL;
  std::printf("event source '%s' in log '%s': registered, message file %s%s\n",
              Narrow(registration.sSourceName).c_str(), Narrow(registration.sLogName).c_str(),
              Narrow(value).c_str(), matches ? " (beside the module)" : " (NOT the one beside the module)");
  return matches;
}

}  // namespace Host
