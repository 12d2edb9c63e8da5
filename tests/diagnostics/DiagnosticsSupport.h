#pragma once
// Settings and the logger are process-wide: every piece here undoes itself.

#include <windows.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Files.h"
#include "LogCapture.h"
#include "Processes.h"
#include "logger/Logger.h"
#include "logger/detail/DebugOutput.h"
#include "logger/detail/LoggerCore.h"
#include "platform/TickCount.h"

namespace DiagTest {

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

}  // namespace DiagTest
