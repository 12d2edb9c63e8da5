#pragma once
// Shared pieces of the diagnostics tests. Settings and the logger are
// process-wide, so every piece undoes itself.

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ModulePath.h"
#include "logger/Logger.h"
#include "logger/detail/DebugOutput.h"
#include "logger/detail/LoggerCore.h"
#include "settings/TickCount.h"

namespace DiagTest {

// Where a depth 0 message starts in a log line whose source fits its column.
constexpr std::size_t kMessageColumn = 79;

// Sets (nullopt: removes) a variable until the end of the scope; the logger
// re-reads its settings at once, both ways.
class ScopedEnv {
 public:
  ScopedEnv(std::wstring name, std::optional<std::wstring> value) : m_name(std::move(name)) { Set(value); }
  ~ScopedEnv() { Set(std::nullopt); }

 private:
  void Set(const std::optional<std::wstring>& value) {
    ::SetEnvironmentVariableW(m_name.c_str(), value ? value->c_str() : nullptr);
    VHLogger::GetLogger().InvalidateConfiguration();
    VHLogger::GetLogger().RefreshConfiguration();
  }
  std::wstring m_name;
};

// Holds the tick count at a value the test moves by hand.
class ScopedTicks {
 public:
  explicit ScopedTicks(DWORD start) { s_value = start; }
  ~ScopedTicks() { GlobalSettings::Detail::SetTickSource(m_previous); }
  void Advance(DWORD ms) { s_value += ms; }

 private:
  static inline std::atomic<DWORD> s_value{0};
  GlobalSettings::Detail::TickSource m_previous = GlobalSettings::Detail::SetTickSource([] { return s_value.load(); });
};

// Texts gathered from any thread.
class Collected {
 public:
  void Add(std::wstring text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_texts.push_back(std::move(text));
  }
  std::vector<std::wstring> Texts() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_texts;
  }

 private:
  std::mutex m_mutex;
  std::vector<std::wstring> m_texts;
};

// Collects what the logging code sends to the debugger output.
class DebugCapture : public Collected {
 public:
  DebugCapture() {
    s_current = this;
    m_previous = VHLogger::Detail::SetDebugOutputHook([](const wchar_t* text) { s_current->Add(text); });
  }
  ~DebugCapture() { VHLogger::Detail::SetDebugOutputHook(m_previous); }

 private:
  static inline DebugCapture* s_current = nullptr;
  VHLogger::Detail::DebugOutputHook m_previous;
};

// A log writer that keeps its lines; installed in the logger while it lives.
class CaptureWriter : public VHLogger::Detail::ILogWriter, public Collected {
 public:
  CaptureWriter() : m_installed(VHLogger::AddLogWriter(this)) {}
  ~CaptureWriter() override {
    if (m_installed) VHLogger::RemoveLogWriter(this);
  }
  void Write(const wchar_t* text, std::size_t length) noexcept override { Add(std::wstring(text, length)); }
  bool Installed() const { return m_installed; }

 private:
  bool m_installed;
};

// A fresh directory under %TEMP%, removed with its contents afterwards.
class TempDir {
 public:
  TempDir() { std::filesystem::create_directory(m_path); }
  ~TempDir() { std::filesystem::remove_all(m_path, m_error); }
  std::wstring File(const std::wstring& name) const { return m_path + name; }

 private:
  static inline std::atomic<unsigned> s_count{0};
  std::wstring m_path = (std::filesystem::temp_directory_path() / L"wd64diag-").wstring() +
                        std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(s_count++) + L"\\";
  std::error_code m_error;
};

inline std::wstring ReadUtf16(const std::wstring& path) {
  std::ifstream in(std::filesystem::path(path), std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(in), {}};
  return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / 2);
}

inline void WriteText(const std::wstring& path, const std::string& bytes) {
  std::ofstream(std::filesystem::path(path), std::ios::binary) << bytes;
}

// Starts a program beside the tests; returns its process handle.
inline HANDLE Start(const std::wstring& program, const std::wstring& arguments) {
  std::wstring commandLine = L"\"" + Kestrel::DirectoryOf(Kestrel::ExecutableFilePath()) + program + L"\" " + arguments;
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION process{};
  if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
    return nullptr;
  ::CloseHandle(process.hThread);
  return process.hProcess;
}

inline DWORD WaitExitCode(HANDLE process) {
  DWORD code = 0xFFFFFFFF;
  if (process && ::WaitForSingleObject(process, 120000) == WAIT_OBJECT_0) ::GetExitCodeProcess(process, &code);
  if (process) ::CloseHandle(process);
  return code;
}

// Runs this test program again with a filter and one more variable.
inline DWORD RunSelf(const std::wstring& filter, const std::wstring& name, const std::wstring& value) {
  ScopedEnv env(name, value);
  return WaitExitCode(
      Start(Kestrel::BaseNameOf(Kestrel::ExecutableFilePath()) + L".exe", L"--gtest_brief=1 --gtest_filter=" + filter));
}

}  // namespace DiagTest
