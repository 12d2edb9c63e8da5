#pragma once
// wd64host as a Windows service: installed with the command line that runs
// it, run under the service manager, removed again.

#include <string>

namespace Host {

struct ServiceOptions {
  std::wstring name = L"WatchDog64";
  std::wstring configFile;  // absolute path, or empty for the embedded default
};

int InstallService(const ServiceOptions& options);
int UninstallService(const ServiceOptions& options);
// Called by the service manager through "service run"; does what `run` does
// until the service is stopped.
int RunAsService(const ServiceOptions& options);
// A service that only runs until it is stopped (the demonstration's victim).
int RunIdleService(const std::wstring& name);

}  // namespace Host
