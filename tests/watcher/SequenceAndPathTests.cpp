// The sequence library and storage path preparation the watcher builds on.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ModulePath.h"
#include "subsystems/auditarchive/common/Enumerable.h"
#include "subsystems/auditarchive/common/storage_path_toolset.h"

using namespace AuditArchive;

namespace {

// Counts how often an element is read.
struct Counted final : IEnumerator<int> {
  Counted(std::vector<int> source, int& readCount) : values(std::move(source)), reads(readCount) {}
  bool IsEnd() override { return index == values.size(); }
  int Current() override { return ++reads, values[index]; }
  void MoveNext() override { ++index; }
  std::vector<int> values;
  int& reads;
  std::size_t index = 0;
};

}  // namespace

TEST(Sequencer, EmptyEndsAtOnceAndAnElementAddedDuringEnumerationIsReached) {
  auto sequencer = MakeEnumerableSequencer<std::wstring>();
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

  // The enumerator keeps the storage alive after the sequencer is gone.
  auto survivor = sequencer->GetEnumerator();
  sequencer.reset();
  EXPECT_EQ(survivor->Current(), L"a");
}

TEST(Sequencer, FilterAndTransformHandleEachElementOnce) {
  int reads = 0;
  int tests = 0;
  auto odd = Filter<int>(std::make_shared<Counted>(std::vector<int>{1, 2, 3, 4, 5}, reads),
                         [&](const int& value) { return ++tests, value % 2 == 1; });
  std::vector<int> seen;
  for (; !odd->IsEnd(); odd->MoveNext()) seen.insert(seen.end(), {odd->Current(), odd->Current()});
  EXPECT_EQ(seen, (std::vector<int>{1, 1, 3, 3, 5, 5}));
  EXPECT_EQ(reads, 5);
  EXPECT_EQ(tests, 5);

  int calls = 0;
  auto doubled = Transform<std::wstring, int>(std::make_shared<Counted>(std::vector<int>{1, 2}, reads),
                                              [&](const int& value) { return ++calls, std::to_wstring(value * 2); });
  EXPECT_EQ(doubled->Current(), L"2");
  std::wstring joined;
  ForEach(CopyAll(doubled)->GetEnumerator(), [&](const std::wstring& text) { joined += text + L";"; });
  EXPECT_EQ(joined, L"2;4;");
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(reads, 5 + 2);
}

TEST(StoragePath, ExpandsAndAnchorsRelativeResultsAtTheModuleDirectory) {
  const std::wstring moduleDir = Kestrel::ModuleDirectory();
  EXPECT_EQ(PreproceedStoragePath(L"\\\\server\\share\\x"), L"\\\\server\\share\\x");
  // An unset reference stays as written, so the result is relative.
  EXPECT_EQ(PreproceedStoragePath(L"%WD64_TEST_NOT_SET%\\Data"), moduleDir + L"%WD64_TEST_NOT_SET%\\Data");
  // Values past the first buffer, one of them filling it exactly.
  for (std::size_t length : {256u, 300u}) {
    const std::wstring value = L"C:\\" + std::wstring(length, L'a');
    ::SetEnvironmentVariableW(L"WD64_TEST_LONG", value.c_str());
    EXPECT_EQ(PreproceedStoragePath(L"%WD64_TEST_LONG%"), value) << length;
  }
}
