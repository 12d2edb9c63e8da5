// The checker's decisions over given samples and tick counts, the texts the
// event messages show to administrators, and the sequence library under it.

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <variant>

#include "ErrorHandling.h"
#include "FreeSpaceChecker.h"
#include "platform/ModulePath.h"
#include "logger/Logger.h"
#include "LogCapture.h"
#include "rules/WatchGroupRules.h"
#include "subsystems/auditarchive/common/storage_path_toolset.h"

using namespace Kestrel::Detail;

namespace {

constexpr std::int64_t kMB = std::int64_t{1} << 20;
constexpr std::uint32_t kWarning = 0x800110CDu;
constexpr std::uint32_t kCritical = 0xC00110CEu;
constexpr std::uint32_t kRecovered = 0x400110CFu;

template <typename T>
std::shared_ptr<AuditArchive::IEnumerableSequencer<T>> List(std::initializer_list<T> items) {
  auto list = AuditArchive::MakeEnumerableSequencer<T>();
  for (const auto& item : items) list->Add(item);
  return list;
}
SampleList Samples(std::initializer_list<FreeSpaceSample> samples) { return List(samples); }
PathList Names(std::initializer_list<std::wstring> names) { return List(names); }

// Bounds 300 MB recommended, 200 MB warning, 100 MB stop.
FreeSpaceChecker MakeChecker(std::uint32_t resendMs, DWORD constructedAt = 0) {
  return FreeSpaceChecker(Names({L"SvcA", L"SvcB"}), {300 * kMB, 200 * kMB, 100 * kMB, std::nullopt}, resendMs,
                          constructedAt);
}

}  // namespace

TEST(FreeSpaceChecker, InsertionStringsHaveTheExactListForms) {
  EXPECT_EQ(FormatPathList(Samples({})->GetEnumerator()), L"");
  EXPECT_EQ(FormatServiceList(Names({L"", L"B"})->GetEnumerator()), L", B");

  // Only the paths below the event's bound, MB rounded down.
  const auto critical =
      MakeChecker(1000).Evaluate(Samples({{L"C:\\A", 0}, {L"C:\\Ok", 500 * kMB}, {L"D:\\B", 100 * kMB - 1}}), 10);
  EXPECT_EQ(critical.eventId, kCritical);
  EXPECT_EQ(critical.insertionStrings,
            (std::vector<std::wstring>{L"\"C:\\A\" (0 MB), \"D:\\B\" (99 MB)", L"SvcA, SvcB"}));
  const auto warning = MakeChecker(1000).Evaluate(Samples({{L"C:\\W", 150 * kMB}, {L"D:\\Ok", 250 * kMB}}), 10);
  EXPECT_EQ(warning.eventId, kWarning);
  EXPECT_EQ(warning.insertionStrings, (std::vector<std::wstring>{L"\"C:\\W\" (150 MB)", L"300"}));
}

TEST(WatchGroupRules, BoundsFromKeysWithDefaultsAndTheKeyAtFault) {
  using namespace Kestrel::Rules;
  const auto read = [](const std::map<std::wstring, std::int32_t>& keys) {
    return ReadWatchGroupBounds([&](const wchar_t* key) -> std::optional<std::int32_t> {
      const auto found = keys.find(key);
      return found == keys.end() ? std::nullopt : std::optional<std::int32_t>(found->second);
    });
  };
  const auto defaults = std::get<WatchGroupBounds>(read({}));
  EXPECT_EQ(
      std::make_tuple(defaults.recommendedBytes, defaults.warningBytes, defaults.stopBytes, defaults.restartBytes),
      std::make_tuple(100 * kGigabyte, 20 * kGigabyte, 5 * kGigabyte, std::optional<std::int64_t>()));
  // A restart bound may equal the warning bound, not lie below it.
  EXPECT_EQ(std::get<WatchGroupBounds>(read({{L"FreeSpaceRestartServicesLowerBoundMB", 20480}})).restartBytes,
            20 * kGigabyte);
  const std::pair<std::map<std::wstring, std::int32_t>, std::wstring> faults[] = {
      {{{L"FreeSpaceRestartServicesLowerBoundGB", 19}}, L"FreeSpaceRestartServicesLowerBoundGB"},
      {{{L"FreeSpaceStopServicesLowerBoundGB", 25}}, L"FreeSpaceWarningLowerBoundGB"},  // a default, named by GB
      {{{L"FreeSpaceWarningLowerBoundGB", 1}, {L"FreeSpaceWarningLowerBoundMB", 1}}, L"FreeSpaceWarningLowerBoundMB"},
  };
  for (const auto& [keys, key] : faults) EXPECT_EQ(std::get<BoundsError>(read(keys)).key, key);
}

TEST(FreeSpaceChecker, ReportsByStateAndResendTimeoutAcrossATickWrap) {
  // Free MB (negative: every path failed), ms since the start (the tick count
  // wraps 1,000 ms in, inside the first critical event's period), event (or
  // the recovery), stop services.
  const std::tuple<std::int64_t, DWORD, std::uint32_t, bool> steps[] = {
      {250, 50, 0, false},          // Normal: nothing to recover from
      {200, 100, 0, false},         // the warning bound itself is not below it
      {100, 200, kWarning, false},  // nor is the stop bound
      {150, 300, 0, false},         // warning held back
      {50, 400, kCritical, true},   // warning to critical: at once
      {1, 999, 0, true},            // held back on both sides of the wrap,
      {1, 1000, 0, true},           // yet services stop every cycle
      {1, 5000, 0, true},
      {150, 5399, 0, false},            // critical to warning inside the period
      {1, 5400, kCritical, true},       // resent after the timeout
      {150, 10400, kWarning, false},    // critical to warning after the period
      {250, 10500, kRecovered, false},  // under the recommended minimum only: Normal, once
      {250, 10550, 0, false},
      {150, 10600, kWarning, false},  // so the next fall reports at once
      {-1, 10700, 0, false},          // no samples is Normal as well, but no recovery
      {150, 10800, kWarning, false},
      {-1, 10900, 0, false},
      {200, 11000, kRecovered, false},  // the first readable cycle at the bound
  };
  const DWORD start = 0u - 1000u;
  auto checker = MakeChecker(5000, start);
  for (const auto& [freeMB, ms, event, stop] : steps) {
    const auto decision = checker.Evaluate(freeMB < 0 ? Samples({}) : Samples({{L"C:\\", freeMB * kMB}}), start + ms);
    EXPECT_EQ(decision.bRecovered ? kRecovered : decision.eventId, event) << ms;
    EXPECT_EQ(decision.bStopServices, stop) << ms;
    EXPECT_FALSE(decision.bStartServices) << ms;  // no restart bound
  }
  // The recovery names every readable path; the watcher stopped nothing here.
  checker.Evaluate(Samples({{L"C:\\", 1 * kMB}}), start + 20000);
  const auto recovery = checker.Evaluate(Samples({{L"C:\\", 200 * kMB}, {L"D:\\", 900 * kMB}}), start + 20001);
  EXPECT_EQ(recovery.recoveredPaths, L"\"C:\\\" (200 MB), \"D:\\\" (900 MB)");
  EXPECT_TRUE(recovery.services.empty());
}

// Also shows that the filter and transform under it read each element once.
TEST(FreeSpaceChecker, SamplesQueryEachPathOnceAndAnUnreadablePathIsAWarningOnce) {
  const std::wstring gone = L"X:\\gone-\u65E5\u672C";
  std::set<std::wstring> unreadable;
  std::map<std::wstring, int> queries;
  bool bMissing = true;
  auto query = [&](const std::wstring& path) -> std::uint64_t {
    ++queries[path];
    if (path == gone && bMissing) Kestrel::ThrowWin32(ERROR_PATH_NOT_FOUND);
    return path == L"huge" ? std::numeric_limits<std::uint64_t>::max() : std::uint64_t{42 * kMB};
  };
  const TestSupport::LogCapture log;
  const PathList paths = Names({L"a", gone, L"huge", L"a"});
  // Read from the stored samples: no disk is asked again.
  EXPECT_EQ(FormatPathList(TakeSamples(paths, query, unreadable)->GetEnumerator()),
            L"\"a\" (42 MB), \"huge\" (8796093022207 MB), \"a\" (42 MB)");
  EXPECT_EQ(queries, (std::map<std::wstring, int>{{L"a", 2}, {gone, 1}, {L"huge", 1}}));
  for (const bool bNow : {true, true, false, false, true}) {
    bMissing = bNow;
    TakeSamples(paths, query, unreadable);
  }

  std::vector<std::wstring> tags;
  for (const std::wstring& line : log.Lines()) {
    if (line.find(gone) != std::wstring::npos && line.find(L"| FreeSpaceWatcher:") != std::wstring::npos) {
      tags.push_back(line.substr(TestSupport::kTagColumn, 4));
    }
  }
  for (const auto& [number, text] : log.Messages(L"WARN", L"FreeSpaceWatcher")) {
    EXPECT_EQ(text.rfind(L"Failed to get free space in \"" + gone + L"\": 0x80070003 ", 0), 0u) << text;
  }
  // WARN on the first failing cycle, DBG while it goes on, INFO when it can be
  // read again, and WARN once more when it fails anew.
  EXPECT_EQ(tags, (std::vector<std::wstring>{L"WARN", L"DBG ", L"DBG ", L"INFO", L"WARN"}));
  EXPECT_EQ(unreadable, (std::set<std::wstring>{gone}));
}

TEST(Sequencer, EmptyEndsAtOnceLateElementsAreReachedAndStorageOutlivesIt) {
  auto sequencer = AuditArchive::MakeEnumerableSequencer<std::wstring>();
  auto empty = sequencer->GetEnumerator();
  EXPECT_TRUE(empty->IsEnd());
  EXPECT_EQ(empty->Current(), L"");

  sequencer->Add(L"a");
  auto open = sequencer->GetEnumerator();
  open->MoveNext();
  EXPECT_TRUE(open->IsEnd());
  sequencer->Add(L"b");
  ASSERT_FALSE(open->IsEnd());
  EXPECT_EQ(open->Current(), L"b");
  auto survivor = sequencer->GetEnumerator();
  sequencer.reset();
  EXPECT_EQ(survivor->Current(), L"a");
}

TEST(StoragePath, ExpandsPastTheFirstBufferAndAnchorsRelativePaths) {
  const std::wstring longValue = L"C:\\" + std::wstring(300, L'd');
  ::SetEnvironmentVariableW(L"WD64_TEST_LONG", longValue.c_str());
  EXPECT_EQ(AuditArchive::PreproceedStoragePath(L"%WD64_TEST_LONG%\\x"), longValue + L"\\x");
  // Relative and unset references are joined to the module's folder as written.
  EXPECT_EQ(AuditArchive::PreproceedStoragePath(L"%WD64_TEST_UNSET%\\data"),
            Kestrel::ModuleDirectory() + L"%WD64_TEST_UNSET%\\data");
  EXPECT_EQ(AuditArchive::PreproceedStoragePath(L""), Kestrel::ModuleDirectory());
  ::SetEnvironmentVariableW(L"WD64_TEST_LONG", nullptr);
}
