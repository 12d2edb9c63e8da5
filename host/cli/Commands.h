#pragma once
// The commands of wd64host, each on checked arguments.

#include "cli/CommandLine.h"

namespace Host {

// Runs the command; its exit code. A configuration error is printed and
// gives 2, a failed call 1.
int RunCommand(const Arguments& arguments);

}  // namespace Host
