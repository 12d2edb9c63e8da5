// A minimal own-process Windows service for tests that need a real one in the
// service manager: it reports RUNNING at once and stops on the stop control.
// Its name comes from the service manager (ServiceMain's first argument), so
// one program serves any number of registered test services. With
// "hold-stop" after the name, the stop control is answered only once the
// event "Global\<name>-release" is set, so a caller of ControlService stays
// inside that call until the test lets it go. With "slow-stop FILE" instead,
// the stop control is answered at once and the service stays stopping until
// FILE exists (two minutes at most); with "slow-start FILE" it stays starting,
// accepting no control, until FILE exists. With "stop-code=<file>" it stops with a
// service-specific exit code, the size of that file in bytes when the stop
// control arrived: what had been written to it by then.

#include <windows.h>

#include <cstring>
#include <string>

namespace {

SERVICE_STATUS_HANDLE g_hStatus = nullptr;
HANDLE g_hStopEvent = nullptr;
HANDLE g_hReleaseEvent = nullptr;
std::wstring g_sStopCodeFile;
DWORD g_nStopCode = 0;
wchar_t g_releaseFile[MAX_PATH] = L"";
wchar_t g_startFile[MAX_PATH] = L"";

void Report(DWORD state, DWORD exitCode = NO_ERROR, DWORD checkPoint = 0) {
  SERVICE_STATUS status{};
  status.dwCheckPoint = checkPoint;
  status.dwWaitHint = checkPoint != 0 ? 2000 : 0;
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
  status.dwWin32ExitCode = exitCode;
  status.dwServiceSpecificExitCode = g_nStopCode;
  ::SetServiceStatus(g_hStatus, &status);
}

// Waits up to two minutes for `file` to exist; an empty name is no wait.
void AwaitFile(const wchar_t* file, DWORD pending) {
  for (DWORD i = 1; *file && ::GetFileAttributesW(file) == INVALID_FILE_ATTRIBUTES && i <= 2400; ++i) {
    if (pending != 0) Report(pending, NO_ERROR, i);
    ::Sleep(50);
  }
}

DWORD WINAPI Handler(DWORD control, DWORD, void*, void*) {
  switch (control) {
    case SERVICE_CONTROL_STOP:
      if (g_hReleaseEvent != nullptr) ::WaitForSingleObject(g_hReleaseEvent, INFINITE);
      if (WIN32_FILE_ATTRIBUTE_DATA data;
          !g_sStopCodeFile.empty() && ::GetFileAttributesExW(g_sStopCodeFile.c_str(), GetFileExInfoStandard, &data)) {
        g_nStopCode = data.nFileSizeLow;
      }
      Report(SERVICE_STOP_PENDING);
      ::SetEvent(g_hStopEvent);
      return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
      return NO_ERROR;
    default:
      return ERROR_CALL_NOT_IMPLEMENTED;
  }
}

void WINAPI ServiceMain(DWORD argc, wchar_t** argv) {
  const wchar_t* name = argc > 0 ? argv[0] : L"";
  g_hStatus = ::RegisterServiceCtrlHandlerExW(name, &Handler, nullptr);
  if (g_hStatus == nullptr) return;
  g_hStopEvent = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (g_hStopEvent == nullptr) {
    Report(SERVICE_STOPPED, ::GetLastError());
    return;
  }
  AwaitFile(g_startFile, SERVICE_START_PENDING);
  Report(SERVICE_RUNNING);
  ::WaitForSingleObject(g_hStopEvent, INFINITE);
  AwaitFile(g_releaseFile, 0);
  ::CloseHandle(g_hStopEvent);
  Report(SERVICE_STOPPED, g_sStopCodeFile.empty() ? NO_ERROR : ERROR_SERVICE_SPECIFIC_ERROR);
}

}  // namespace

int main(int argc, char** argv) {
  // An own-process service ignores the table's name; the command line may
  // still carry one for a run outside the service manager's view.
  wchar_t name[256] = L"";
  if (argc > 1) ::MultiByteToWideChar(CP_ACP, 0, argv[1], -1, name, 256);
  if (argc > 2 && std::strcmp(argv[2], "hold-stop") == 0) {
    const std::wstring release = std::wstring(L"Global\\") + name + L"-release";
    g_hReleaseEvent = ::CreateEventW(nullptr, TRUE, FALSE, release.c_str());
  }
  if (argc > 2 && std::strncmp(argv[2], "stop-code=", 10) == 0) {
    wchar_t file[MAX_PATH] = L"";
    ::MultiByteToWideChar(CP_ACP, 0, argv[2] + 10, -1, file, MAX_PATH);
    g_sStopCodeFile = file;
  }
  if (argc > 3 && std::strcmp(argv[2], "slow-stop") == 0) {
    ::MultiByteToWideChar(CP_ACP, 0, argv[3], -1, g_releaseFile, MAX_PATH);
  }
  if (argc > 3 && std::strcmp(argv[2], "slow-start") == 0) {
    ::MultiByteToWideChar(CP_ACP, 0, argv[3], -1, g_startFile, MAX_PATH);
  }
  SERVICE_TABLE_ENTRYW table[] = {{name, &ServiceMain}, {nullptr, nullptr}};
  return ::StartServiceCtrlDispatcherW(table) ? 0 : static_cast<int>(::GetLastError());
}
