#include "Service.h"

#include <cstdio>
#include <filesystem>

#include "Config.h"
#include "ModuleHost.h"
#include "Runner.h"

namespace Host {

namespace {

struct ServiceHandleCloser {
  void operator()(SC_HANDLE handle) const noexcept {
    if (handle != nullptr) CloseServiceHandle(handle);
  }
};
using ScHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, ServiceHandleCloser>;

int Report(HRESULT hr, const std::wstring& what) {
  std::fprintf(stderr, "%s\n", Narrow(HostError(hr, what).Text()).c_str());
  return 1;
}

std::wstring ProgramPath() {
  wchar_t path[MAX_PATH * 4];
  const DWORD length = GetModuleFileNameW(nullptr, path, static_cast<DWORD>(std::size(path)));
  return std::wstring(path, length);
}

// State shared with the service manager's threads; one service a process.
struct ServiceState {
  ServiceOptions options;
  SERVICE_STATUS_HANDLE statusHandle = nullptr;
  HANDLE stopEvent = nullptr;
  bool idle = false;
  int exitCode = 0;
} g_service;

void SetState(DWORD state, DWORD exitCode = NO_ERROR) {
  SERVICE_STATUS status{};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
  status.dwWin32ExitCode = exitCode;
  status.dwWaitHint = state == SERVICE_RUNNING || state == SERVICE_STOPPED ? 0 : 10000;
  SetServiceStatus(g_service.statusHandle, &status);
}

DWORD WINAPI OnControl(DWORD control, DWORD, void*, void*) {
  if (control == SERVICE_CONTROL_STOP || control == SERVICE_CONTROL_SHUTDOWN) {
    SetState(SERVICE_STOP_PENDING);
    SetEvent(g_service.stopEvent);
    return NO_ERROR;
  }
  return control == SERVICE_CONTROL_INTERROGATE ? NO_ERROR : ERROR_CALL_NOT_IMPLEMENTED;
}

void WINAPI ServiceMain(DWORD, wchar_t**) {
  g_service.statusHandle =
      RegisterServiceCtrlHandlerExW(g_service.options.name.c_str(), OnControl, nullptr);
  if (g_service.statusHandle == nullptr) return;
  SetState(SERVICE_START_PENDING);
  SetState(SERVICE_RUNNING);
  if (g_service.idle) {
    WaitForSingleObject(g_service.stopEvent, INFINITE);
  } else {
    try {
      ModuleHost host;
      const Config config = g_service.options.configFile.empty()
                                ? DefaultConfig(host.ModuleDirectory())
                                : LoadConfig(g_service.options.configFile, host.ModuleDirectory());
      g_service.exitCode = RunComponents(host, config, g_service.stopEvent, std::nullopt);
    } catch (const HostError& error) {
      Say("%s", Narrow(error.Text()).c_str());
      g_service.exitCode = 1;
    } catch (const ConfigError& error) {
      Say("%s", Narrow(error.Text()).c_str());
      g_service.exitCode = 1;
    }
  }
  SetState(SERVICE_STOPPED, g_service.exitCode == 0 ? NO_ERROR : ERROR_SERVICE_SPECIFIC_ERROR);
}

int Dispatch() {
  g_service.stopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  SERVICE_TABLE_ENTRYW table[] = {{g_service.options.name.data(), ServiceMain}, {nullptr, nullptr}};
  if (!StartServiceCtrlDispatcherW(table)) {
    return Report(HRESULT_FROM_WIN32(GetLastError()), L"starting the service dispatcher (run this through the service manager)");
  }
  return g_service.exitCode;
}

}  // namespace

int InstallService(const ServiceOptions& options) {
  std::wstring command = L"\"" + ProgramPath() + L"\" service run --name \"" + options.name + L"\"";
  if (!options.configFile.empty()) {
    command += L" --config \"" + std::filesystem::absolute(options.configFile).wstring() + L"\"";
  }
  ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
  if (!manager) return Report(HRESULT_FROM_WIN32(GetLastError()), L"opening the service manager");
  const std::wstring display = options.name + L" server health watchdog";
  ScHandle service(CreateServiceW(manager.get(), options.name.c_str(), display.c_str(), SERVICE_ALL_ACCESS,
                                  SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                                  command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
  if (!service) return Report(HRESULT_FROM_WIN32(GetLastError()), L"creating service '" + options.name + L"'");
  std::wstring text = L"Watches free disk space, stops services before a disk runs full, and packs old logs.";
  SERVICE_DESCRIPTIONW description{text.data()};
  ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_DESCRIPTION, &description);
  std::printf("service '%s' installed: %s\n", Narrow(options.name).c_str(), Narrow(command).c_str());
  return 0;
}

int UninstallService(const ServiceOptions& options) {
  ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (!manager) return Report(HRESULT_FROM_WIN32(GetLastError()), L"opening the service manager");
  ScHandle service(OpenServiceW(manager.get(), options.name.c_str(), SERVICE_STOP | SERVICE_QUERY_STATUS | DELETE));
  if (!service) return Report(HRESULT_FROM_WIN32(GetLastError()), L"opening service '" + options.name + L"'");
  SERVICE_STATUS status{};
  if (ControlService(service.get(), SERVICE_CONTROL_STOP, &status)) {
    // Give it the time a clean shutdown of the components takes.
    for (int i = 0; i < 100 && QueryServiceStatus(service.get(), &status) && status.dwCurrentState != SERVICE_STOPPED;
         ++i) {
      Sleep(100);
    }
  }
  if (!DeleteService(service.get())) {
    return Report(HRESULT_FROM_WIN32(GetLastError()), L"deleting service '" + options.name + L"'");
  }
  std::printf("service '%s' removed\n", Narrow(options.name).c_str());
  return 0;
}

int RunAsService(const ServiceOptions& options) {
  g_service.options = options;
  return Dispatch();
}

int RunIdleService(const std::wstring& name) {
  g_service.options.name = name;
  g_service.idle = true;
  return Dispatch();
}

}  // namespace Host
