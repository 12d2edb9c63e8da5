// wd64host: runs WatchDog64.dll on a real machine, as a console program or a
// Windows service, through the same public contract as the production host.

#include <windows.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
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
#include "Settings.h"
#include "Trust.h"

namespace {

using namespace Host;

constexpr char kFooter[] =
    "Exit codes: 0 success, 1 a module or system call failed, 2 a configuration or command-line error,\n"
    "3 check found only warnings (unless --warnings-ok).";

HANDLE g_stopEvent = nullptr;

BOOL WINAPI OnConsoleControl(DWORD) {
  SetEvent(g_stopEvent);
  return TRUE;
}

// What the command line asked for, already checked by the parser.
struct Arguments {
  std::string config;
  std::string metricsFile;
  std::string name = "WatchDog64";
  unsigned forSeconds = 0;
  bool json = false;
  bool warningsOk = false;
  std::string request;
  std::vector<std::string> requestArguments;
};

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
  g_stopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
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
  const int exitCode = RunComponents(host, config, g_stopEvent, options);
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

// A service name lands in the registry and on a command line.
std::string CheckServiceName(const std::string& name) {
  if (name.empty() || name.size() > 256 || name.find_first_of("\\/\"") != std::string::npos) {
    return "a service name is 1 to 256 characters without \\, / or \"";
  }
  return {};
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  // A DLL named without a path comes from System32 only, never from the
  // current or a PATH folder; the module's own DLLs are loaded by full path.
  SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
  SetConsoleOutputCP(CP_UTF8);
  std::vector<std::string> utf8;
  for (int i = 0; i < argc; ++i) utf8.push_back(Narrow(argv[i]));
  std::vector<char*> pointers;
  for (std::string& argument : utf8) pointers.push_back(argument.data());

  Arguments arguments;
  bool verbose = false;
  CLI::App app{"wd64host: runs WatchDog64.dll as a console program or a Windows service", "wd64host"};
  app.set_version_flag("--version", std::string("wd64host ") + WD64_VERSION);
  app.require_subcommand(1);
  app.footer(kFooter);
  auto addVerbose = [&](CLI::App* command) {
    command->add_flag("--verbose", verbose, "keep the module's return-address context in error texts");
  };
  auto addConfig = [&](CLI::App* command) {
    command->add_option("--config", arguments.config, "configuration file (JSON with comments)");
  };
  auto addName = [&](CLI::App* command) {
    command->add_option("--name", arguments.name, "service name (default WatchDog64)")->check(CheckServiceName);
  };
  auto addMetrics = [&](CLI::App* command) {
    command->add_option("--metrics-file", arguments.metricsFile,
                        "keep this Prometheus text file current (wins over the configuration's metrics path)");
  };

  CLI::App* demo = app.add_subcommand("demo", "show every component at work on this machine");
  CLI::App* run = app.add_subcommand("run", "run the free-space watcher, the watchdog and the log packer");
  addConfig(run);
  run->add_option("--for", arguments.forSeconds, "stop after SECONDS (default: at Ctrl+C)")
      ->check(CLI::Range(1u, 4294967u));
  addMetrics(run);
  addVerbose(run);

  CLI::App* request = app.add_subcommand("request", "send one request and print the response");
  request->add_option("NAME", arguments.request, "ListDisks, QueryFreeSpace, ListProcesses, ListServices, "
                                                 "StartServices, StopServices, RestartServices, PackLogs")
      ->required();
  request->add_option("KEY=VALUE", arguments.requestArguments, "request attributes, e.g. DirectoryPaths=C:\\;D:\\");
  request->add_flag("--json", arguments.json, "print one JSON envelope instead of a table");
  addConfig(request);
  addVerbose(request);

  CLI::App* check = app.add_subcommand("check", "report every problem of a configuration");
  addConfig(check);
  check->add_flag("--warnings-ok", arguments.warningsOk, "exit 0 when only warnings are found");
  addVerbose(check);

  CLI::App* service = app.add_subcommand("service", "install, control or remove the Windows service");
  service->require_subcommand(1);
  CLI::App* install = service->add_subcommand("install", "check the configuration, then install or update the service");
  addConfig(install);
  addName(install);
  addMetrics(install);
  addVerbose(install);
  CLI::App* uninstall = service->add_subcommand("uninstall", "stop and remove the service");
  CLI::App* start = service->add_subcommand("start", "start the service and wait until it runs or fails");
  CLI::App* stop = service->add_subcommand("stop", "stop the service and wait until its process has ended");
  CLI::App* status = service->add_subcommand("status", "show the service's state and command line");
  for (CLI::App* command : {uninstall, start, stop, status}) addName(command);
  CLI::App* serviceRun = service->add_subcommand("run", "(used by the service manager)");
  addConfig(serviceRun);
  addName(serviceRun);
  addMetrics(serviceRun);
  addVerbose(serviceRun);

  CLI::App* eventsource = app.add_subcommand("eventsource", "register the module's event source for Event Viewer");
  eventsource->require_subcommand(1);
  CLI::App* registerSource = eventsource->add_subcommand("register", "register the source the module reports under");
  CLI::App* unregisterSource = eventsource->add_subcommand("unregister", "remove that registration");
  for (CLI::App* command : {registerSource, unregisterSource}) addConfig(command);

  CLI::App* components = app.add_subcommand("components", "list the components and their interfaces");
  CLI::App* demoService = app.add_subcommand("demo-service", "")->group("");

  try {
    app.parse(static_cast<int>(pointers.size()), pointers.data());
  } catch (const CLI::ParseError& error) {
    const int code = error.get_exit_code() == 0 ? 0 : 2;
    const bool wantsJson = utf8.size() > 1 && utf8[1] == "request" &&
                           std::find(utf8.begin(), utf8.end(), "--json") != utf8.end();
    if (code != 0 && wantsJson) {
      // A script that asked for JSON gets JSON, whatever went wrong.
      return PrintRequest(FailedRequest(Widen(arguments.request), E_INVALIDARG, Widen(error.what()), 2), true);
    }
    return app.exit(error) == 0 ? 0 : 2;
  }
  SetVerbose(verbose);

  try {
    if (*demo) return RunDemo();
    if (*run) return Run(arguments);
    if (*request) return Request(arguments);
    if (*check) return CheckCommand(arguments);
    if (*install) return ServiceInstall(arguments);
    if (*uninstall) return UninstallService(ServiceOptionsOf(arguments));
    if (*start) return StartInstalledService(ServiceOptionsOf(arguments));
    if (*stop) return StopInstalledService(ServiceOptionsOf(arguments));
    if (*status) return ServiceStatus(ServiceOptionsOf(arguments));
    if (*serviceRun) return RunAsService(ServiceOptionsOf(arguments));
    if (*registerSource) return EventSourceCommand(arguments, true);
    if (*unregisterSource) return EventSourceCommand(arguments, false);
    if (*components) return ShowComponents();
    if (*demoService) return RunIdleService(L"WatchDog64Demo");
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
  std::fputs(app.help().c_str(), stderr);
  return 2;
}
