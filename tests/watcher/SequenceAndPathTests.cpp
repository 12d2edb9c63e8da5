// The sequence library and storage path preparation the watcher builds on.

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "ModulePath.h"
#include "subsystems/auditarchive/common/Enumerable.h"
#include "subsystems/auditarchive/common/storage_path_toolset.h"

using namespace AuditArchive;

namespace {

// Counts how often the wrapped enumerator's element is read.
class CountingEnumerator final : public IEnumerator<int> {
 public:
  CountingEnumerator(std::shared_ptr<IEnumerator<int>> inner, int& reads) : m_pInner(std::move(inner)), m_reads(reads) {}
  bool IsEnd() override { return m_pInner->IsEnd(); }
  int Current() override {
    ++m_reads;
    return m_pInner->Current();
  }
  void MoveNext() override { m_pInner->MoveNext(); }

 private:
  std::shared_ptr<IEnumerator<int>> m_pInner;
  int& m_reads;
};

std::shared_ptr<IEnumerableSequencer<int>> Sequence(std::initializer_list<int> values) {
  auto sequence = MakeEnumerableSequencer<int>();
  for (int value : values) sequence->Add(value);
  return sequence;
}

}  // namespace

TEST(Sequencer, EmptyHasNoStorageAndEndsAtOnceGrowingWhileEnumerated) {
  auto sequencer = std::make_shared<Detail::EnumerableSequencer<std::wstring>>();
  auto empty = sequencer->GetEnumerator();
  EXPECT_FALSE(sequencer->HasStorage());
  EXPECT_TRUE(empty->IsEnd());
  EXPECT_EQ(empty->Current(), L"");

  sequencer->Add(L"a");
  EXPECT_TRUE(sequencer->HasStorage());
  auto open = sequencer->GetEnumerator();
  open->MoveNext();
  EXPECT_TRUE(open->IsEnd());
  // Added while the enumerator is open: it is reached, since the count is read at every step.
  sequencer->Add(L"b");
  ASSERT_FALSE(open->IsEnd());
  EXPECT_EQ(open->Current(), L"b");

  // The enumerator keeps the storage alive after the sequencer is gone.
  auto survivor = sequencer->GetEnumerator();
  sequencer.reset();
  EXPECT_EQ(survivor->Current(), L"a");
}

TEST(Sequencer, FilterReadsAndTestsEachElementOnce) {
  int predicateCalls = 0;
  int reads = 0;
  auto none = Filter<int>(std::make_shared<CountingEnumerator>(Sequence({})->GetEnumerator(), reads),
                          [&](const int&) { return ++predicateCalls, true; });
  EXPECT_TRUE(none->IsEnd());
  EXPECT_EQ(predicateCalls, 0);

  auto rejectAll = Filter<int>(std::make_shared<CountingEnumerator>(Sequence({1, 2, 3})->GetEnumerator(), reads),
                               [&](const int&) { return ++predicateCalls, false; });
  EXPECT_TRUE(rejectAll->IsEnd());
  EXPECT_EQ(predicateCalls, 3);
  EXPECT_EQ(reads, 3);

  reads = 0;
  auto odd = Filter<int>(std::make_shared<CountingEnumerator>(Sequence({1, 2, 3, 4, 5})->GetEnumerator(), reads),
                         [](const int& value) { return value % 2 == 1; });
  std::vector<int> seen;
  while (!odd->IsEnd()) {
    seen.push_back(odd->Current());
    EXPECT_EQ(odd->Current(), seen.back());  // from the cache, not the source
    odd->MoveNext();
  }
  EXPECT_EQ(seen, (std::vector<int>{1, 3, 5}));
  EXPECT_EQ(reads, 5);

  EXPECT_THROW(Filter<int>(Sequence({1})->GetEnumerator(), nullptr), std::bad_function_call);
}

TEST(Sequencer, TransformRunsOncePerElementAndCopyAllKeepsOrder) {
  int calls = 0;
  auto doubled = Transform<std::wstring, int>(Sequence({1, 2})->GetEnumerator(), [&](const int& value) {
    ++calls;
    return std::to_wstring(value * 2);
  });
  EXPECT_EQ(doubled->Current(), L"2");
  EXPECT_EQ(doubled->Current(), L"2");
  EXPECT_EQ(calls, 1);

  auto copy = CopyAll(doubled);
  EXPECT_EQ(calls, 2);  // the first element's result was still cached
  std::wstring joined;
  ForEach(copy->GetEnumerator(), [&](const std::wstring& text) { joined += text + L";"; });
  EXPECT_EQ(joined, L"2;4;");
}

TEST(StoragePath, ExpandsAndAnchorsRelativeResultsAtTheModuleDirectory) {
  const std::wstring moduleDir = Kestrel::ModuleDirectory();
  ASSERT_FALSE(moduleDir.empty());
  ASSERT_EQ(moduleDir.back(), L'\\');

  ::SetEnvironmentVariableW(L"WD64_TEST_DATA_ROOT", L"D:\\Audit");
  EXPECT_EQ(PreproceedStoragePath(L"%WD64_TEST_DATA_ROOT%\\Store"), L"D:\\Audit\\Store");
  // An unset reference stays as written and the result is then relative.
  EXPECT_EQ(PreproceedStoragePath(L"%WD64_TEST_NOT_SET%\\Data"), moduleDir + L"%WD64_TEST_NOT_SET%\\Data");
  EXPECT_EQ(PreproceedStoragePath(L"Data"), moduleDir + L"Data");
  EXPECT_EQ(PreproceedStoragePath(L""), moduleDir);
  EXPECT_EQ(PreproceedStoragePath(L"..\\Data\\.\\x"), moduleDir + L"..\\Data\\.\\x");
  EXPECT_EQ(PreproceedStoragePath(L"\\\\server\\share\\x"), L"\\\\server\\share\\x");

  // Longer than the first buffer: the second call gets the exact size.
  const std::wstring longValue = L"C:\\" + std::wstring(300, L'a');
  ::SetEnvironmentVariableW(L"WD64_TEST_LONG", longValue.c_str());
  EXPECT_EQ(PreproceedStoragePath(L"%WD64_TEST_LONG%\\b"), longValue + L"\\b");
  const std::wstring exact = L"C:\\" + std::wstring(256, L'b');  // 259 characters plus the terminator
  ::SetEnvironmentVariableW(L"WD64_TEST_LONG", exact.c_str());
  EXPECT_EQ(PreproceedStoragePath(L"%WD64_TEST_LONG%"), exact);
}
