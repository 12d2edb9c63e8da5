#pragma once
// Second processes for the tests: programs beside the tests, this test
// program again, and test_service.exe in the service manager. Each ends with
// its owner, also after a failed assertion.

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "Handle.h"
#include "platform/ModulePath.h"
#include "ServiceHandle.h"

namespace TestSupport {

// A program beside the tests, its output sent to a file (by default
// nowhere); killed on destruction while it still runs.
class Process {
 public:
  Process(const std::wstring& program, const std::wstring& arguments, const std::wstring& output = L"NUL") {
    const std::wstring path = Kestrel::DirectoryOf(Kestrel::ExecutableFilePath()) + program;
    std::wstring command = L"\"" + path + L"\" " + arguments;
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    Handle nul(::CreateFileW(output.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                             CREATE_ALWAYS, 0, 0));
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = startup.hStdError = nul.Get();
    PROCESS_INFORMATION info{};
    EXPECT_TRUE(::CreateProcessW(path.c_str(), command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                                 &info))
        << ::GetLastError() << ": " << std::string(command.begin(), command.end());
    ::CloseHandle(info.hThread);
    m_handle.Reset(info.hProcess);
    m_pid = info.dwProcessId;
  }
  Process(Process&&) = default;
  ~Process() { Kill(); }
  HANDLE Get() const { return m_handle.Get(); }
  DWORD Pid() const { return m_pid; }
  bool Running() const { return m_handle && ::WaitForSingleObject(m_handle.Get(), 0) == WAIT_TIMEOUT; }
  void Kill() {
    if (Running() && ::TerminateProcess(m_handle.Get(), 9)) ::WaitForSingleObject(m_handle.Get(), INFINITE);
  }
  // The exit code, or ~0 when it did not end within `ms`.
  DWORD Wait(DWORD ms = INFINITE) const {
    DWORD code = ~DWORD{0};
    if (m_handle && ::WaitForSingleObject(m_handle.Get(), ms) == WAIT_OBJECT_0) ::GetExitCodeProcess(Get(), &code);
    return code;
  }

 private:
  Handle m_handle;
  DWORD m_pid = 0;
};

// A program beside the tests run to its end (killed after `ms`): its exit code
// and what it printed on stdout and stderr, line ends as "\n".
struct Finished {
  DWORD exitCode = ~DWORD{0};
  std::string output;
};
inline Finished RunToEnd(const std::wstring& program, const std::wstring& arguments, DWORD ms = 120000) {
  static std::atomic<unsigned> s_runs{0};
  const std::wstring file = Kestrel::DirectoryOf(Kestrel::ExecutableFilePath()) + L"run-" +
                            std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(s_runs++) + L".out";
  Finished result{Process(program, arguments, file).Wait(ms), {}};
  std::ifstream in(std::filesystem::path(file), std::ios::binary);
  for (char c : std::string(std::istreambuf_iterator<char>(in), {})) {
    if (c != '\r') result.output += c;
  }
  in.close();
  ::DeleteFileW(file.c_str());
  return result;
}

// This test program again, running the cases `filter` with `environment` set.
inline Process StartSelf(const std::wstring& filter,
                         const std::vector<std::pair<std::wstring, std::wstring>>& environment = {}) {
  for (const auto& [name, value] : environment) ::SetEnvironmentVariableW(name.c_str(), value.c_str());
  Process child(Kestrel::BaseNameOf(Kestrel::ExecutableFilePath()) + L".exe",
                L"--gtest_brief=1 --gtest_filter=" + filter);
  for (const auto& [name, value] : environment) ::SetEnvironmentVariableW(name.c_str(), nullptr);
  return child;
}

inline DWORD ServiceState(const ServiceHandle& service) {
  SERVICE_STATUS status{};
  return ::QueryServiceStatus(service.Get(), &status) ? status.dwCurrentState : 0;
}

inline bool WaitForServiceState(const ServiceHandle& service, DWORD wanted, int seconds = 20) {
  for (int i = 0; i < seconds * 10; ++i, ::Sleep(100)) {
    if (ServiceState(service) == wanted) return true;
  }
  return false;
}

// test_service.exe registered under `name` and started (with a display name
// of its own: left stopped); stopped and deleted on destruction. One left
// over by an interrupted run goes first.
struct TestService {
  explicit TestService(std::wstring serviceName, const std::wstring& extraArgs = L"",
                       const wchar_t* stoppedDisplayName = nullptr)
      : name(std::move(serviceName)), manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)) {
    if (ServiceHandle stale{::OpenServiceW(manager.Get(), name.c_str(), SERVICE_ALL_ACCESS)}) Remove(stale);
    const std::wstring command = L"\"" + Kestrel::ModuleDirectory() + L"test_service.exe\" " + name + L" " + extraArgs;
    service.Reset(::CreateServiceW(manager.Get(), name.c_str(), stoppedDisplayName ? stoppedDisplayName : name.c_str(),
                                   SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                   SERVICE_ERROR_IGNORE, command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_TRUE(service) << "CreateServiceW: " << ::GetLastError();
    EXPECT_TRUE(stoppedDisplayName || (Start() && WaitForServiceState(service, SERVICE_RUNNING, 60)));
  }
  ~TestService() { EXPECT_TRUE(!service || Remove(service)) << ::GetLastError(); }
  bool Start() { return ::StartServiceW(service.Get(), 0, nullptr) != FALSE; }
  bool Stop() { return Stop(service); }
  DWORD State() const { return ServiceState(service); }

  const std::wstring name;
  ServiceHandle manager;
  ServiceHandle service;

 private:
  static bool Stop(const ServiceHandle& handle) {
    SERVICE_STATUS status{};
    ::ControlService(handle.Get(), SERVICE_CONTROL_STOP, &status);
    return WaitForServiceState(handle, SERVICE_STOPPED);
  }
  static bool Remove(const ServiceHandle& handle) {
    Stop(handle);
    return ::DeleteService(handle.Get()) != FALSE;
  }
};

}  // namespace TestSupport
