#include "cli/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <utility>

#include "requests/Requests.h"
#include "text/Text.h"

namespace Host {

namespace {

constexpr char kFooter[] =
    "Exit codes: 0 success, 1 a module or system call failed, 2 a configuration or command-line error,\n"
    "3 check found only warnings (unless --warnings-ok).";

// A service name lands in the registry and on a command line.
std::string CheckServiceName(const std::string& name) {
  if (name.empty() || name.size() > 256 || name.find_first_of("\\/\"") != std::string::npos) {
    return "a service name is 1 to 256 characters without \\, / or \"";
  }
  return {};
}

}  // namespace

std::optional<int> ParseCommandLine(const std::vector<std::string>& utf8, Arguments& arguments) {
  std::vector<std::string> copy = utf8;
  CLI::App app{"wd64host: runs WatchDog64.dll as a console program or a Windows service", "wd64host"};
  app.set_version_flag("--version", std::string("wd64host ") + WD64_VERSION);
  app.require_subcommand(1);
  app.footer(kFooter);
  auto addVerbose = [&](CLI::App* command) {
    command->add_flag("--verbose", arguments.verbose, "keep the module's return-address context in error texts");
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
    std::vector<char*> pointers;
    for (std::string& argument : copy) pointers.push_back(argument.data());
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

  const std::pair<CLI::App*, Command> commands[] = {
      {demo, Command::kDemo},
      {run, Command::kRun},
      {request, Command::kRequest},
      {check, Command::kCheck},
      {install, Command::kServiceInstall},
      {uninstall, Command::kServiceUninstall},
      {start, Command::kServiceStart},
      {stop, Command::kServiceStop},
      {status, Command::kServiceStatus},
      {serviceRun, Command::kServiceRun},
      {registerSource, Command::kEventSourceRegister},
      {unregisterSource, Command::kEventSourceUnregister},
      {components, Command::kComponents},
      {demoService, Command::kDemoService},
  };
  for (const auto& [subcommand, command] : commands) {
    if (subcommand->parsed()) {
      arguments.command = command;
      return std::nullopt;
    }
  }
  std::fputs(app.help().c_str(), stderr);
  return 2;
}

}  // namespace Host
