#pragma once
// The command line: every command and option declared once, checked by the
// parser (unknown options, stray arguments and numbers out of range are
// refused with exit code 2), with `--help` for each.

#include <optional>
#include <string>
#include <vector>

namespace Host {

enum class Command {
  kDemo,
  kRun,
  kRequest,
  kCheck,
  kServiceInstall,
  kServiceUninstall,
  kServiceStart,
  kServiceStop,
  kServiceStatus,
  kServiceRun,
  kEventSourceRegister,
  kEventSourceUnregister,
  kComponents,
  kDemoService,
};

// What the command line asked for, already checked by the parser.
struct Arguments {
  Command command = Command::kDemo;
  std::string config;
  std::string metricsFile;
  std::string name = "WatchDog64";
  unsigned forSeconds = 0;
  bool json = false;
  bool warningsOk = false;
  bool verbose = false;
  std::string request;
  std::vector<std::string> requestArguments;
};

// Parses the arguments (UTF-8, the program's name first). The exit code when
// the parser has answered already (help, version, a refused command line),
// nothing when `arguments` holds a command to run.
std::optional<int> ParseCommandLine(const std::vector<std::string>& utf8, Arguments& arguments);

}  // namespace Host
