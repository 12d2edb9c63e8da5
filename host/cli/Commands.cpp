#include "cli/Commands.h"

#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "Handle.h"
#include "config/Check.h"
#include "config/Config.h"
#include "config/Trust.h"
#include "demo/Demo.h"
#include "module/EventSourceRegistration.h"
#include "module/ModuleHost.h"
#include "module/ModuleSettings.h"
#include "requests/Requests.h"
#include "runner/Runner.h"
#include "service/Service.h"

namespace Host {

namespace {

// Signalled by Ctrl+C or Ctrl+Break while `run` runs at a console.
Handle& ConsoleStopEvent() {
  static Handle s_event;
  return s_event;
}

BOOL WINAPI OnConsoleControl(DWORD) {
  SetEvent(ConsoleStopEvent().Get());
  return TRUE;
}

std::wstring Absolute(const std::string& path) { return FullPath(Widen(path)); }

std::wstring ModulePathBesideProgram() { return ProgramDirectory() + L"WatchDog64.dll"; }

// The configuration with its settings in the environment: they must be
// there before the module loads, since it reads some of them once.
Config LoadBeforeModule(const Arguments& arguments) {
  Config config = arguments.config.empty() ? DefaultConfig(ProgramDirectory())
                                           : LoadConfig(Widen(arguments.config), ProgramDirectory());
  config.ApplyGlobalSettings();
  return config;
}

int Run(const Arguments& arguments) {
  // At a prompt the administrator decides; the service would refuse these.
  for (const Problem& problem : UntrustedInputs(arguments.config.empty() ? L"" : Absolute(arguments.config))) {
    Say("warning: %s", Narrow(problem.Text()).c_str());
  }
  const Config config = LoadBeforeModule(arguments);
  ModuleHost host;
  ConsoleStopEvent().Reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  SetConsoleCtrlHandler(OnConsoleControl, TRUE);
  Say("WatchDog64 starting with %s (%s)", Narrow(config.fullPath.empty() ? config.source : config.fullPath).c_str(),
      Narrow(host.ModulePath()).c_str());
  RunOptions options;
  if (arguments.forSeconds > 0) options.forSeconds = arguments.forSeconds;
  if (!arguments.metricsFile.empty()) options.metricsFile = Absolute(arguments.metricsFile);
  options.onRunning = [&] {
    if (arguments.forSeconds > 0) {
      Say("running for %u s", arguments.forSeconds);
    } else {
      Say("running; Ctrl+C stops");
    }
  };
  const int exitCode = RunComponents(host, config, ConsoleStopEvent().Get(), options);
  Say(exitCode == 0 ? "stopped" : "stopped after a failure (exit code %d)", exitCode);
  return exitCode;
}

int Request(const Arguments& arguments) {
  const std::wstring name = Widen(arguments.request);
  RequestOptions options{name, {}, arguments.json};
  for (const std::string& argument : arguments.requestArguments) options.arguments.push_back(Widen(argument));
  try {
    const Config config = LoadBeforeModule(arguments);
    ModuleHost host;
    return PrintRequest(RunRequest(host, config, options), arguments.json);
  } catch (const ConfigError& error) {
    return PrintRequest(FailedRequest(name, E_INVALIDARG, error.Text(), 2), arguments.json);
  } catch (const HostError& error) {
    return PrintRequest(FailedRequest(name, error.Code(), error.Text(), 1), arguments.json);
  }
}

// Reads, checks against the module and looks at the machine; `config`
// receives what was read.
CheckReport CheckFile(const Arguments& arguments, Config& config) {
  std::vector<Problem> problems = UntrustedInputs(arguments.config.empty() ? L"" : Absolute(arguments.config));
  config = arguments.config.empty() ? DefaultConfig(ProgramDirectory())
                                    : ReadConfig(Widen(arguments.config), ProgramDirectory(), problems);
  config.ApplyGlobalSettings();
  // A file that could not be parsed at all has nothing for the module, and a
  // module from a folder that others may write to is not loaded, not even to
  // check a configuration.
  const std::wstring program = ProgramDirectory();
  for (const Problem& problem : problems) {
    if (problem.place == L"file" || problem.place.rfind(L"line ", 0) == 0) return CheckReport{problems};
    const std::wstring file = problem.file + L"\\";
    if (file.size() >= program.size() &&
        CompareStringOrdinal(file.c_str(), static_cast<int>(program.size()), program.c_str(),
                             static_cast<int>(program.size()), TRUE) == CSTR_EQUAL) {
      return CheckReport{problems};
    }
  }
  ModuleHost host;
  return CheckConfiguration(host, config, std::move(problems));
}

int CheckCommand(const Arguments& arguments) {
  Config config;
  const CheckReport report = CheckFile(arguments, config);
  return PrintCheck(report, config, arguments.warningsOk);
}

ServiceOptions ServiceOptionsOf(const Arguments& arguments) {
  ServiceOptions options;
  options.name = Widen(arguments.name);
  if (!arguments.config.empty()) options.configFile = Absolute(arguments.config);
  if (!arguments.metricsFile.empty()) options.metricsFile = Absolute(arguments.metricsFile);
  return options;
}

int ServiceInstall(const Arguments& arguments) {
  // Refused now rather than failing at boot: the same checks as `check`.
  Config config;
  const CheckReport report = CheckFile(arguments, config);
  if (report.Errors() > 0) return PrintCheck(report, config, false);
  for (const Problem& problem : report.problems) std::printf("%s\n", Narrow(problem.Text()).c_str());
  return InstallService(ServiceOptionsOf(arguments));
}

int EventSourceCommand(const Arguments& arguments, bool registering) {
  // The names the module will use, from every place it reads them.
  const Config config = LoadBeforeModule(arguments);
  ModuleSettings settings(ModulePathBesideProgram());
  const EventSourceRegistration::CRegistration registration = settings.EventSource();
  const HRESULT hr = registering ? EventSourceRegistration::Register(registration)
                                 : EventSourceRegistration::Unregister(registration.sLogName, registration.sSourceName);
  const char* action = registering ? "register" : "unregister";
  if (FAILED(hr)) {
    std::wstring what = L"eventsource " + Widen(action) + L" '" + registration.sSourceName + L"' in log '" +
                        registration.sLogName + L"'";
    if (registering) what += L" with message file " + registration.sMessageFile;
    std::fprintf(stderr, "%s\n", Narrow(HostError(hr, what).Text()).c_str());
    return 1;
  }
  std::printf("eventsource %s '%s' in log '%s'%s\n", action, Narrow(registration.sSourceName).c_str(),
              Narrow(registration.sLogName).c_str(), hr == S_FALSE ? ": was not registered" : ": done");
  if (registering) std::printf("message file: %s\n", Narrow(registration.sMessageFile).c_str());
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

int RunCommand(const Arguments& arguments) {
  SetVerbose(arguments.verbose);
  try {
    switch (arguments.command) {
      case Command::kDemo: return RunDemo();
      case Command::kRun: return Run(arguments);
      case Command::kRequest: return Request(arguments);
      case Command::kCheck: return CheckCommand(arguments);
      case Command::kServiceInstall: return ServiceInstall(arguments);
      case Command::kServiceUninstall: return UninstallService(ServiceOptionsOf(arguments));
      case Command::kServiceStart: return StartInstalledService(ServiceOptionsOf(arguments));
      case Command::kServiceStop: return StopInstalledService(ServiceOptionsOf(arguments));
      case Command::kServiceStatus: return ServiceStatus(ServiceOptionsOf(arguments));
      case Command::kServiceRun: return RunAsService(ServiceOptionsOf(arguments));
      case Command::kEventSourceRegister: return EventSourceCommand(arguments, true);
      case Command::kEventSourceUnregister: return EventSourceCommand(arguments, false);
      case Command::kComponents: return ShowComponents();
      case Command::kDemoService: return RunIdleService(L"WatchDog64Demo");
    }
  } catch (const ConfigError& error) {
    std::fprintf(stderr, "%s\n", Narrow(error.Text()).c_str());
    return 2;
  } catch (const HostError& error) {
    std::fprintf(stderr, "%s\n", Narrow(error.Text()).c_str());
    return 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "wd64host failed: %s\n", error.what());
    return 1;
  }
  return 2;
}

}  // namespace Host
