#pragma once
// `wd64host run` and the service: the free-space watcher, the watchdog and the
// log packer configured from one configuration, logs packed and metrics
// written on the host's own schedule, and everything that started shut down
// and released in order.

#include <windows.h>

#include <functional>
#include <optional>
#include <string>

namespace Host {

class ModuleHost;
struct Config;

struct RunOptions {
  std::optional<DWORD> forSeconds;  // run this long; until stopped when empty
  std::wstring metricsFile;         // wins over the configuration's metrics path
  // Called after each component is configured (the service reports a
  // checkpoint), and once when all of them are.
  std::function<void()> onProgress;
  std::function<void()> onRunning;
};

// Starts the components, runs the periodic jobs until `stopEvent` is
// signalled or the time is up, and stops what started. Returns the exit
// code: 2 when the module rejects the configuration, 1 when a call failed;
// `failure` then holds the text for people.
int RunComponents(ModuleHost& host, const Config& config, HANDLE stopEvent, const RunOptions& options,
                  std::wstring* failure = nullptr);

}  // namespace Host
