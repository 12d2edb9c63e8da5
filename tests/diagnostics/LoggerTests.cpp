// The logger's configuration and writer slots, and the scope tracer.

#include <gtest/gtest.h>

#include <stdexcept>

#include "DiagnosticsSupport.h"

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
  DiagTest::CaptureWriter second;
  ASSERT_TRUE(VHLogger::AddLogWriter(&second));  // again: still one slot
  DiagTest::CaptureWriter third, fourth, fifth;
  EXPECT_TRUE(third.Installed() && fourth.Installed());
  EXPECT_FALSE(fifth.Installed());
  EXPECT_EQ(debug.Texts(), std::vector<std::wstring>{L"LogManager: Too many loggers\n"});
  VHLogger::Write(VHLogger::SEV_ERR, L"to every writer", L"LoggerTests", 1);
  EXPECT_EQ(second.Texts().size(), 1u);
  EXPECT_EQ(fourth.Texts().size(), 1u);
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

// Indentation and message of each line.
std::vector<std::wstring> Messages(DiagTest::CaptureWriter& capture) {
  std::vector<std::wstring> messages;
  for (const auto& line : capture.Texts())
    messages.push_back(line.substr(DiagTest::kMessageColumn, line.size() - DiagTest::kMessageColumn - 2));
  return messages;
}
}  // namespace

TEST(ScopeTracer, NestingTimesExceptionsSilentTracersAndFlatMode) {
  DiagTest::ScopedTicks ticks(1000);
  DiagTest::CaptureWriter capture;
  try {
    VH_TRACE_SCOPE(L"LoggerTests", std::wstring(L"A"));
    Inner(ticks, false);
    Inner(ticks, true);
  } catch (const std::runtime_error&) {
  }
  const std::wstring failed = L"    inside ... (***EXCEPTION***)";
  EXPECT_EQ(Messages(capture), (std::vector<std::wstring>{L"Entering: A", L"  Entering: B", failed,
                                                          L"  Exiting: B [1234ms]", L"  Entering: B", failed,
                                                          L"  EXCEPTION at: B [1234ms]", L"EXCEPTION at: A [2468ms]"}));

  // Severity 0 writes nothing but still indents; without the version flag
  // (older systems) nothing indents.
  DiagTest::CaptureWriter second;
  {
    VHLogger::CScopeTracer silent(0, 0, L"quiet", L"LoggerTests", 1);
    VH_LOG(VHLogger::SEV_INFO, L"LoggerTests", L"one level in");
  }
  VHLogger::GetLogger().SetVersionFlag(false);
  {
    VH_TRACE_SCOPE(L"LoggerTests", std::wstring(L"A"));
    VH_LOG(VHLogger::SEV_INFO, L"LoggerTests", L"flat");
  }
  VHLogger::GetLogger().SetVersionFlag(true);
  EXPECT_EQ(Messages(second),
            (std::vector<std::wstring>{L"  one level in", L"Entering: A", L"flat", L"Exiting: A [0ms]"}));
}
