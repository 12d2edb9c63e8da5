#pragma once
// `wd64host run` and the service: the free-space watcher, the watchdog and the
// log packer configured from one configuration, logs packed on the host's own
// schedule, and everything shut down and released in order at the end.

#include <windows.h>

#include <optional>

namespace Host {

class ModuleHost;
struct Config;

// Runs until `stopEvent` is signalled or `forSeconds` have passed. Returns
// the exit code; configuration failures stop before anything lasting starts.
int RunComponents(ModuleHost& host, const Config& config, HANDLE stopEvent, std::optional<DWORD> forSeconds);

// Prints one time-stamped line of the host's own.
void Say(const char* format, ...);

}  // namespace Host
