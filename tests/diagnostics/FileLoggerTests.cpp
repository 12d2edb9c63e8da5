// The file logger on real files, with a second process where the behaviour
// depends on one: shared appends, a file held without write sharing, files
// moved away under writers.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "DiagnosticsSupport.h"
#include "logger/detail/FileLogger.h"
#include "platform/PlainFile.h"

using TestSupport::ReadBytes;
using TestSupport::ReadUtf16;
using TestSupport::TempDir;
using TestSupport::WriteText;
using TestSupport::kMessageColumn;
using VHLogger::Detail::CFileLogger;
constexpr auto npos = CFileLogger::npos;

namespace {
// Writers 0 to 7 are threads. Lengths differ, so a torn or mixed line cannot
// pass for a whole one.
constexpr unsigned kThreads = 8, kPerWriter = 400;
std::wstring Numbered(unsigned writer, unsigned index) {
  return std::to_wstring(writer) + L" " + std::to_wstring(index) + std::wstring(index % 53 + 1, L'a' + index % 26);
}
void LogNumbered(CFileLogger& logger, unsigned writer) {
  for (unsigned i = 0; i < kPerWriter; ++i)
    VHLogger::GetLogger().Write(VHLogger::SEV_INFO, Numbered(writer, i), L"Concurrency", 1, &logger);
}
// Every line of writers `first` to `last` - 1, once, as MessagesOf gives it.
std::multiset<std::wstring> Expected(unsigned first, unsigned last) {
  std::multiset<std::wstring> expected;
  for (unsigned writer = first; writer < last; ++writer)
    for (unsigned i = 0; i < kPerWriter; ++i) expected.insert(Numbered(writer, i) + L"\r");
  return expected;
}
// The messages of a file's lines, each ending in "\r"; a banner line whole.
std::vector<std::wstring> MessagesOf(const std::wstring& path) {
  std::vector<std::wstring> messages;
  std::wistringstream text(ReadUtf16(path));
  for (std::wstring line; std::getline(text, line);)
    messages.push_back(line.size() > kMessageColumn ? line.substr(kMessageColumn) : line);
  return messages;
}
constexpr wchar_t kBanner[] = L"=== banner ===\r";
}  // namespace

TEST(FileLogger, PathSettingNamesThatArePathsAndMovedFiles) {
  TempDir dir;
  DiagTest::ScopedEnv root(L"WD64_DIAG_ROOT", dir.File(L"new")), path(L"GS_Logger_Path", L"%WD64_DIAG_ROOT%/Logs2");
  const std::wstring expected = dir.File(L"new\\Logs2\\");
  EXPECT_EQ(VHLogger::GetLogDirectory(), expected);
  EXPECT_TRUE(std::filesystem::is_directory(expected)) << "created on the way";
  EXPECT_EQ(CFileLogger(L"bare.log", L"").FilePath(), expected + L"bare.log");
  // A name with a separator is used as it stands, "Path" or not.
  CFileLogger(std::filesystem::path(dir.File(L"direct.log")).generic_wstring(), L"").Write(L"here\r\n", npos);
  EXPECT_EQ(ReadUtf16(dir.File(L"direct.log")), L"here\r\n");

  // A moved file is followed until the default 5000 ms end, then reopened.
  DiagTest::ScopedTicks ticks(100000);
  CFileLogger logger(dir.File(L"move.log"), L"BANNER\r\n");
  logger.Write(L"one\r\n", npos);
  ASSERT_TRUE(::MoveFileW(dir.File(L"move.log").c_str(), dir.File(L"moved.log").c_str()));
  ticks.Advance(4999);
  logger.Write(L"two\r\n", 5);
  ticks.Advance(1);
  logger.Write(L"three\r\n", npos);
  EXPECT_EQ(ReadUtf16(dir.File(L"moved.log")), L"BANNER\r\none\r\ntwo\r\n");
  EXPECT_EQ(ReadUtf16(dir.File(L"move.log")), L"BANNER\r\nthree\r\n");
}

TEST(FileLogger, RefusedWritesAreReportedAndLoggingGoesOn) {
  TempDir dir;
  const std::wstring big = dir.File(L"big.log"), held = dir.File(L"held.log");
  DiagTest::ScopedEnv threshold(L"GS_Logger_LogFileSizeThresholdMB", L"1"), zero(L"GS_Logger_KeepOpenInterval", L"0");
  DiagTest::DebugCapture debug;
  CFileLogger logger(big, L"");
  WriteText(big, std::string(1048576, 'x'));
  logger.Write(L"x\r\n", npos);
  logger.Write(L"x\r\n", npos);  // refused again, reported once
  EXPECT_EQ(std::filesystem::file_size(big), 1048576u);
  WriteText(big, std::string(1048575, 'x'));
  logger.Write(L"x\r\n", npos);
  EXPECT_EQ(std::filesystem::file_size(big), 1048575u + 6);

  // Another process holds the file without write sharing.
  TestSupport::Process holder(L"test_helper.exe", L"hold \"" + held + L"\" 1500");
  ASSERT_TRUE(TestSupport::WaitUntilHeld(held, GENERIC_WRITE));
  CFileLogger second(held, L"");
  const ULONGLONG start = ::GetTickCount64();
  second.Write(L"lost\r\n", npos);
  EXPECT_GE(::GetTickCount64() - start, 35u) << "four attempts, each followed by 10 ms";
  EXPECT_EQ(debug.Texts(),
            (std::vector<std::wstring>{L"FileLogger: log file '" + big + L"' is too big (size=1MB threshold=1MB)\n",
                                       L"FileLogger: cannot open log file '" + held + L"' (error: 0x80070020)\n"}));
  EXPECT_EQ(holder.Wait(120000), 0u);
  second.Write(L"kept\r\n", npos);
  EXPECT_EQ(ReadUtf16(held), L"kept\r\n");
}

// Writers on eight threads while the file is moved away again and again and
// the kept handle is replaced after each move: every line lands whole in
// exactly one of the files, and each file starts with the banner. The name
// holds characters no ANSI code page has.
TEST(FileLogger, FilesMovedAwayUnderWritersLoseNoLine) {
  TempDir dir;
  const std::wstring path = dir.File(L"\u0436\u0443\u0440\u043D\u0430\u043B-\u65E5\u672C-\U0001F5C2.log");
  DiagTest::ScopedTicks ticks(200000);
  CFileLogger logger(path, L"=== banner ===\r\n");
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (unsigned writer = 0; writer < kThreads; ++writer)
    threads.emplace_back([&, writer] { LogNumbered(logger, writer); });
  std::thread mover([&] {
    for (unsigned moves = 0; !done.load(); ++moves) {
      ::Sleep(15);
      const std::wstring moved = dir.File(L"moved-" + std::to_wstring(moves) + L".log");
      if (::MoveFileW(path.c_str(), moved.c_str())) ticks.Advance(5000);  // the next line reopens
    }
  });
  for (auto& thread : threads) thread.join();
  done = true;
  mover.join();

  // Each file the banner first and once, then whole lines.
  std::multiset<std::wstring> expected = Expected(0, kThreads), found;
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path)) {
    const std::vector<std::wstring> messages = MessagesOf(entry.path().wstring());
    ++files;
    EXPECT_EQ(messages.empty() ? L"" : messages[0], kBanner) << "no banner first in file " << files;
    found.insert(messages.begin() + std::min<std::size_t>(messages.size(), 1), messages.end());
  }
  EXPECT_GT(files, 1u) << "the file was never moved";
  EXPECT_EQ(found.count(kBanner), 0u);
  EXPECT_EQ(expected.size() - std::min(expected.size(), found.size()), 0u) << "lines lost";
  EXPECT_TRUE(found == expected) << "lost, torn, mixed or repeated lines among " << found.size();
}

// A second process writing the same file (as a second host does) is killed
// at a random moment while eight threads of this one write too: this process
// loses no line, and what the killed one wrote is whole lines, in order,
// without a gap; each process's banner is there once.
TEST(FileLogger, AWriterKilledMidWayTearsNothing) {
  constexpr unsigned kKilledWriter = 99;
  wchar_t shared[MAX_PATH] = L"";
  if (::GetEnvironmentVariableW(L"WD64_DIAG_KILLED_FILE", shared, MAX_PATH)) {
    CFileLogger logger(shared, L"=== banner ===\r\n");
    for (unsigned i = 0;; ++i)
      VHLogger::GetLogger().Write(VHLogger::SEV_INFO, Numbered(kKilledWriter, i), L"Concurrency", 1, &logger);
  }
  TempDir dir;
  const std::wstring path = dir.File(L"killed.log");
  TestSupport::Process child = TestSupport::StartSelf(L"FileLogger.AWriterKilled*", {{L"WD64_DIAG_KILLED_FILE", path}});
  ASSERT_NE(child.Get(), nullptr);
  const std::wstring firstKilledLine = Numbered(kKilledWriter, 0) + L"\r\n";
  for (int i = 0; i < 1000 && ReadUtf16(path).find(firstKilledLine) == std::wstring::npos; ++i) ::Sleep(10);

  CFileLogger logger(path, L"=== banner ===\r\n");
  std::vector<std::thread> threads;
  for (unsigned writer = 0; writer < kThreads; ++writer)
    threads.emplace_back([&, writer] { LogNumbered(logger, writer); });
  std::random_device random;
  ::Sleep(random() % 300);
  child.Kill();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(child.Wait(), 9u);

  std::multiset<std::wstring> found;
  unsigned killedLines = 0, banners = 0, torn = 0;
  for (const std::wstring& message : MessagesOf(path)) {
    if (message == kBanner) {
      ++banners;
    } else if (message.rfind(std::to_wstring(kKilledWriter) + L" ", 0) != 0) {
      found.insert(message);
    } else if (message == Numbered(kKilledWriter, killedLines) + L"\r") {
      ++killedLines;
    } else {
      ++torn;
    }
  }
  EXPECT_EQ(banners, 2u);
  EXPECT_GT(killedLines, 0u);
  EXPECT_EQ(torn, 0u);
  EXPECT_TRUE(found == Expected(0, kThreads)) << "lost, torn, mixed or repeated lines among " << found.size();
}

// The module's own log as a user who plants links meets it: a hard link and
// a symbolic link to a victim at the log's name are refused, reported once,
// and the victim keeps every byte; a plain file at that name in the next
// folder gets the banner first (no byte-order mark) and the lines. A log
// folder that cannot be made is refused the same way, and nothing is written.
TEST(FileLogger, ModuleLogTakesOnlyAPlainFileOfItsFolder) {
  TempDir dir;
  const std::wstring name = Kestrel::BaseNameOf(Kestrel::ExecutableFilePath()) + L".log";
  DiagTest::ScopedEnv zero(L"GS_Logger_KeepOpenInterval", L"0"), path(L"GS_Logger_Path", std::nullopt);
  const std::pair<const wchar_t*, Kestrel::EntryRefusal> cases[] = {{L"hard", Kestrel::EntryRefusal::kSeveralNames},
                                                                    {L"plain", Kestrel::EntryRefusal::kNone},
                                                                    {L"symbolic", Kestrel::EntryRefusal::kOutside},
                                                                    {L"file", Kestrel::EntryRefusal::kNone}};
  for (const auto& [kind, refusal] : cases) {
    SCOPED_TRACE(kind);
    const std::wstring folder = dir.File(kind) + L"\\", victim = dir.File(kind) + L".txt";
    std::filesystem::create_directories(folder);
    WriteText(victim, "victim bytes");
    if (refusal != Kestrel::EntryRefusal::kNone) TestSupport::MakeLink(victim, folder + name, kind[0] == L's');
    path.Set(kind[0] == L'f' ? victim : folder);  // the last case names a file as the folder
    DiagTest::DebugCapture debug;
    VH_LOG(VHLogger::SEV_ERR, L"LinkTests", L"first line");
    VH_LOG(VHLogger::SEV_ERR, L"LinkTests", L"second line");
    EXPECT_EQ(ReadBytes(victim), "victim bytes");
    const std::vector<std::wstring> reported = debug.Texts();
    if (kind[0] == L'f') {
      ASSERT_EQ(reported.size(), 1u);
      EXPECT_EQ(reported[0].rfind(L"LogManager: log folder '" + victim + L"\\' refused: 0x8007010B ", 0), 0u);
    } else if (refusal == Kestrel::EntryRefusal::kNone) {
      const std::wstring text = ReadUtf16(folder + name);
      EXPECT_EQ(text.rfind(VHLogger::ModuleBanner(), 0), 0u);
      EXPECT_NE(text.find(L"| second line\r\n"), std::wstring::npos) << text;
      EXPECT_EQ(reported, std::vector<std::wstring>{});
    } else {
      EXPECT_EQ(reported, std::vector<std::wstring>{L"FileLogger: log file '" + folder + name + L"' refused: " +
                                                    Kestrel::RefusalText(refusal) + L"\n"});
    }
  }
}
