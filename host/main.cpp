// wd64host: runs WatchDog64.dll on a real machine, as a console program or a
// Windows service, through the same public contract as the production host.

#include <windows.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "Check.h"
#include "Config.h"
#include "Demo.h"
#include "EventSourceRegistration.h"
#include "ModuleHost.h"
#include "Requests.h"
#include "Runner.h"
#include "Service.h"

namespace {

using namespace Host;

constexpr char kUsage[] =
    "usage: wd64host COMMAND [OPTIONS]\n"
    "\n"
    "  demo                          show every component at work on this machine\n"
    "  run [--config FILE] [--for SECONDS]\n"
    "                                run the free-space watcher, the watchdog and the log packer\n"
    "                                until Ctrl+C (or for SECONDS)\n"
    "  request NAME [KEY=VALUE...] [--json] [--config FILE]\n"
    "                                send one request and print the response\n"
    "  check [--config FILE]         validate a configuration against the module\n"
    "  service install [--config FILE] [--name NAME]\n"
    "  service uninstall [--name NAME]\n"
    "  service run [--config FILE] [--name NAME]   (used by the service manager)\n"
    "  eventsource register|unregister\n"
    "                                register the event source so Event Viewer shows our texts\n"
    "  components                    list the components and their interfaces\n";

HANDLE g_stopEvent = nullptr;

BOOL WINAPI OnConsoleControl(DWORD) {
  SetEvent(g_stopEvent);
  return TRUE;
}

struct Arguments {
  std::vector<std::wstring> positional;
  std::optional<std::wstring> config;
  std::optional<std::wstring> name;
  std::optional<DWORD> forSeconds;
  bool json = false;
};

Arguments Parse(int argc, wchar_t** argv, int first) {
  Arguments arguments;
  for (int i = first; i < argc; ++i) {
    const std::wstring argument = argv[i];
    auto next = [&]() -> std::wstring {
      if (i + 1 >= argc) throw ConfigError(L"command line", argument, L"needs a value");
      return argv[++i];
    };
    if (argument == L"--config") {
      arguments.config = next();
    } else if (argument == L"--name") {
      arguments.name = next();
    } else if (argument == L"--for") {
      const std::wstring value = next();
      wchar_t* end = nullptr;
      const unsigned long seconds = wcstoul(value.c_str(), &end, 10);
      if (value.empty() || *end != L'\0') throw ConfigError(L"command line", L"--for", L"expected a number of seconds");
      arguments.forSeconds = static_cast<DWORD>(seconds);
    } else if (argument == L"--json") {
      arguments.json = true;
    } else {
      arguments.positional.push_back(argument);
    }
  }
  return arguments;
}

// Settings from the configuration must be in the environment before the
// module loads, since it reads them once.
Config LoadBeforeModule(const Arguments& arguments) {
  Config config = arguments.config ? LoadConfig(*arguments.config, ProgramDirectory())
                                   : DefaultConfig(ProgramDirectory());
  config.ApplyGlobalSettings();
  return config;
}

int Run(const Arguments& arguments) {
  const Config config = LoadBeforeModule(arguments);
  ModuleHost host;
  g_stopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  SetConsoleCtrlHandler(OnConsoleControl, TRUE);
  Say("WatchDog64 running on %s (%s)%s", Narrow(config.source).c_str(), Narrow(host.ModulePath()).c_str(),
      arguments.forSeconds ? "" : "; Ctrl+C stops");
  const int exitCode = RunComponents(host, config, g_stopEvent, arguments.forSeconds);
  Say("stopped");
  return exitCode;
}

int Request(const Arguments& arguments) {
  if (arguments.positional.empty()) throw ConfigError(L"command line", L"request", L"needs a request name");
  const Config config = LoadBeforeModule(arguments);
  ModuleHost host;
  RequestOptions options{arguments.positional[0],
                         {arguments.positional.begin() + 1, arguments.positional.end()}, arguments.json};
  return RunRequest(host, config, options);
}

int CheckCommand(const Arguments& arguments) {
  const Config config = LoadBeforeModule(arguments);
  ModuleHost host;
  return RunCheck(host, config);
}

int ServiceCommand(const Arguments& arguments) {
  const std::wstring action = arguments.positional.empty() ? L"" : arguments.positional[0];
  ServiceOptions options;
  if (arguments.name) options.name = *arguments.name;
  if (arguments.config) options.configFile = *arguments.config;
  if (action == L"install") {
    // A configuration that cannot be read is refused now, not at boot.
    if (arguments.config) LoadConfig(*arguments.config, ProgramDirectory());
    return InstallService(options);
  }
  if (action == L"uninstall") return UninstallService(options);
  if (action == L"run") {
    if (arguments.config) LoadConfig(*arguments.config, ProgramDirectory()).ApplyGlobalSettings();
    return RunAsService(options);
  }
  std::fputs(kUsage, stderr);
  return 2;
}

int EventSourceCommand(const std::wstring& action) {
  const EventSourceRegistration::CRegistration registration =
      EventSourceRegistration::FromEnvironment(ProgramDirectory());
  HRESULT hr = E_INVALIDARG;
  if (action == L"register") {
    hr = EventSourceRegistration::Register(registration);
  } else if (action == L"unregister") {
    hr = EventSourceRegistration::Unregister(registration.sLogName, registration.sSourceName);
  } else {
    std::fputs(kUsage, stderr);
    return 2;
  }
  if (FAILED(hr)) {
    std::fprintf(stderr, "eventsource %s '%s' in log '%s' failed: 0x%08lX %s\n", Narrow(action).c_str(),
                 Narrow(registration.sSourceName).c_str(), Narrow(registration.sLogName).c_str(),
                 static_cast<unsigned long>(hr), Narrow(DescribeCode(hr)).c_str());
    return 1;
  }
  std::printf("eventsource %s '%s' in log '%s'%s\n", Narrow(action).c_str(), Narrow(registration.sSourceName).c_str(),
              Narrow(registration.sLogName).c_str(), hr == S_FALSE ? ": was not registered" : ": done");
  if (action == L"register") std::printf("message file: %s\n", Narrow(registration.sMessageFile).c_str());
  return 0;
}

struct InterfaceName {
  const GUID* iid;
  const char* name;
};

int ShowComponents() {
  static const InterfaceName kInterfaces[] = {
      {&IVHConfigurable::IID, "IVHConfigurable"},     {&IVHShutdownable::IID, "IVHShutdownable"},
      {&IVHRequestProcessor::IID, "IVHRequestProcessor"}, {&IVHWatchDog::IID, "IVHWatchDog"},
      {&IVHDiskManager::IID, "IVHDiskManager"},       {&IVHProcessManager::IID, "IVHProcessManager"},
      {&IVHLogPacker::IID, "IVHLogPacker"},
  };
  static const std::pair<const GUID*, const wchar_t*> kComponents[] = {
      {&WatchDog64::CLSID_DiskManager, L"Disk manager"},   {&WatchDog64::CLSID_FreeSpaceWatcher, L"Free-space watcher"},
      {&WatchDog64::CLSID_LogPacker, L"Log packer"},       {&WatchDog64::CLSID_ProcessManager, L"Process manager"},
      {&WatchDog64::CLSID_WatchDog, L"Watchdog"},
  };
  ModuleHost host;
  std::printf("Loaded %s\n", Narrow(host.ModulePath()).c_str());
  for (const auto& [clsid, name] : kComponents) {
    auto object = host.Create<IComponentBase>(*clsid, name);
    std::printf("%-20s", Narrow(name).c_str());
    for (const InterfaceName& itf : kInterfaces) {
      IComponentBase* part = nullptr;
      if (SUCCEEDED(object->QueryInterface(itf.iid, reinterpret_cast<void**>(&part)))) {
        std::printf(" %s", itf.name);
        part->Release();
      }
    }
    std::printf("\n");
  }
  int locked = 1;
  host.Module()->IsLocked(&locked);
  std::printf("Module locked after release: %s\n", locked ? "yes" : "no");
  return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  SetConsoleOutputCP(CP_UTF8);
  const std::wstring command = argc > 1 ? argv[1] : L"";
  try {
    const Arguments arguments = Parse(argc, argv, 2);
    if (command == L"demo") return RunDemo();
    if (command == L"run") return Run(arguments);
    if (command == L"request") return Request(arguments);
    if (command == L"check") return CheckCommand(arguments);
    if (command == L"service") return ServiceCommand(arguments);
    if (command == L"eventsource") return EventSourceCommand(arguments.positional.empty() ? L"" : arguments.positional[0]);
    if (command == L"components") return ShowComponents();
    if (command == L"demo-service") return RunIdleService(L"WatchDog64Demo");
  } catch (const ConfigError& error) {
    std::fprintf(stderr, "%s\n", Narrow(error.Text()).c_str());
    return 2;
  } catch (const HostError& error) {
    std::fprintf(stderr, "%s\n", Narrow(error.Text()).c_str());
    return 1;
  }
  std::fputs(kUsage, command.empty() || command == L"help" || command == L"--help" ? stdout : stderr);
  return command.empty() || command == L"help" || command == L"--help" ? 0 : 2;
}
