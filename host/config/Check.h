#pragma once
// `wd64host check`: everything the host can see wrong with a configuration.
// Errors are what the module would reject or silently wrap; warnings are
// what would protect nothing on this machine (missing folders, services or
// event source registration).

#include <string>
#include <vector>

#include "config/Config.h"

namespace Host {

class ModuleHost;

struct CheckReport {
  std::vector<Problem> problems;  // reading errors first, then the module's and the machine's
  std::size_t Errors() const;
  std::size_t Warnings() const;
};

// Configures every component the configuration names (each watch group on
// its own, so a failure names its group) and shuts it down again, then looks
// at the machine. `readProblems` are the errors found while reading.
CheckReport CheckConfiguration(ModuleHost& host, const Config& config, std::vector<Problem> readProblems);

// Prints the report; the exit code: 2 errors, 3 warnings only (0 with
// `warningsOk`), 0 clean.
int PrintCheck(const CheckReport& report, const Config& config, bool warningsOk);

}  // namespace Host
