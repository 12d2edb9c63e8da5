// The file logger on real files, with a second process where the behaviour
// depends on one: shared appends, a file held without write sharing.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <thread>

#include "DiagnosticsSupport.h"
#include "ModulePath.h"
#include "logger/detail/FileLogger.h"

using DiagTest::ScopedEnv;
using DiagTest::TempDir;
using VHLogger::Detail::CFileLogger;

namespace {

constexpr auto npos = CFileLogger::npos;
constexpr unsigned kChildLines = 1500;

// Line i of a writer: tag, number and i % 53 + 1 filler characters, so lines
// differ in length and a torn or mixed line cannot pass for a whole one.
std::wstring Numbered(const std::wstring& tag, unsigned index) {
  return tag + L" " + std::to_wstring(index) + L" " +
         std::wstring(index % 53 + 1, static_cast<wchar_t>(L'a' + index % 26));
}

bool WaitFor(const std::function<bool()>& condition) {
  for (int i = 0; i < 1000 && !condition(); ++i) ::Sleep(10);
  return condition();
}

void LogNumbered(CFileLogger& logger, const std::wstring& tag, unsigned count) {
  for (unsigned i = 0; i < count; ++i)
    VHLogger::GetLogger().Write(VHLogger::SEV_INFO, Numbered(tag, i), L"Concurrency", 1, &logger);
}

}  // namespace

// The second process of the test below: one more module logger on the same
// file, as when two host processes load the module.
TEST(FileLoggerChild, AppendsNumberedLines) {
  wchar_t path[MAX_PATH] = L"";
  if (::GetEnvironmentVariableW(L"WD64_DIAG_APPEND_FILE", path, MAX_PATH) == 0) GTEST_SKIP() << "second process only";
  CFileLogger logger(path, L"=== banner ===\r\n");
  LogNumbered(logger, L"child", kChildLines);
}

TEST(FileLogger, ThreadsAndAnotherProcessLoseAndTearNothing) {
  constexpr unsigned kThreads = 8, kPerThread = 400;
  TempDir dir;
  const std::wstring path = dir.File(L"shared.log");
  CFileLogger logger(path, L"=== banner ===\r\n");
  DWORD childExit = 0;
  std::thread child([&] { childExit = DiagTest::RunSelf(L"FileLoggerChild.*", L"WD64_DIAG_APPEND_FILE", path); });
  ASSERT_TRUE(WaitFor([&] { return DiagTest::FileSize(path) > 0; }));
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] { LogNumbered(logger, L"T" + std::to_wstring(t), kPerThread); });
  for (auto& thread : threads) thread.join();
  child.join();
  EXPECT_EQ(childExit, 0u);

  std::map<std::wstring, std::vector<int>> seen;
  int banners = 0, bad = 0;
  for (const auto& line : DiagTest::SplitLines(DiagTest::ReadUtf16(path))) {
    if (line == L"=== banner ===") {
      ++banners;
      continue;
    }
    const std::wstring message = DiagTest::SplitLine(line).message;
    const std::size_t space = message.find(L' ');
    const unsigned index = space == std::wstring::npos ? 0 : std::wcstoul(message.c_str() + space + 1, nullptr, 10);
    if (space == std::wstring::npos || index > kChildLines || message != Numbered(message.substr(0, space), index)) {
      if (++bad < 5) ADD_FAILURE() << "torn or mixed line: " << std::string(line.begin(), line.end());
      continue;
    }
    auto& counts = seen[message.substr(0, space)];
    counts.resize(std::max<std::size_t>(counts.size(), index + 1));
    ++counts[index];
  }
  EXPECT_EQ(banners, 2) << "one from each process";
  EXPECT_EQ(bad, 0);
  ASSERT_EQ(seen.size(), kThreads + 1);
  for (const auto& [tag, counts] : seen)
    EXPECT_EQ(counts, std::vector<int>(tag == L"child" ? kChildLines : kPerThread, 1))
        << std::string(tag.begin(), tag.end());
}

TEST(FileLogger, MovedFileIsFollowedUntilTheIntervalEnds) {
  DiagTest::ScopedTicks ticks(100000);
  TempDir dir;
  CFileLogger logger(dir.File(L"move.log"), L"BANNER\r\n");
  logger.Write(L"one\r\n", npos);
  ASSERT_TRUE(::MoveFileW(dir.File(L"move.log").c_str(), dir.File(L"moved.log").c_str()));
  ticks.Advance(4999);
  logger.Write(L"two\r\n", 5);
  ticks.Advance(1);  // the default 5000 ms have passed: reopen by name
  logger.Write(L"three\r\n", npos);
  EXPECT_EQ(DiagTest::ReadUtf16(dir.File(L"moved.log")), L"BANNER\r\none\r\ntwo\r\n");
  EXPECT_EQ(DiagTest::ReadUtf16(dir.File(L"move.log")), L"BANNER\r\nthree\r\n");
}

TEST(FileLogger, StopsAtTheSizeThreshold) {
  TempDir dir;
  const std::wstring path = dir.File(L"big.log");
  ScopedEnv threshold(L"GS_Logger_LogFileSizeThresholdMB", L"1");
  ScopedEnv zero(L"GS_Logger_KeepOpenInterval", L"0");
  DiagTest::DebugCapture debug;
  CFileLogger logger(path, L"");

  DiagTest::WriteText(path, std::string(1048576, 'x'));
  logger.Write(L"x\r\n", npos);
  logger.Write(L"x\r\n", npos);
  EXPECT_EQ(DiagTest::FileSize(path), 1048576u);
  EXPECT_EQ(debug.With(path),
            (std::vector<std::wstring>{L"FileLogger: log file '" + path + L"' is too big (size=1MB threshold=1MB)\n"}));
  DiagTest::WriteText(path, std::string(1048575, 'x'));
  logger.Write(L"x\r\n", npos);
  EXPECT_EQ(DiagTest::FileSize(path), 1048575u + 6);
}

TEST(FileLogger, FileHeldWithoutWriteSharingIsTriedFourTimes) {
  TempDir dir;
  const std::wstring path = dir.File(L"held.log");
  ScopedEnv zero(L"GS_Logger_KeepOpenInterval", L"0");
  HANDLE holder = DiagTest::Start(L"test_helper.exe", L"hold \"" + path + L"\" 1500");
  ASSERT_TRUE(WaitFor([&] {
    HANDLE probe = ::CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                 nullptr, OPEN_EXISTING, 0, nullptr);
    const DWORD error = ::GetLastError();
    if (probe != INVALID_HANDLE_VALUE) ::CloseHandle(probe);
    return probe == INVALID_HANDLE_VALUE && error == ERROR_SHARING_VIOLATION;
  }));

  DiagTest::DebugCapture debug;
  CFileLogger logger(path, L"");
  const ULONGLONG start = ::GetTickCount64();
  logger.Write(L"lost\r\n", npos);
  EXPECT_GE(::GetTickCount64() - start, 35u) << "four attempts, each followed by 10 ms";
  EXPECT_EQ(debug.With(path),
            (std::vector<std::wstring>{L"FileLogger: cannot open log file '" + path + L"' (error: 0x80070020)\n"}));
  // The logger goes on once the file is free again.
  EXPECT_EQ(DiagTest::WaitExitCode(holder), 0u);
  logger.Write(L"kept\r\n", npos);
  EXPECT_EQ(DiagTest::ReadUtf16(path), L"kept\r\n");
}

TEST(FileLogger, PathSettingAndNamesThatArePaths) {
  TempDir dir;
  ScopedEnv rootVariable(L"WD64_DIAG_ROOT", dir.File(L"new"));
  ScopedEnv path(L"GS_Logger_Path", L"%WD64_DIAG_ROOT%/Logs2");
  const std::wstring expected = dir.File(L"new\\Logs2\\");
  EXPECT_EQ(VHLogger::GetLogDirectory(), expected);
  EXPECT_NE(::GetFileAttributesW(expected.c_str()) & FILE_ATTRIBUTE_DIRECTORY, 0u) << "created on the way";
  EXPECT_EQ(CFileLogger(L"bare.log", L"").FilePath(), expected + L"bare.log");

  // A name with a separator is used as it stands, "Path" or not.
  std::wstring slashed = dir.File(L"direct.log");
  std::replace(slashed.begin(), slashed.end(), L'\\', L'/');
  CFileLogger direct(slashed, L"");
  direct.Write(L"here\r\n", npos);
  EXPECT_EQ(DiagTest::ReadUtf16(dir.File(L"direct.log")), L"here\r\n");
}
