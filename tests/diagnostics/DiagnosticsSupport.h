#pragma once
// Shared pieces of the diagnostics tests. Settings and the logger are
// process-wide, so every piece undoes itself.

#include <windows.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "logger/Logger.h"
#include "logger/detail/DebugOutput.h"
#include "logger/detail/LoggerCore.h"
#include "settings/TickCount.h"

namespace DiagTest {

// Sets (nullopt: removes) an environment variable and makes the logger
// re-read its settings at once, both ways.
class ScopedEnv {
 public:
  ScopedEnv(std::wstring name, std::optional<std::wstring> value);
  ~ScopedEnv();

 private:
  std::wstring m_name;
  std::optional<std::wstring> m_old;
};

// Holds the tick count at a value the test moves by hand.
class ScopedTicks {
 public:
  explicit ScopedTicks(DWORD start) {
    Value() = start;
    m_previous = GlobalSettings::Detail::SetTickSource([] { return Value().load(); });
  }
  ~ScopedTicks() { GlobalSettings::Detail::SetTickSource(m_previous); }
  void Set(DWORD ticks) { Value() = ticks; }
  void Advance(DWORD ms) { Value() += ms; }

 private:
  static std::atomic<DWORD>& Value() {
    static std::atomic<DWORD> s_value{0};
    return s_value;
  }
  GlobalSettings::Detail::TickSource m_previous;
};

// Collects what the logging code sends to the debugger output.
class DebugCapture {
 public:
  DebugCapture();
  ~DebugCapture();
  // The messages that contain `text`.
  std::vector<std::wstring> With(const std::wstring& text) const;
};

// A log writer that keeps its lines; installed in the logger while it lives.
class CaptureWriter : public VHLogger::Detail::ILogWriter {
 public:
  explicit CaptureWriter(bool install = true) : m_installed(install && VHLogger::AddLogWriter(this)) {}
  ~CaptureWriter() override {
    if (m_installed) VHLogger::RemoveLogWriter(this);
  }
  void Write(const wchar_t* text, std::size_t length) noexcept override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.emplace_back(text, length);
  }
  std::vector<std::wstring> Lines() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
  }

 private:
  bool m_installed;
  std::mutex m_mutex;
  std::vector<std::wstring> m_lines;
};

// A fresh directory under %TEMP%, removed with its contents afterwards.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  std::wstring File(const std::wstring& name) const { return m_path + name; }

 private:
  std::wstring m_path;
};

std::wstring ReadUtf16(const std::wstring& path);
std::vector<std::wstring> SplitLines(const std::wstring& text);
void WriteText(const std::wstring& path, const std::string& bytes);
std::uint64_t FileSize(const std::wstring& path);

// Starts a program beside the tests; returns its process handle.
HANDLE Start(const std::wstring& program, const std::wstring& arguments);
DWORD WaitExitCode(HANDLE process);
// Runs this test program again with one filter and one more environment
// variable; returns its exit code.
DWORD RunSelf(const std::wstring& filter, const std::wstring& name, const std::wstring& value);

// Indentation (in levels) and message of a formatted line; depth -1 when the
// line has not the log line's columns.
struct LineColumns {
  int depth;
  std::wstring message;
};
LineColumns SplitLine(const std::wstring& line);

}  // namespace DiagTest
