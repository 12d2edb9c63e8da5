// The log line and banner, to the character: administrators and their tools
// read these columns.

#include <gtest/gtest.h>

#include <cwchar>

#include "DiagnosticsSupport.h"
#include "logger/detail/DetailedFormatter.h"

using VHLogger::Detail::DetailedFormatter;

TEST(LogFormat, LineColumnsAndTheirEdges) {
  const SYSTEMTIME time = {2024, 3, 2, 5, 14, 7, 9, 42};
  // Severity, source, number, depth, process and thread id; where `expected`
  // starts in the line (0: the whole line) and `expected`.
  const std::tuple<unsigned, const wchar_t*, unsigned, int, DWORD, DWORD, std::size_t, std::wstring> cases[] = {
      {2, L"Worker", 77, 2, 70000, 1234, 0,
       L"2024-03-05 14:07:09.042 | ERR  | 4464  1234 | Worker:77                      |     m\r\n"},
      // Only "\" separates directories; a "/" path is shown whole, cut to 26.
      {4, L"C:\\src\\common\\Worker.cpp", 77, 0, 1, 1, 46, L"Worker.cpp:77                  | m"},
      {4, L"src/common/logger/VeryLongName.cpp", 77, 0, 1, 1, 46, L"src/common/logger/VeryLong:77  | m"},
      {4, L"ABCDEFGHIJKLMNOPQRSTUVWXYZ", 77, 0, 1, 1, 46, L"ABCDEFGHIJKLMNOPQRSTUVWXYZ:77  | m"},
      {4, L"ABCDEFGHIJKLMNOPQRSTUVWXYZ1234", 5, 0, 1, 1, 46, L"ABCDEFGHIJKLMNOPQRSTUVWXYZ:5   | m"},
      // A number longer than its padding widens the column instead of being cut.
      {4, L"ABCDEFGHIJKLMNOPQRSTUVWXYZ", 123456, 0, 1, 1, 46, L"ABCDEFGHIJKLMNOPQRSTUVWXYZ:123456| m"},
      {4, nullptr, 1, 0, 1, 1, 46, L":1                             | m"},
      {4, L"W", 1, -3, 1, 1, 77, L"| m\r\n"},
      {4, L"W", 1, 31, 1, 1, 77, L"| " + std::wstring(60, L' ') + L"m\r\n"},
      {8, L"W", 1, 0, 1, 1, 23, L" |      | "},
      {4, L"W", 1, 0, 0x12345, 0xFFFF, 32, L" 9029 65535 |"},
      {4, L"W", 1, 0, 0x10000, 7, 32, L"    0     7 |"},
  };
  for (const auto& [severity, source, number, depth, pid, tid, at, expected] : cases) {
    std::wstring line;
    DetailedFormatter::FormatLine(line, severity, source, number, L"m", depth, time, pid, tid);
    EXPECT_EQ(at ? line.substr(at, expected.size()) : line, expected) << number << " " << depth;
  }
}

TEST(LogFormat, ModuleLogStartsWithBanner) {
  const std::wstring exe = Kestrel::ExecutableFilePath(), stars(100, L'*'), banner = VHLogger::ModuleBanner();
  wchar_t head[512];
  std::swprintf(head, 512,
                L"*** Module: %ls (Base: 0x%016llX)\r\n*** Version: 7.0.127.0\r\n"
                L"*** Module description: WatchDog64\r\n*** Process: %ls (Pid: %u)\r\n*** Command line: ",
                exe.c_str(), static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(Kestrel::ThisModule())),
                exe.c_str(), static_cast<unsigned>(::GetCurrentProcessId()));
  EXPECT_EQ(banner, stars + L"\r\n" + head + ::GetCommandLineW() + L"\r\n" + stars + L"\r\n");

  // The module's own log: "<module dir>\Logs\<base name>.log", this
  // process's banner before its lines.
  EXPECT_EQ(VHLogger::GetLogDirectory(), Kestrel::ModuleDirectory() + L"Logs\\");
  const std::wstring marker = L"module log marker " + std::to_wstring(::GetTickCount64());
  VH_LOG(VHLogger::SEV_ERR, L"LogFormatTests", marker.c_str());
  const std::wstring text = DiagTest::ReadUtf16(VHLogger::GetLogDirectory() + Kestrel::BaseNameOf(exe) + L".log");
  EXPECT_NE(text.find(L"| " + marker + L"\r\n", text.find(banner)), std::wstring::npos);
  EXPECT_NE(text[0], L'\xFEFF') << "no byte-order mark";
}
