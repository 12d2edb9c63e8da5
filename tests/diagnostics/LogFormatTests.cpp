// The log line and banner, to the character: administrators and their tools
// read these columns.

#include <gtest/gtest.h>

#include <cwchar>

#include "DiagnosticsSupport.h"
#include "ModulePath.h"
#include "logger/detail/DetailedFormatter.h"

using VHLogger::Detail::DetailedFormatter;

namespace {

const SYSTEMTIME kTime = {2024, 3, 2, 5, 14, 7, 9, 42};

std::wstring Line(unsigned severity, const wchar_t* source, unsigned number, int depth, const wchar_t* message = L"m",
                  DWORD pid = 70000, DWORD tid = 1234) {
  std::wstring line;
  DetailedFormatter::FormatLine(line, severity, source, number, message, depth, kTime, pid, tid);
  return line;
}

// The source location column: from after the ids up to and including "|".
std::wstring Location(const std::wstring& line) { return line.substr(46, line.find(L'|', 46) - 46 + 1); }

}  // namespace

TEST(LogFormat, ExampleLineExactly) {
  EXPECT_EQ(
      Line(2, L"Worker", 77, 2, L"Disk query failed"),
      L"2024-03-05 14:07:09.042 | ERR  | 4464  1234 | Worker:77                      |     Disk query failed\r\n");
}

TEST(LogFormat, SourceColumnEdges) {
  // Only "\" separates directories; a "/" path is shown whole, cut to 26.
  EXPECT_EQ(Location(Line(4, L"C:\\src\\common\\Worker.cpp", 77, 0)), L"Worker.cpp:77                  |");
  EXPECT_EQ(Location(Line(4, L"src/common/logger/VeryLongName.cpp", 77, 0)), L"src/common/logger/VeryLong:77  |");
  EXPECT_EQ(Location(Line(4, L"ABCDEFGHIJKLMNOPQRSTUVWXYZ", 77, 0)), L"ABCDEFGHIJKLMNOPQRSTUVWXYZ:77  |");
  EXPECT_EQ(Location(Line(4, L"ABCDEFGHIJKLMNOPQRSTUVWXYZ1234", 5, 0)), L"ABCDEFGHIJKLMNOPQRSTUVWXYZ:5   |");
  // A number longer than its padding widens the column instead of being cut.
  EXPECT_EQ(Location(Line(4, L"ABCDEFGHIJKLMNOPQRSTUVWXYZ", 123456, 0)), L"ABCDEFGHIJKLMNOPQRSTUVWXYZ:123456|");
  EXPECT_EQ(Location(Line(4, nullptr, 1, 0)), L":1                             |");
}

TEST(LogFormat, DepthTagAndIdEdges) {
  const std::wstring base = Line(4, L"W", 1, 0, L"msg");
  const std::size_t messageColumn = base.find(L"msg");
  EXPECT_EQ(Line(4, L"W", 1, -3, L"msg").find(L"msg"), messageColumn);
  EXPECT_EQ(Line(4, L"W", 1, 31, L"msg").find(L"msg"), messageColumn + 60);

  EXPECT_EQ(Line(8, L"W", 1, 0).substr(23, 9), L" |      |");
  EXPECT_EQ(Line(6, L"W", 1, 0).substr(23, 9), L" | DBG2 |");
  EXPECT_EQ(Line(4, L"W", 1, 0, L"m", 0x12345, 0xFFFF).substr(32, 11), L" 9029 65535");
  EXPECT_EQ(Line(4, L"W", 1, 0, L"m", 0x10000, 7).substr(32, 11), L"    0     7");

  // The real formatter stamps the calling process and thread.
  std::wstring line;
  DetailedFormatter().Format(line, 4, L"W", 1, L"m", 0, &kTime);
  wchar_t ids[16];
  std::swprintf(ids, 16, L"%5u %5u", static_cast<unsigned>(::GetCurrentProcessId() & 0xFFFF),
                static_cast<unsigned>(::GetCurrentThreadId() & 0xFFFF));
  EXPECT_EQ(line.substr(32, 11), ids);
}

TEST(LogFormat, ModuleLogStartsWithBanner) {
  const std::wstring exe = Kestrel::ExecutableFilePath();
  wchar_t head[512];
  std::swprintf(head, 512,
                L"*** Module: %ls (Base: 0x%016llX)\r\n*** Version: 7.0.127.0\r\n"
                L"*** Module description: WatchDog64\r\n*** Process: %ls (Pid: %u)\r\n*** Command line: ",
                exe.c_str(), static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(Kestrel::ThisModule())),
                exe.c_str(), static_cast<unsigned>(::GetCurrentProcessId()));
  const std::wstring stars(100, L'*');
  const std::wstring banner = VHLogger::ModuleBanner();
  EXPECT_EQ(banner, stars + L"\r\n" + head + ::GetCommandLineW() + L"\r\n" + stars + L"\r\n");

  // The module's own log: its base name + ".log" in "<module dir>\Logs\",
  // this process's banner before its lines.
  const std::wstring directory = VHLogger::GetLogDirectory();
  EXPECT_EQ(directory, Kestrel::ModuleDirectory() + L"Logs\\");
  const std::wstring marker = L"module log marker " + std::to_wstring(::GetTickCount64());
  VH_LOG(VHLogger::SEV_ERR, L"LogFormatTests", marker.c_str());
  const std::wstring text = DiagTest::ReadUtf16(directory + Kestrel::BaseNameOf(exe) + L".log");
  const std::size_t bannerAt = text.find(banner);
  ASSERT_NE(bannerAt, std::wstring::npos);
  EXPECT_NE(text.find(L"| " + marker + L"\r\n", bannerAt), std::wstring::npos);
  EXPECT_NE(text[0], L'\xFEFF') << "no byte-order mark";
}
