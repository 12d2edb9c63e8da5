// The service from inside: what runs under the service manager, reporting
// its state, its events and its failures.

#include <optional>
#include <string>
#include <vector>

#include "HostMessages.h"
#include "config/Config.h"
#include "config/Trust.h"
#include "logger/Logger.h"
#include "logger/detail/DetailedFormatter.h"
#include "logger/detail/FileLogger.h"
#include "module/HostHandles.h"
#include "module/ModuleHost.h"
#include "module/ModuleSettings.h"
#include "platform/ModulePath.h"
#include "rules/LogRules.h"
#include "runner/Runner.h"
#include "service/Service.h"

namespace Host {

namespace {

// State shared with the service manager's threads; one service a process.
struct ServiceState {
  ServiceOptions options;
  SERVICE_STATUS_HANDLE statusHandle = nullptr;  // the manager's; never closed
  Handle stopEvent;
  bool idle = false;
  DWORD checkpoint = 0;
  DWORD specificExitCode = 0;
};

ServiceState& TheService() {
  static ServiceState s_service;
  return s_service;
}

void SetState(DWORD state, DWORD specificExitCode = 0) {
  SERVICE_STATUS status{};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
  status.dwWin32ExitCode = specificExitCode == 0 ? NO_ERROR : ERROR_SERVICE_SPECIFIC_ERROR;
  status.dwServiceSpecificExitCode = specificExitCode;
  const bool pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
  status.dwCheckPoint = pending ? ++TheService().checkpoint : 0;
  status.dwWaitHint = pending ? 30000 : 0;
  SetServiceStatus(TheService().statusHandle, &status);
}

DWORD WINAPI OnControl(DWORD control, DWORD, void*, void*) {
  if (control == SERVICE_CONTROL_STOP || control == SERVICE_CONTROL_SHUTDOWN) {
    SetState(SERVICE_STOP_PENDING);
    SetEvent(TheService().stopEvent.Get());
    return NO_ERROR;
  }
  return control == SERVICE_CONTROL_INTERROGATE ? NO_ERROR : ERROR_CALL_NOT_IMPLEMENTED;
}

// An event under the host's own source; a service has no console to print to.
void ReportHostEvent(WORD type, DWORD id, const std::vector<std::wstring>& strings) {
  EventSourceHandle source(RegisterEventSourceW(nullptr, kHostEventSource));
  if (!source) return;
  std::vector<const wchar_t*> pointers;
  for (const std::wstring& text : strings) pointers.push_back(text.c_str());
  ReportEventW(source.Get(), type, 0, id, nullptr, static_cast<WORD>(pointers.size()), 0, pointers.data(), nullptr);
}

// One line in the module's own log, written as the module writes it (its
// folder rule, its line, its writer with the append lock), so the failure is
// found next to what the module wrote while it was being configured.
void WriteModuleLogLine(const std::wstring& modulePath, const std::wstring& text) {
  ModuleSettings settings(modulePath);
  std::wstring configured;
  const bool bConfigured = settings.Find(L"Logger", L"Path", configured) != ModuleSettings::Origin::None;
  const std::wstring folder = Kestrel::Rules::LogFolder(bConfigured ? std::optional(configured) : std::nullopt,
                                                        Kestrel::DirectoryOf(modulePath));
  VHLogger::Detail::CFileLogger log(folder + Kestrel::BaseNameOf(modulePath) + L".log", L"");
  SYSTEMTIME now;
  GetLocalTime(&now);
  std::wstring line;
  VHLogger::Detail::DetailedFormatter::FormatLine(line, VHLogger::SEV_ERR, L"wd64host", __LINE__, text, 0, now,
                                                  GetCurrentProcessId(), GetCurrentThreadId());
  log.Write(line.data(), line.size());
}

void WINAPI ServiceMain(DWORD, wchar_t**) {
  TheService().statusHandle = RegisterServiceCtrlHandlerExW(TheService().options.name.c_str(), OnControl, nullptr);
  if (TheService().statusHandle == nullptr) return;
  SetState(SERVICE_START_PENDING);
  if (TheService().idle) {
    SetState(SERVICE_RUNNING);
    WaitForSingleObject(TheService().stopEvent.Get(), INFINITE);
    SetState(SERVICE_STOPPED);
    return;
  }

  const ServiceOptions& options = TheService().options;
  const std::wstring configName = options.configFile.empty() ? L"<embedded default>" : options.configFile;
  std::wstring failure;
  std::wstring modulePath;
  DWORD code = 0;
  bool running = false;
  try {
    // Nothing is read or loaded from a file that someone other than an
    // administrator could have written.
    std::vector<Problem> untrusted = UntrustedInputs(options.configFile);
    if (!untrusted.empty()) throw ConfigError(std::move(untrusted));
    // Settings from the configuration must be in the environment before the
    // module loads.
    const Config config = options.configFile.empty() ? DefaultConfig(ProgramDirectory())
                                                     : LoadConfig(options.configFile, ProgramDirectory());
    config.ApplyGlobalSettings();
    SetState(SERVICE_START_PENDING);
    ModuleHost host;
    modulePath = host.ModulePath();
    SetState(SERVICE_START_PENDING);
    RunOptions run;
    run.metricsFile = options.metricsFile;
    run.onProgress = [] { SetState(SERVICE_START_PENDING); };
    run.onRunning = [&] {
      running = true;
      SetState(SERVICE_RUNNING);
      ReportHostEvent(EVENTLOG_INFORMATION_TYPE, MSG_HOST_SERVICE_STARTED, {options.name, configName, L"configured"});
    };
    const int exitCode = RunComponents(host, config, TheService().stopEvent.Get(), run, &failure);
    if (exitCode == 2) code = kServiceConfigRejected;
    if (exitCode == 1) code = kServiceCallFailed;
  } catch (const ConfigError& error) {
    failure = error.Text();
    code = kServiceConfigUnreadable;
  } catch (const HostError& error) {
    failure = error.Text();
    code = kServiceCallFailed;
  } catch (const std::exception& error) {
    failure = Widen(error.what());
    code = kServiceCallFailed;
  }
  if (code != 0) {
    if (running) {
      ReportHostEvent(EVENTLOG_ERROR_TYPE, MSG_HOST_SERVICE_FAILED, {options.name, failure});
    } else {
      ReportHostEvent(EVENTLOG_ERROR_TYPE, MSG_HOST_SERVICE_START_FAILED, {options.name, configName, failure});
    }
    if (!modulePath.empty()) WriteModuleLogLine(modulePath, L"service " + options.name + L" stops: " + failure);
  } else {
    ReportHostEvent(EVENTLOG_INFORMATION_TYPE, MSG_HOST_SERVICE_STOPPED, {options.name});
  }
  TheService().specificExitCode = code;
  SetState(SERVICE_STOPPED, code);
}

int Dispatch() {
  TheService().stopEvent.Reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  SERVICE_TABLE_ENTRYW table[] = {{TheService().options.name.data(), ServiceMain}, {nullptr, nullptr}};
  if (!StartServiceCtrlDispatcherW(table)) {
    return ReportLastError(L"starting the service dispatcher (only the service manager runs this; use "
                           L"'wd64host run' at a prompt)");
  }
  return TheService().specificExitCode == 0 ? 0 : 1;
}

}  // namespace

int RunAsService(const ServiceOptions& options) {
  TheService().options = options;
  return Dispatch();
}

int RunIdleService(const std::wstring& name) {
  TheService().options.name = name;
  TheService().idle = true;
  return Dispatch();
}

}  // namespace Host
