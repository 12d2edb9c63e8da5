#pragma once
// Helpers of the watcher tests: configuration trees, a log capture installed
// in the real logger, the events text file, and real services registered in
// Wine's service manager.

#include <windows.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DataLayer/NodePtr.h"
#include "Handle.h"
#include "ModulePath.h"
#include "ServiceHandle.h"
#include "components/ComponentsCommon.h"
#include "logger/Logger.h"
#include "logger/detail/LogInterfaces.h"

namespace WatcherTests {

inline void SetInt(NodePtr& node, const wchar_t* name, std::int32_t value) {
  node.SetAttribute(name, VHN_TYPE_INT32, &value, sizeof(value));
}

inline void SetMulti(NodePtr& node, const wchar_t* name, const std::vector<std::wstring>& items) {
  std::wstring raw;
  for (const auto& item : items) raw += item + L'\0';
  node.SetAttribute(name, VHN_TYPE_STRING_ARRAY, raw.empty() ? nullptr : raw.data(), raw.size() * sizeof(wchar_t));
}

// A folder of its own under the test program's directory (a real disk).
inline std::wstring TestFolder(const std::wstring& name) {
  const std::wstring root = Kestrel::ModuleDirectory() + L"watcher-tests\\";
  ::CreateDirectoryW(root.c_str(), nullptr);
  ::CreateDirectoryW((root + name).c_str(), nullptr);
  return root + name;
}

inline std::int64_t FreeMegabytes(const std::wstring& path) {
  ULARGE_INTEGER bytes{};
  EXPECT_TRUE(::GetDiskFreeSpaceExW(path.c_str(), &bytes, nullptr, nullptr));
  return static_cast<std::int64_t>(bytes.QuadPart >> 20);
}

inline std::size_t CountOf(const std::wstring& text, const std::wstring& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::wstring::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

// Polls until `done` holds. The limit only keeps a broken build from
// hanging; no test measures time with it.
inline bool WaitFor(const std::function<bool()>& done, std::chrono::seconds limit = std::chrono::seconds(60)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// Collects every formatted log line while it is installed.
class LogCapture final : public VHLogger::Detail::ILogWriter {
 public:
  LogCapture() { VHLogger::AddLogWriter(this); }
  ~LogCapture() override { VHLogger::RemoveLogWriter(this); }
  void Write(const wchar_t* text, std::size_t length) noexcept override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_sText.append(text, length);
  }
  std::wstring Text() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sText;
  }
  std::size_t Count(const std::wstring& part) { return CountOf(Text(), part); }

 private:
  std::mutex m_mutex;
  std::wstring m_sText;
};

// The events text file every test of the program shares. The event writers
// are built once per process from the settings, so it is named at load time.
inline const std::wstring& EventsFile() {
  static const std::wstring path = [] {
    std::wstring file = TestFolder(L"") + L"events.log";
    ::DeleteFileW(file.c_str());
    ::SetEnvironmentVariableW(L"GS_EventReporting_EventsLogFile", file.c_str());
    return file;
  }();
  return path;
}
inline const bool g_bEventsFileNamed = !EventsFile().empty();

// The file's UTF-16 text from a character offset on; shared the way the
// writer shares it, since it may be appending at this moment.
inline std::wstring ReadEvents(std::size_t fromChar = 0) {
  Handle file(::CreateFileW(EventsFile().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                            nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  LARGE_INTEGER size{};
  if (!file || !::GetFileSizeEx(file.Get(), &size)) return {};
  std::wstring text(static_cast<std::size_t>(size.QuadPart) / sizeof(wchar_t), L'\0');
  DWORD read = 0;
  ::ReadFile(file.Get(), text.data(), static_cast<DWORD>(text.size() * sizeof(wchar_t)), &read, nullptr);
  text.resize(read / sizeof(wchar_t));
  return fromChar < text.size() ? text.substr(fromChar) : std::wstring();
}

// A watcher made through the module's class registry, as the host makes it.
class Watcher {
 public:
  Watcher() {
    EXPECT_EQ(GetComponentsModule().CreateComponent(&WatchDog64::CLSID_FreeSpaceWatcher, &IVHConfigurable::IID,
                                                    reinterpret_cast<void**>(&m_pConfigurable)),
              S_OK);
    m_pConfigurable->QueryInterface(&IVHShutdownable::IID, reinterpret_cast<void**>(&m_pShutdownable));
  }
  ~Watcher() {
    m_pShutdownable->Release();
    m_pConfigurable->Release();
  }
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;
  HRESULT Configure(const NodePtr& config) { return m_pConfigurable->Configure(config.Get()); }
  HRESULT Shutdown() { return m_pShutdownable->Shutdown(); }

 private:
  IVHConfigurable* m_pConfigurable = nullptr;
  IVHShutdownable* m_pShutdownable = nullptr;
};

// test_service.exe registered under `name` (own process, demand start) and
// started; stopped and deleted again on destruction, also after a failure.
class TestService {
 public:
  explicit TestService(std::wstring name, const std::wstring& extraArgs = L"")
      : m_sName(std::move(name)), m_manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)) {
    // A service left over by an interrupted run is removed first.
    if (ServiceHandle stale{::OpenServiceW(m_manager.Get(), m_sName.c_str(), SERVICE_ALL_ACCESS)}) {
      SERVICE_STATUS status{};
      ::ControlService(stale.Get(), SERVICE_CONTROL_STOP, &status);
      ::DeleteService(stale.Get());
    }
    const std::wstring command = L"\"" + Kestrel::ModuleDirectory() + L"test_service.exe\" " + m_sName + L" " + extraArgs;
    m_service.Reset(::CreateServiceW(m_manager.Get(), m_sName.c_str(), m_sName.c_str(), SERVICE_ALL_ACCESS,
                                     SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                                     command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_TRUE(m_service) << "CreateServiceW: " << ::GetLastError();
    EXPECT_TRUE(Start() && WaitFor([&] { return State() == SERVICE_RUNNING; }));
  }
  ~TestService() {
    if (!m_service) return;
    SERVICE_STATUS status{};
    ::ControlService(m_service.Get(), SERVICE_CONTROL_STOP, &status);
    WaitFor([&] { return State() == SERVICE_STOPPED; }, std::chrono::seconds(20));
    EXPECT_TRUE(::DeleteService(m_service.Get())) << ::GetLastError();
  }
  TestService(const TestService&) = delete;
  TestService& operator=(const TestService&) = delete;

  const std::wstring& Name() const noexcept { return m_sName; }
  bool Start() { return ::StartServiceW(m_service.Get(), 0, nullptr) != FALSE; }
  DWORD State() {
    SERVICE_STATUS status{};
    return ::QueryServiceStatus(m_service.Get(), &status) ? status.dwCurrentState : 0;
  }

 private:
  std::wstring m_sName;
  ServiceHandle m_manager;
  ServiceHandle m_service;
};

}  // namespace WatcherTests
