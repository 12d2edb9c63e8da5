#pragma once
// Settings and the logger are process-wide: every piece here undoes itself.

#include <windows.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Links.h"
#include "LogCapture.h"
#include "platform/ModulePath.h"
#include "Processes.h"
#include "logger/Logger.h"
#include "logger/detail/DebugOutput.h"
#include "logger/detail/LoggerCore.h"
#include "platform/TickCount.h"

namespace DiagTest {

using TestSupport::kMessageColumn;

// Sets (nullopt: removes) a variable for the scope; the logger re-reads.
struct ScopedEnv {
  ScopedEnv(std::wstring name, std::optional<std::wstring> value) : name(std::move(name)) { Set(value); }
  ~ScopedEnv() { Set(std::nullopt); }
  void Set(const std::optional<std::wstring>& value) {
    ::SetEnvironmentVariableW(name.c_str(), value ? value->c_str() : nullptr);
    VHLogger::GetLogger().InvalidateConfiguration();
    VHLogger::GetLogger().RefreshConfiguration();
  }
  const std::wstring name;
};

// The tick count, moved by hand.
struct ScopedTicks {
  explicit ScopedTicks(DWORD start) { s_value = start; }
  ~ScopedTicks() { Kestrel::SetTickSource(previous); }
  void Advance(DWORD ms) { s_value += ms; }
  static inline std::atomic<DWORD> s_value{0};
  Kestrel::TickSource previous = Kestrel::SetTickSource([] { return s_value.load(); });
};

// What the logging code sends to the debugger output.
struct DebugCapture {
  DebugCapture() { s_current = this; }
  ~DebugCapture() { VHLogger::Detail::SetDebugOutputHook(previous); }
  std::vector<std::wstring> Texts() {
    std::lock_guard<std::mutex> lock(mutex);
    return texts;
  }
  static inline DebugCapture* s_current = nullptr;
  std::mutex mutex;
  std::vector<std::wstring> texts;
  VHLogger::Detail::DebugOutputHook previous = VHLogger::Detail::SetDebugOutputHook([](const wchar_t* text) {
    std::lock_guard<std::mutex> lock(s_current->mutex);
    s_current->texts.emplace_back(text);
  });
};

// A fresh directory under %TEMP%, removed with its contents afterwards from
// the Linux side, so links in it go as links.
struct TempDir {
  TempDir() { std::filesystem::create_directory(path); }
  ~TempDir() { TestSupport::RemoveTree(path); }
  std::wstring File(const std::wstring& name) const { return path + name; }
  static inline std::atomic<unsigned> s_count{0};
  const std::wstring path = (std::filesystem::temp_directory_path() / L"wd64diag-").wstring() +
                            std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(s_count++) + L"\\";
};

inline std::string ReadBytes(const std::wstring& path) {
  std::ifstream in(std::filesystem::path(path), std::ios::binary);
  return std::string{std::istreambuf_iterator<char>(in), {}};
}

inline std::wstring ReadUtf16(const std::wstring& path) {
  const std::string bytes = ReadBytes(path);
  return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / 2);
}

inline void WriteText(const std::wstring& path, const std::string& bytes) {
  std::ofstream(std::filesystem::path(path), std::ios::binary) << bytes;
}

// Runs this test program again with a filter and one more variable.
inline DWORD RunSelf(const std::wstring& filter, const std::wstring& name, const std::wstring& value) {
  return TestSupport::StartSelf(filter, {{name, value}}).Wait(120000);
}

}  // namespace DiagTest
