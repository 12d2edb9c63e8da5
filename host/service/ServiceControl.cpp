// The service from outside: installed or updated, started, stopped, queried
// and removed through the service manager.

#include <cstdio>
#include <string>
#include <vector>

#include "module/EventSourceRegistration.h"
#include "module/HostHandles.h"
#include "module/ModuleHost.h"
#include "platform/ModulePath.h"
#include "service/Service.h"
#include "text/Text.h"

namespace Host {

int Report(HRESULT hr, const std::wstring& what) {
  std::fprintf(stderr, "%s\n", Narrow(HostError(hr, what).Text()).c_str());
  return 1;
}

int ReportLastError(const std::wstring& what) { return Report(HRESULT_FROM_WIN32(GetLastError()), what); }

namespace {

// Waits while the service is in `pending`; the state it settled in.
SERVICE_STATUS WaitWhile(SC_HANDLE service, DWORD pending, DWORD timeoutMs) {
  SERVICE_STATUS status{};
  for (DWORD waited = 0; QueryServiceStatus(service, &status) && status.dwCurrentState == pending &&
                         waited < timeoutMs;
       waited += 200) {
    Sleep(200);
  }
  return status;
}

struct StopOutcome {
  SERVICE_STATUS status{};
  DWORD controlError = NO_ERROR;  // why the stop control was refused, if it was
  DWORD lingeringProcess = 0;     // a process that outlived the wait
};

// Stops the service and waits until its process has ended, not only until it
// reports STOPPED: the binaries it maps can be replaced or removed only then
// (an installer that deletes them right after the stop finds them in use).
// The process is opened before the stop because a stopped service no longer
// names it.
StopOutcome StopAndWait(SC_HANDLE service, DWORD timeoutMs) {
  StopOutcome outcome;
  // A starting service accepts no stop (the manager refuses the control), so
  // it is let finish its start first, within a wait of the same bound.
  WaitWhile(service, SERVICE_START_PENDING, timeoutMs);
  SERVICE_STATUS_PROCESS before{};
  DWORD needed = 0;
  ProcessHandle process;
  if (QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&before), sizeof before,
                           &needed) &&
      before.dwProcessId != 0) {
    process = ProcessHandle(OpenProcess(SYNCHRONIZE, FALSE, before.dwProcessId));
  }
  if (!ControlService(service, SERVICE_CONTROL_STOP, &outcome.status)) outcome.controlError = GetLastError();
  // A refused control may mean another stop is under way: then it is a wait.
  outcome.status = WaitWhile(service, SERVICE_STOP_PENDING, timeoutMs);
  if (outcome.status.dwCurrentState == SERVICE_STOPPED && process &&
      WaitForSingleObject(process.Get(), timeoutMs) == WAIT_TIMEOUT) {
    outcome.lingeringProcess = before.dwProcessId;
  }
  return outcome;
}

ScHandle OpenManager(DWORD access) { return ScHandle(OpenSCManagerW(nullptr, nullptr, access)); }

// The named service opened for `access`; none, with the reason printed,
// when the manager or the service cannot be opened.
ScHandle OpenNamedService(const std::wstring& name, DWORD access) {
  ScHandle manager = OpenManager(SC_MANAGER_CONNECT);
  if (!manager) {
    ReportLastError(L"opening the service manager");
    return {};
  }
  ScHandle service(OpenServiceW(manager.Get(), name.c_str(), access));
  if (!service) ReportLastError(L"opening service '" + name + L"'");
  return service;
}

}  // namespace

const char* StateName(DWORD state) {
  switch (state) {
    case SERVICE_STOPPED: return "stopped";
    case SERVICE_START_PENDING: return "starting";
    case SERVICE_STOP_PENDING: return "stopping";
    case SERVICE_RUNNING: return "running";
    case SERVICE_CONTINUE_PENDING: return "continuing";
    case SERVICE_PAUSE_PENDING: return "pausing";
    case SERVICE_PAUSED: return "paused";
    default: return "unknown";
  }
}

long RegisterHostEventSource() {
  RegistryKey key;
  const std::wstring path = EventSourceRegistration::SourceKeyPath(kHostEventLog, kHostEventSource);
  LSTATUS status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                   KEY_SET_VALUE, nullptr, key.Put(), nullptr);
  if (status != ERROR_SUCCESS) return HRESULT_FROM_WIN32(static_cast<DWORD>(status));
  const std::wstring file = Kestrel::ExecutableFilePath();
  const DWORD types = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
  status = RegSetValueExW(key.Get(), L"EventMessageFile", 0, REG_EXPAND_SZ, reinterpret_cast<const BYTE*>(file.c_str()),
                          static_cast<DWORD>((file.size() + 1) * sizeof(wchar_t)));
  if (status == ERROR_SUCCESS) {
    status = RegSetValueExW(key.Get(), L"TypesSupported", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&types), sizeof types);
  }
  return HRESULT_FROM_WIN32(static_cast<DWORD>(status));
}

long UnregisterHostEventSource() { return EventSourceRegistration::Unregister(kHostEventLog, kHostEventSource); }

int InstallService(const ServiceOptions& options) {
  std::wstring command = L"\"" + Kestrel::ExecutableFilePath() + L"\" service run --name \"" + options.name + L"\"";
  if (!options.configFile.empty()) command += L" --config \"" + options.configFile + L"\"";
  if (!options.metricsFile.empty()) command += L" --metrics-file \"" + options.metricsFile + L"\"";
  ScHandle manager = OpenManager(SC_MANAGER_CREATE_SERVICE | SC_MANAGER_CONNECT);
  if (!manager) return ReportLastError(L"opening the service manager (an elevated prompt is needed)");
  const std::wstring display = options.name + L" server health watchdog";
  bool updated = false;
  ScHandle service(OpenServiceW(manager.Get(), options.name.c_str(), SERVICE_ALL_ACCESS));
  if (service) {
    // An existing installation takes the new command line; it runs it from
    // its next start.
    if (!ChangeServiceConfigW(service.Get(), SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                              command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr, display.c_str())) {
      return ReportLastError(L"updating service '" + options.name + L"'");
    }
    updated = true;
  } else {
    service.Reset(CreateServiceW(manager.Get(), options.name.c_str(), display.c_str(), SERVICE_ALL_ACCESS,
                                 SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL, command.c_str(),
                                 nullptr, nullptr, nullptr, nullptr, nullptr));
    if (!service) return ReportLastError(L"creating service '" + options.name + L"'");
  }
  std::wstring text = L"Watches free disk space, stops services before a disk runs full, and packs old logs.";
  SERVICE_DESCRIPTIONW description{text.data()};
  ChangeServiceConfig2W(service.Get(), SERVICE_CONFIG_DESCRIPTION, &description);
  // Restarted after a minute, twice a day at most; a failing start reports
  // itself in the event log each time.
  SC_ACTION actions[] = {{SC_ACTION_RESTART, 60000}, {SC_ACTION_RESTART, 60000}, {SC_ACTION_NONE, 0}};
  SERVICE_FAILURE_ACTIONSW failure{};
  failure.dwResetPeriod = 86400;
  failure.cActions = static_cast<DWORD>(std::size(actions));
  failure.lpsaActions = actions;
  const bool restarts = ChangeServiceConfig2W(service.Get(), SERVICE_CONFIG_FAILURE_ACTIONS, &failure) != FALSE;
  SERVICE_FAILURE_ACTIONS_FLAG onErrorExit{TRUE};
  ChangeServiceConfig2W(service.Get(), SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, &onErrorExit);
  const HRESULT source = RegisterHostEventSource();
  std::printf("service '%s' %s: %s\n", Narrow(options.name).c_str(), updated ? "updated" : "installed",
              Narrow(command).c_str());
  std::printf("  account LocalSystem, automatic start%s\n",
              restarts ? ", restarted 60 s after a failure (twice a day at most)" : "");
  if (FAILED(source)) {
    std::fprintf(stderr, "%s\n", Narrow(HostError(source, L"registering event source 'WatchDog64'").Text()).c_str());
    return 1;
  }
  std::printf("  event source '%ls' in log '%ls' registered for its start failures\n", kHostEventSource,
              kHostEventLog);
  if (updated) std::printf("  a running service takes the new command line at its next start\n");
  return 0;
}

int UninstallService(const ServiceOptions& options) {
  ScHandle service = OpenNamedService(options.name, SERVICE_STOP | SERVICE_QUERY_STATUS | DELETE);
  if (!service) return 1;
  SERVICE_STATUS status{};
  if (QueryServiceStatus(service.Get(), &status) && status.dwCurrentState != SERVICE_STOPPED) {
    // Give it the time a clean shutdown of the components takes.
    StopAndWait(service.Get(), 30000);
  }
  if (!DeleteService(service.Get())) return ReportLastError(L"deleting service '" + options.name + L"'");
  std::printf("service '%s' removed\n", Narrow(options.name).c_str());
  const HRESULT source = UnregisterHostEventSource();
  if (FAILED(source)) {
    std::fprintf(stderr, "%s\n", Narrow(HostError(source, L"removing event source 'WatchDog64'").Text()).c_str());
    return 1;
  }
  return 0;
}

int StartInstalledService(const ServiceOptions& options) {
  ScHandle service = OpenNamedService(options.name, SERVICE_START | SERVICE_QUERY_STATUS);
  if (!service) return 1;
  if (!StartServiceW(service.Get(), 0, nullptr) && GetLastError() != ERROR_SERVICE_ALREADY_RUNNING) {
    return ReportLastError(L"starting service '" + options.name + L"'");
  }
  const SERVICE_STATUS status = WaitWhile(service.Get(), SERVICE_START_PENDING, 60000);
  if (status.dwCurrentState == SERVICE_RUNNING) {
    std::printf("service '%s' is running\n", Narrow(options.name).c_str());
    return 0;
  }
  std::fprintf(stderr, "service '%s' did not start: %s, exit code %lu, service-specific code %lu (the reason is in "
               "the Application event log, source WatchDog64)\n",
               Narrow(options.name).c_str(), StateName(status.dwCurrentState), status.dwWin32ExitCode,
               status.dwServiceSpecificExitCode);
  return 1;
}

int StopInstalledService(const ServiceOptions& options) {
  ScHandle service = OpenNamedService(options.name, SERVICE_STOP | SERVICE_QUERY_STATUS);
  if (!service) return 1;
  SERVICE_STATUS status{};
  if (QueryServiceStatus(service.Get(), &status) && status.dwCurrentState == SERVICE_STOPPED) {
    std::printf("service '%s' is already stopped\n", Narrow(options.name).c_str());
    return 0;
  }
  const StopOutcome outcome = StopAndWait(service.Get(), 60000);
  if (outcome.status.dwCurrentState != SERVICE_STOPPED) {
    if (outcome.controlError != NO_ERROR) {
      return Report(HRESULT_FROM_WIN32(outcome.controlError), L"stopping service '" + options.name + L"'");
    }
    std::fprintf(stderr, "service '%s' is still %s\n", Narrow(options.name).c_str(),
                 StateName(outcome.status.dwCurrentState));
    return 1;
  }
  if (outcome.lingeringProcess != 0) {
    std::fprintf(stderr, "service '%s' stopped, but its process %lu has not ended; its files stay in use\n",
                 Narrow(options.name).c_str(), outcome.lingeringProcess);
    return 1;
  }
  std::printf("service '%s' stopped\n", Narrow(options.name).c_str());
  return 0;
}

int ServiceStatus(const ServiceOptions& options) {
  ScHandle service = OpenNamedService(options.name, SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG);
  if (!service) return 1;
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  if (!QueryServiceStatusEx(service.Get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status,
                            &needed)) {
    return ReportLastError(L"querying service '" + options.name + L"'");
  }
  std::printf("service '%s': %s", Narrow(options.name).c_str(), StateName(status.dwCurrentState));
  if (status.dwCurrentState != SERVICE_STOPPED) std::printf(", process %lu", status.dwProcessId);
  if (status.dwWin32ExitCode == ERROR_SERVICE_SPECIFIC_ERROR) {
    std::printf(", last exit: service-specific code %lu", status.dwServiceSpecificExitCode);
  } else if (status.dwWin32ExitCode != NO_ERROR) {
    std::printf(", last exit: %lu", status.dwWin32ExitCode);
  }
  std::printf("\n");
  QueryServiceConfigW(service.Get(), nullptr, 0, &needed);
  std::vector<BYTE> buffer(needed);
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  if (needed > 0 && QueryServiceConfigW(service.Get(), config, needed, &needed)) {
    std::printf("  command: %s\n  account: %s\n", Narrow(config->lpBinaryPathName).c_str(),
                config->lpServiceStartName ? Narrow(config->lpServiceStartName).c_str() : "LocalSystem");
  }
  return 0;
}

}  // namespace Host
