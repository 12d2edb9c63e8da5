// The logger's configuration and writer slots, and the scope tracer.

#include <gtest/gtest.h>

#include <stdexcept>

#include "DiagnosticsSupport.h"

using DiagTest::CaptureWriter;
using DiagTest::ScopedEnv;
using VHLogger::GetLogger;

TEST(Logger, MaxSeverityWords) {
  const std::pair<std::optional<std::wstring>, unsigned> cases[] = {{L" warn ", 3},  {L"NONE", 0}, {L"dbg3", 7},
                                                                    {L"VERBOSE", 5}, {L"", 5},     {std::nullopt, 5}};
  for (const auto& [setting, expected] : cases) {
    ScopedEnv env(L"GS_Logger_MaxSeverity", setting);
    EXPECT_EQ(GetLogger().MaxSeverity(), expected);
  }
  ScopedEnv warn(L"GS_Logger_MaxSeverity", L"Warn");
  CaptureWriter capture;
  VH_LOG(VHLogger::SEV_CRIT, L"LoggerTests", L"crit");
  VH_LOG(VHLogger::SEV_ERR, L"LoggerTests", L"err");
  VH_LOG(VHLogger::SEV_INFO, L"LoggerTests", L"info");
  const auto lines = capture.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(DiagTest::SplitLine(lines[1]).message, L"err");
}

TEST(Logger, SettingIsReReadOnlyAfterMoreThanFiveSeconds) {
  DiagTest::ScopedTicks ticks(200000);
  ScopedEnv warn(L"GS_Logger_MaxSeverity", L"WARN");  // read at 200000
  ::SetEnvironmentVariableW(L"GS_Logger_MaxSeverity", L"INFO");
  ticks.Advance(5000);
  EXPECT_FALSE(VHLogger::IsEnabled(VHLogger::SEV_INFO));
  ticks.Advance(1);
  EXPECT_TRUE(VHLogger::IsEnabled(VHLogger::SEV_INFO));

  // Across the wrap of the tick count: 4256 ms, then 5001 ms after a refresh.
  ticks.Set(0xFFFFFF00u);
  GetLogger().InvalidateConfiguration();
  EXPECT_TRUE(VHLogger::IsEnabled(VHLogger::SEV_INFO));
  ::SetEnvironmentVariableW(L"GS_Logger_MaxSeverity", L"ERR");
  ticks.Set(4000);
  EXPECT_TRUE(VHLogger::IsEnabled(VHLogger::SEV_INFO));
  ticks.Set(4745);
  EXPECT_FALSE(VHLogger::IsEnabled(VHLogger::SEV_WARN));
}

TEST(Logger, FourWriterSlotsEachWriterOnce) {
  DiagTest::DebugCapture debug;
  CaptureWriter first;
  ASSERT_TRUE(VHLogger::AddLogWriter(&first));  // again: still one slot
  CaptureWriter second(false), third(false), fourth(false);
  // The module's own file logger holds the first slot.
  EXPECT_TRUE(VHLogger::AddLogWriter(&second));
  EXPECT_TRUE(VHLogger::AddLogWriter(&third));
  EXPECT_FALSE(VHLogger::AddLogWriter(&fourth));
  EXPECT_EQ(debug.With(L"LogManager: Too many loggers\n").size(), 1u);

  VHLogger::Write(VHLogger::SEV_ERR, L"to every writer", L"LoggerTests", 1);
  EXPECT_EQ(first.Lines().size(), 1u);
  EXPECT_EQ(third.Lines().size(), 1u);
  EXPECT_EQ(fourth.Lines().size(), 0u);
  VHLogger::RemoveLogWriter(&second);
  VHLogger::RemoveLogWriter(&third);
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

TEST(ScopeTracer, NestingIndentsTimesAndReportsExceptions) {
  DiagTest::ScopedTicks ticks(1000);
  CaptureWriter capture;
  try {
    VH_TRACE_SCOPE(L"LoggerTests", std::wstring(L"A"));
    Inner(ticks, false);
    Inner(ticks, true);
  } catch (const std::runtime_error&) {
  }
  std::vector<std::pair<int, std::wstring>> seen;
  for (const auto& line : capture.Lines()) {
    const auto columns = DiagTest::SplitLine(line);
    seen.emplace_back(columns.depth, columns.message);
  }
  const std::vector<std::pair<int, std::wstring>> expected = {{0, L"Entering: A"},
                                                              {1, L"Entering: B"},
                                                              {2, L"inside ... (***EXCEPTION***)"},
                                                              {1, L"Exiting: B [1234ms]"},
                                                              {1, L"Entering: B"},
                                                              {2, L"inside ... (***EXCEPTION***)"},
                                                              {1, L"EXCEPTION at: B [1234ms]"},
                                                              {0, L"EXCEPTION at: A [2468ms]"}};
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(VHLogger::Detail::ThreadScopeDepth(), 0u);
}

TEST(ScopeTracer, SilentTracerStillNestsAndOldSystemsStayFlat) {
  CaptureWriter capture;
  {
    VHLogger::CScopeTracer silent(0, 0, L"quiet", L"LoggerTests", 1);
    VH_LOG(VHLogger::SEV_INFO, L"LoggerTests", L"one level in");
  }
  GetLogger().SetVersionFlag(false);
  {
    VH_TRACE_SCOPE(L"LoggerTests", std::wstring(L"A"));
    VH_TRACE_SCOPE(L"LoggerTests", std::wstring(L"B"));
    VH_LOG(VHLogger::SEV_INFO, L"LoggerTests", L"flat");
  }
  GetLogger().SetVersionFlag(true);
  std::vector<int> depths;
  for (const auto& line : capture.Lines()) depths.push_back(DiagTest::SplitLine(line).depth);
  EXPECT_EQ(depths, (std::vector<int>{1, 0, 0, 0, 0, 0}));
}
