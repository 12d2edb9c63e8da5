#pragma once
// wd64host as a Windows service: installed (or updated) with the command
// line that runs it, run under the service manager, started, stopped,
// queried and removed again.

#include <string>

namespace Host {

struct ServiceOptions {
  std::wstring name = L"WatchDog64";
  std::wstring configFile;   // absolute path, or empty for the embedded default
  std::wstring metricsFile;  // absolute path, or empty
};

// The host's own event source, under which the service reports its start
// failures: "WatchDog64" in the Application log, texts inside wd64host.exe.
constexpr wchar_t kHostEventSource[] = L"WatchDog64";
constexpr wchar_t kHostEventLog[] = L"Application";

// Service-specific exit codes of a service that could not start or failed.
enum ServiceExitCode : unsigned long {
  // The configuration cannot be read or is invalid, or a file the service
  // would act on may be changed by others than administrators.
  kServiceConfigUnreadable = 1,
  kServiceConfigRejected = 2,    // the module refused the configuration
  kServiceCallFailed = 3,        // the module or a system call failed
};

// "running", "stopped" ... for a service state.
const char* StateName(unsigned long state);

// Prints the failure of `what` (with the code's text) on stderr; returns the
// exit code 1.
int Report(long hr, const std::wstring& what);
int ReportLastError(const std::wstring& what);

int InstallService(const ServiceOptions& options);
int UninstallService(const ServiceOptions& options);
int StartInstalledService(const ServiceOptions& options);
int StopInstalledService(const ServiceOptions& options);
int ServiceStatus(const ServiceOptions& options);
// Called by the service manager through "service run"; does what `run` does
// until the service is stopped.
int RunAsService(const ServiceOptions& options);
// A service that only runs until it is stopped (the demonstration's victim).
int RunIdleService(const std::wstring& name);

// Registers (or removes) the host's own event source.
long RegisterHostEventSource();
long UnregisterHostEventSource();

}  // namespace Host
