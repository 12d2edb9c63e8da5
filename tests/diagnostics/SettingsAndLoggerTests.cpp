// Settings from the real environment and INI files, error descriptions, and
// the logger: configuration, writer slots, tracer, and the line and banner to
// the character (administrators and their tools read the columns).

#include <gtest/gtest.h>

#include <stdexcept>

#include "DiagnosticsSupport.h"
#include "ErrorHandling.h"
#include "logger/detail/DetailedFormatter.h"
#include "settings/GlobalSettings.h"

using namespace GlobalSettings::Detail;
using TestSupport::ReadUtf16;
using TestSupport::TempDir;
using TestSupport::WriteText;
using TestSupport::kMessageColumn;

TEST(GlobalSettings, SourcesNumbersIniCandidatesAndRememberedAbsence) {
  TempDir dir;
  // The long value is read whole: the buffer grows from 260.
  WriteText(dir.File(L"first.ini"), "[General]\r\nX=9\r\n[Diag]\r\nN=100\r\nEmpty=\r\nBoth=first\r\nLong=" +
                                                  std::string(300, 'v') + "\r\n");
  const std::wstring hostIni = std::filesystem::path(Kestrel::ExecutableFilePath()).replace_extension(L".ini");
  WriteText(hostIni, "[Diag]\r\nEmpty=5\r\nBoth=host\r\n");
  DiagTest::ScopedEnv ini(L"GLOBAL_SETTINGS_INI", dir.File(L"first.ini")), x(L"GS_General_X", L"  7 ");
  DiagTest::ScopedEnv n(L"GS_Diag_N", L"abc"), empty(L"GS_Diag_EmptyVar", L"");

  std::uint32_t number = 0;
  EXPECT_EQ(ProviderRegistry::Instance().LookupDWord(nullptr, L"X", number), S_OK);
  EXPECT_EQ(number, 7u);
  // The environment's "not a number" does not end the walk.
  EXPECT_EQ(ProviderRegistry::Instance().LookupDWord(L"Diag", L"N", number), S_OK);
  EXPECT_EQ(number, 100u);
  // A defined but empty variable is a value; an empty INI entry is not.
  const std::pair<const wchar_t*, std::wstring> strings[] = {
      {L"N", L"abc"}, {L"EmptyVar", L""}, {L"Empty", L"5"}, {L"Both", L"first"}, {L"Long", std::wstring(300, L'v')}};
  for (const auto& [key, value] : strings) EXPECT_EQ(GlobalSettings::GetStringOrDefault(L"Diag", key, L"-"), value);
  ::DeleteFileW(hostIni.c_str());

  const std::tuple<const wchar_t*, HRESULT, std::uint32_t> cases[] = {
      {L"0x10", S_OK, 16}, {L"010", S_OK, 8}, {L"12abc", E_INVALIDARG, 99}, {L"", E_INVALIDARG, 99}};
  for (const auto& [text, result, expected] : cases) {
    std::uint32_t value = 99;
    EXPECT_EQ(ParseDWord(text, value), result) << text;
    EXPECT_EQ(value, expected) << text;
  }
  EXPECT_EQ(
      CIniFileGSProvider::BuildCandidates(L"C:\\Host\\svc.exe", L"D:\\Mods\\WatchDog64.dll", false),
      (std::vector<std::wstring>{L"C:\\Host\\svc.ini", L"C:\\Host\\WatchDog64.ini", L"C:\\Host\\GlobalSettings.ini",
                                 L"D:\\Mods\\WatchDog64.ini", L"D:\\Mods\\GlobalSettings.ini"}));

  DiagTest::ScopedTicks ticks(50000);
  SettingsSection section(L"DiagCache", 0);  // 0: only Flush forgets
  EXPECT_FALSE(section.GetDWord(L"Late", number));
  DiagTest::ScopedEnv late(L"GS_DiagCache_Late", L"0x20");
  ticks.Advance(1000000);
  EXPECT_FALSE(section.GetDWord(L"Late", number));
  section.Flush();
  EXPECT_TRUE(section.GetDWord(L"Late", number));
  EXPECT_EQ(number, 32u);
}

// Run again with a missing "MessageFile" in a second copy of this program.
TEST(ErrorMessages, FromTheMessageFileOrNone) {
  if (!GlobalSettings::GetStringOrDefault(L"ErrorHandling", L"MessageFile", L"").empty()) {
    TestSupport::LogCapture capture;
    for (int i = 0; i < 2; ++i) EXPECT_EQ(Kestrel::DescribeHResult(REGDB_E_CLASSNOTREG), L"<no description>");
    ASSERT_EQ(capture.Lines().size(), 1u) << "a failed load is tried and logged once";
    EXPECT_EQ(capture.Lines()[0].find(L"| Cannot load 'CoreErrorMessages.dll': 0x8007"), kMessageColumn - 2);
    return;
  }
  EXPECT_EQ(Kestrel::DescribeHResult(REGDB_E_CLASSNOTREG),
            L"The requested component class is not registered in the watchdog module; check that the host "
            L"configuration names a component that this module version provides");
  EXPECT_EQ(Kestrel::DescribeHResult(static_cast<HRESULT>(0x80040200)), L"<no description>");
  // Missing by full path, and by a bare name looked for beside the module.
  for (const wchar_t* file : {L"C:\\no\\NoMessages.dll", L"NoMessages.dll"})
    EXPECT_EQ(TestSupport::StartSelf(L"ErrorMessages.*", {{L"GS_ErrorHandling_MessageFile", file}}).Wait(120000), 0u);
}

TEST(Logger, MaxSeverityWordsAndWhenTheyAreReRead) {
  const std::pair<std::optional<std::wstring>, unsigned> cases[] = {{L" warn ", 3},  {L"NONE", 0}, {L"dbg3", 7},
                                                                    {L"VERBOSE", 5}, {L"", 5},     {std::nullopt, 5}};
  for (const auto& [setting, expected] : cases) {
    DiagTest::ScopedEnv env(L"GS_Logger_MaxSeverity", setting);
    EXPECT_EQ(VHLogger::GetLogger().MaxSeverity(), expected);
  }
  // Read again only more than 5000 ms later, also across the tick count's wrap.
  DiagTest::ScopedTicks ticks(0xFFFFFF00u);
  DiagTest::ScopedEnv warn(L"GS_Logger_MaxSeverity", L"Warn");
  ::SetEnvironmentVariableW(L"GS_Logger_MaxSeverity", L"INFO");
  ticks.Advance(5000);
  EXPECT_FALSE(VHLogger::IsEnabled(VHLogger::SEV_INFO));
  ticks.Advance(1);
  EXPECT_TRUE(VHLogger::IsEnabled(VHLogger::SEV_INFO));
}

TEST(Logger, FourWriterSlotsEachWriterOnce) {
  DiagTest::DebugCapture debug;
  // The module's own file logger holds the first slot.
  TestSupport::LogCapture second;
  ASSERT_TRUE(VHLogger::AddLogWriter(&second));  // again: still one slot
  TestSupport::LogCapture third, fourth, fifth;
  EXPECT_TRUE(third.Installed() && fourth.Installed() && !fifth.Installed());
  EXPECT_EQ(debug.Texts(), std::vector<std::wstring>{L"LogManager: Too many loggers\n"});
  VHLogger::Write(VHLogger::SEV_ERR, L"to every writer", L"LoggerTests", 1);
  EXPECT_EQ(second.Lines().size(), 1u);
  EXPECT_EQ(fourth.Lines().size(), 1u);
}

namespace {
struct Unprintable {};
std::wostream& operator<<(std::wostream&, const Unprintable&) { throw std::runtime_error("cannot print"); }

void Inner(DiagTest::ScopedTicks& ticks, bool fail) {
  VH_TRACE_SCOPE(L"LoggerTests", std::wstring(L"B"));
  VH_LOG(VHLogger::SEV_INFO, L"LoggerTests", L"inside " << Unprintable{} << L" never");
  ticks.Advance(1234);
  if (fail) throw std::runtime_error("unwinding");
}
}  // namespace

TEST(ScopeTracer, NestingTimesAndExceptions) {
  DiagTest::ScopedTicks ticks(1000);
  TestSupport::LogCapture capture;
  try {
    VH_TRACE_SCOPE(L"LoggerTests", std::wstring(L"A"));
    Inner(ticks, false);
    Inner(ticks, true);
  } catch (const std::runtime_error&) {
  }
  const std::vector<std::wstring> messages = capture.Lines(true);  // indentation and message of each line
  const std::wstring failed = L"    inside ... (***EXCEPTION***)";
  EXPECT_EQ(messages, (std::vector<std::wstring>{L"Entering: A", L"  Entering: B", failed, L"  Exiting: B [1234ms]",
                                                 L"  Entering: B", failed, L"  EXCEPTION at: B [1234ms]",
                                                 L"EXCEPTION at: A [2468ms]"}));
}

TEST(LogFormat, LineColumnsAndTheirEdges) {
  const SYSTEMTIME time = {2024, 3, 2, 5, 14, 7, 9, 42};
  // Severity, source, number, depth, process and thread id; where `expected`
  // starts in the line (0: the whole line) and `expected`. Only "\" separates
  // directories; a long number widens the source column instead of being cut.
  const std::tuple<unsigned, const wchar_t*, unsigned, int, DWORD, DWORD, std::size_t, std::wstring> cases[] = {
      {2, L"Worker", 77, 2, 70000, 1234, 0,
       L"2024-03-05 14:07:09.042 | ERR  | 4464  1234 | Worker:77                      |     m\r\n"},
      {4, L"C:\\src\\common\\Worker.cpp", 77, 0, 1, 1, 46, L"Worker.cpp:77                  | m"},
      {4, L"src/common/logger/VeryLongName.cpp", 77, 0, 1, 1, 46, L"src/common/logger/VeryLong:77  | m"},
      {4, L"ABCDEFGHIJKLMNOPQRSTUVWXYZ", 123456, 0, 1, 1, 46, L"ABCDEFGHIJKLMNOPQRSTUVWXYZ:123456| m"},
      {4, nullptr, 1, 0, 1, 1, 46, L":1                             | m"},
      {4, L"W", 1, -3, 1, 1, 77, L"| m\r\n"},
      {4, L"W", 1, 31, 1, 1, 77, L"| " + std::wstring(60, L' ') + L"m\r\n"},
      {8, L"W", 1, 0, 1, 1, 23, L" |      | "},
  };
  for (const auto& [severity, source, number, depth, pid, tid, at, expected] : cases) {
    std::wstring line;
    VHLogger::Detail::DetailedFormatter::FormatLine(line, severity, source, number, L"m", depth, time, pid, tid);
    EXPECT_EQ(at ? line.substr(at, expected.size()) : line, expected) << number << " " << depth;
  }

  // Control characters inside a message are escaped, so one message is one
  // line; tab and everything from the blank up stay as they are.
  std::wstring line;
  const std::wstring message = std::wstring(L"a\r\nb\tc") + L'\0' + L"\x1B\x1F ~\x7F\x85\u2028" + L"\r\n";
  VHLogger::Detail::DetailedFormatter::FormatLine(line, 2, L"W", 1, message, 0, time, 1, 1);
  EXPECT_EQ(line.substr(kMessageColumn), L"a\\r\\nb\tc\\x00\\x1B\\x1F ~\x7F\x85\u2028\\r\\n\r\n");
  EXPECT_EQ(line.find(L'\n'), line.size() - 1);
}

// The module's own log goes to "<module dir>\\Logs\\" and starts with the
// banner: module, version, process, command line between lines of stars.
TEST(LogFormat, ModuleLogStartsWithBanner) {
  const std::wstring exe = Kestrel::ExecutableFilePath(), stars(100, L'*'), banner = VHLogger::ModuleBanner();
  EXPECT_EQ(banner.rfind(stars + L"\r\n*** Module: " + exe + L" (Base: 0x", 0), 0u);
  for (const std::wstring& piece : {L"*** Version: 7.0.127.0\r\n*** Module description: WatchDog64\r\n*** Process: " + exe +
                                        L" (Pid: " + std::to_wstring(::GetCurrentProcessId()) + L")\r\n",
                                    L"*** Command line: " + std::wstring(::GetCommandLineW()) + L"\r\n" + stars + L"\r\n"})
    EXPECT_NE(banner.find(piece), std::wstring::npos) << std::string(piece.begin(), piece.end());
  EXPECT_EQ(VHLogger::GetLogDirectory(), Kestrel::ModuleDirectory() + L"Logs\\");
}
