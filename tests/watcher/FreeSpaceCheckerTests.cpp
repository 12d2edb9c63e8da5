// The checker's decisions over given samples and tick counts: exact bounds,
// the report states, the resend rule across a tick wrap, the insertion
// string forms the event messages show to administrators.

#include <gtest/gtest.h>

#include <limits>
#include <map>

#include "ErrorHandling.h"
#include "FreeSpaceChecker.h"

using namespace Kestrel::Detail;
using AuditArchive::MakeEnumerableSequencer;

namespace {

constexpr std::int64_t kMB = std::int64_t{1} << 20;

SampleList Samples(std::initializer_list<FreeSpaceSample> samples) {
  auto list = MakeEnumerableSequencer<FreeSpaceSample>();
  for (const auto& sample : samples) list->Add(sample);
  return list;
}

PathList Names(std::initializer_list<std::wstring> names) {
  auto list = MakeEnumerableSequencer<std::wstring>();
  for (const auto& name : names) list->Add(name);
  return list;
}

// Bounds 300 MB recommended, 200 MB warning, 100 MB stop.
FreeSpaceChecker MakeChecker(std::uint32_t resendMs, DWORD constructedAt = 0) {
  return FreeSpaceChecker(Names({L"SvcA", L"SvcB"}), 300 * kMB, 200 * kMB, 100 * kMB, resendMs, constructedAt);
}

}  // namespace

TEST(FreeSpaceChecker, InsertionStringsHaveTheExactListForms) {
  EXPECT_EQ(FormatPathList(Samples({})->GetEnumerator()), L"");
  EXPECT_EQ(FormatPathList(Samples({{L"C:\\Data", 5 * kMB + kMB - 1}})->GetEnumerator()), L"\"C:\\Data\" (5 MB)");
  EXPECT_EQ(FormatPathList(Samples({{L"C:\\A", 0}, {L"D:\\B", 2048 * kMB}})->GetEnumerator()),
            L"\"C:\\A\" (0 MB), \"D:\\B\" (2048 MB)");
  EXPECT_EQ(FormatServiceList(Names({L"", L"B"})->GetEnumerator()), L", B");
  EXPECT_EQ(FormatServiceList(Names({L"Svc A", L"SvcB", L"SvcC"})->GetEnumerator()), L"Svc A, SvcB, SvcC");

  auto checker = MakeChecker(1000);
  const auto critical = checker.Evaluate(Samples({{L"C:\\Ok", 500 * kMB}, {L"D:\\Low", 99 * kMB}}), 10);
  EXPECT_EQ(critical.eventId, 0xC00110CEu);
  EXPECT_EQ(critical.insertionStrings, (std::vector<std::wstring>{L"\"D:\\Low\" (99 MB)", L"SvcA, SvcB"}));

  auto warned = MakeChecker(1000);
  const auto warning = warned.Evaluate(Samples({{L"C:\\W", 150 * kMB}, {L"D:\\Ok", 250 * kMB}}), 10);
  EXPECT_EQ(warning.eventId, 0x800110CDu);
  EXPECT_EQ(warning.insertionStrings, (std::vector<std::wstring>{L"\"C:\\W\" (150 MB)", L"300"}));
  EXPECT_FALSE(warning.bStopServices);
}

TEST(FreeSpaceChecker, ABoundItselfIsNotBelowIt) {
  auto checker = MakeChecker(1000);
  auto atStop = checker.Evaluate(Samples({{L"C:\\", 100 * kMB}}), 10);
  EXPECT_EQ(atStop.eventId, 0x800110CDu);
  EXPECT_FALSE(atStop.bStopServices);

  auto fresh = MakeChecker(1000);
  auto atWarning = fresh.Evaluate(Samples({{L"C:\\", 200 * kMB}}), 10);
  EXPECT_EQ(atWarning.eventId, 0u);
  EXPECT_EQ(fresh.State(), ReportState::Normal);

  auto justBelow = fresh.Evaluate(Samples({{L"C:\\", 100 * kMB - 1}}), 20);
  EXPECT_EQ(justBelow.eventId, 0xC00110CEu);
  EXPECT_TRUE(justBelow.bStopServices);
}

TEST(FreeSpaceChecker, CriticalIsResentAfterTheTimeoutWhileServicesStopEveryCycle) {
  auto checker = MakeChecker(5000, 1000);
  const auto low = Samples({{L"C:\\", kMB}});
  EXPECT_EQ(checker.Evaluate(low, 1000).eventId, 0xC00110CEu);
  EXPECT_EQ(checker.State(), ReportState::CriticalReported);
  EXPECT_EQ(checker.StateTicks(), 6000u);
  for (DWORD now : {1001u, 3000u, 5999u}) {
    const auto held = checker.Evaluate(low, now);
    EXPECT_EQ(held.eventId, 0u) << now;
    EXPECT_TRUE(held.bStopServices) << now;
  }
  EXPECT_EQ(checker.Evaluate(low, 6000).eventId, 0xC00110CEu);
  EXPECT_EQ(checker.StateTicks(), 11000u);
}

TEST(FreeSpaceChecker, StateChangesSendAtOnceExceptCriticalToWarningInsideThePeriod) {
  auto checker = MakeChecker(5000);
  const auto warning = Samples({{L"C:\\", 150 * kMB}});
  const auto critical = Samples({{L"C:\\", 50 * kMB}});
  const auto recommendedRange = Samples({{L"C:\\", 250 * kMB}});

  EXPECT_EQ(checker.Evaluate(warning, 100).eventId, 0x800110CDu);
  EXPECT_EQ(checker.Evaluate(warning, 200).eventId, 0u);
  EXPECT_EQ(checker.Evaluate(critical, 300).eventId, 0xC00110CEu);  // warning to critical: at once
  EXPECT_EQ(checker.Evaluate(warning, 400).eventId, 0u);            // back up, critical period running
  EXPECT_EQ(checker.State(), ReportState::CriticalReported);
  EXPECT_EQ(checker.Evaluate(warning, 5300).eventId, 0x800110CDu);
  EXPECT_EQ(checker.State(), ReportState::WarningReported);

  // Between the warning bound and the recommended minimum the group is Normal
  // again, so the next fall reports at once.
  EXPECT_EQ(checker.Evaluate(recommendedRange, 5400).eventId, 0u);
  EXPECT_EQ(checker.State(), ReportState::Normal);
  EXPECT_EQ(checker.StateTicks(), 5400u);
  EXPECT_EQ(checker.Evaluate(warning, 5500).eventId, 0x800110CDu);

  // No samples at all (every path failed) also counts as Normal.
  EXPECT_EQ(checker.Evaluate(Samples({}), 5600).eventId, 0u);
  EXPECT_EQ(checker.State(), ReportState::Normal);
}

TEST(FreeSpaceChecker, ResendRuleAcrossATickWrap) {
  const DWORD beforeWrap = 0xFFFFFF00u;
  auto checker = MakeChecker(1000, beforeWrap);
  const auto low = Samples({{L"C:\\", kMB}});
  EXPECT_EQ(checker.Evaluate(low, beforeWrap).eventId, 0xC00110CEu);
  EXPECT_EQ(checker.StateTicks(), 0x2E8u);  // the sum wraps with the counter
  EXPECT_EQ(checker.Evaluate(low, 0x100).eventId, 0u);
  EXPECT_EQ(checker.Evaluate(low, 0x2E7).eventId, 0u);
  EXPECT_EQ(checker.Evaluate(low, 0x2E8).eventId, 0xC00110CEu);

  // Before the counter itself wraps the hold-back test sees "now" above the
  // wrapped deadline and sends again: the rule compares raw tick values.
  auto early = MakeChecker(1000, beforeWrap);
  early.Evaluate(low, beforeWrap);
  EXPECT_EQ(early.Evaluate(low, beforeWrap + 0x10).eventId, 0xC00110CEu);
}

TEST(FreeSpaceChecker, IntervalCountsFromStartAndAWrappedCounterHasElapsed) {
  EXPECT_FALSE(IsIntervalElapsed(1000, 46000, 45));
  EXPECT_TRUE(IsIntervalElapsed(1000, 46001, 45));
  EXPECT_TRUE(IsIntervalElapsed(0xFFFFFF00u, 0x10, 45));
  EXPECT_FALSE(IsIntervalElapsed(0xFFFF0000u, 0xFFFF0000u + 999, 1));
}

TEST(FreeSpaceChecker, SamplesQueryEachPathOnceAndDropFailures) {
  std::map<std::wstring, int> queries;
  auto query = [&](const std::wstring& path) -> std::uint64_t {
    ++queries[path];
    if (path == L"missing") Kestrel::ThrowWin32(ERROR_PATH_NOT_FOUND);
    return path == L"huge" ? std::numeric_limits<std::uint64_t>::max() : 42;
  };
  const auto samples = TakeSamples(Names({L"a", L"missing", L"huge", L"a"}), query);
  std::vector<FreeSpaceSample> seen;
  AuditArchive::ForEach(samples->GetEnumerator(), [&](const FreeSpaceSample& sample) { seen.push_back(sample); });
  EXPECT_EQ(seen, (std::vector<FreeSpaceSample>{
                      {L"a", 42}, {L"huge", std::numeric_limits<std::int64_t>::max()}, {L"a", 42}}));
  EXPECT_EQ(queries, (std::map<std::wstring, int>{{L"a", 2}, {L"missing", 1}, {L"huge", 1}}));
  // Reading the stored samples again asks no disk.
  FormatPathList(samples->GetEnumerator());
  EXPECT_EQ(queries[L"huge"], 1);
}
