// Directory enumeration on real folders: empty results, errors, and the
// search handle's release on every way out.

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "DirectoryEnumerator.h"
#include "ErrorHandling.h"
#include "PackerTestSupport.h"

namespace {
std::vector<std::wstring> Enumerate(const std::filesystem::path& pattern) {
  std::vector<std::wstring> names;
  DirectoryEnumerator(pattern.wstring()).EnumerateEntries([&](const Kestrel::CPath& name) {
    names.push_back(name.String());
    return true;
  });
  std::sort(names.begin(), names.end());
  return names;
}
}  // namespace

TEST(DirectoryEnumerator, EmptyMatchMissingFolderAndUnfilteredEntries) {
  const auto folder = PackerTest::FreshFolder(L"enumerator") / L"logs";
  EXPECT_TRUE(Enumerate(folder / L"*.log").empty());
  try {
    Enumerate(folder / L"missing" / L"*.log");
    ADD_FAILURE() << "a missing folder must not look empty";
  } catch (const Kestrel::HRX& error) {
    EXPECT_EQ(error.Code(), static_cast<HRESULT>(0x80070003));
  }
  PackerTest::WriteLog(folder / L"a.log", 1);
  PackerTest::WriteLog(folder / L"b.txt", 1);
  std::filesystem::create_directory(folder / L"sub.log");
  EXPECT_EQ(Enumerate(folder / L"*.log"), (std::vector<std::wstring>{L"a.log", L"sub.log"}));
  EXPECT_EQ(Enumerate(folder / L"*"), (std::vector<std::wstring>{L".", L"..", L"a.log", L"b.txt", L"sub.log"}));
}

TEST(DirectoryEnumerator, SearchHandleClosedWhenStoppedOrThrown) {
  // An open search keeps its folder from being removed; "*" matches "." even
  // in an empty folder, so the search stays open there.
  const auto folder = PackerTest::FreshFolder(L"enumerator-handle") / L"logs";
  const auto pattern = (folder / L"*").wstring();
  int calls = 0;
  {
    DirectoryEnumerator enumerator(pattern);
    enumerator.EnumerateEntries([&](const Kestrel::CPath&) { return ++calls > 5; });
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(::RemoveDirectoryW(folder.c_str()));
  }
  EXPECT_TRUE(::RemoveDirectoryW(folder.c_str()));

  std::filesystem::create_directory(folder);
  EXPECT_THROW(DirectoryEnumerator(pattern).EnumerateEntries([](const Kestrel::CPath&) -> bool {
    throw std::runtime_error("callback");
  }),
               std::runtime_error);
  EXPECT_TRUE(::RemoveDirectoryW(folder.c_str()));
}
