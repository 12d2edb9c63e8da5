// The log packer on real folders: its search and zip writer, what a run packs
// and deletes, what a failing run leaves. verify_archives.py reads the archives.

#include <gtest/gtest.h>

#include "Boundary.h"
#include "DirectoryEnumerator.h"
#include "ErrorHandling.h"
#include "LazySingleton.h"
#include "LogPackerConfiguration.h"
#include "PackerTestSupport.h"
#include "ZipArchive.h"

using namespace PackerTest;
using Kestrel::Detail::ArchiveName;
using Packer = Kestrel::CLazySingleton<Kestrel::CLogPackerConfiguration>;

namespace {

constexpr std::uint64_t kHour = 36'000'000'000ull;
constexpr std::uint64_t kMiB = 1ull << 20;

template <typename Work>
HRESULT CodeOf(Work&& work) {
  return Kestrel::RunAtBoundary({L"CodeOf", L"PackerTests", 0}, work);
}

NodePtr PackerNode(const fs::path& logs, std::int64_t hours, std::int64_t megabytes, const wchar_t* mask = L"*.log") {
  return MakeNode({{L"MaxLogFileAgeInHours", hours}, {L"MaxLogFileSizeInMegabytes", megabytes}},
                  {{L"LogsDirectoryPath", logs.wstring()}, {L"LogFileMask", mask}});
}

// A log file and its copy, aged against the local clock as the packer ages it;
// Wine reports a creation time derived from the write time, so all are set.
void MakeLog(const fs::path& folder, const std::wstring& name, std::uint64_t size, std::uint64_t age) {
  WriteLog(folder / L"logs" / name, size);
  fs::copy_file(folder / L"logs" / name, folder / L"originals" / name);
  const std::uint64_t created = Kestrel::GetLocalTimeAsFileTime() - age;
  const FILETIME time{static_cast<DWORD>(created), static_cast<DWORD>(created >> 32)};
  Handle file(::CreateFileW((folder / L"logs" / name).c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, 0));
  EXPECT_TRUE(::SetFileTime(file.Get(), &time, &time, &time)) << name;
}

bool Untouched(const fs::path& folder, const std::wstring& name) {
  std::error_code error;
  return fs::file_size(folder / L"logs" / name, error) == fs::file_size(folder / L"originals" / name);
}

// Configures the log packer with `node` and runs one request through it.
HRESULT PackOnce(const NodePtr& node) {
  auto* component = Create<IVHConfigurable>(WatchDog64::CLSID_LogPacker);
  HRESULT hr = component->Configure(node.Get());
  component->Release();
  auto* processor = Create<IVHRequestProcessor>(WatchDog64::CLSID_LogPacker);
  if (SUCCEEDED(hr)) hr = processor->ProcessRequest(nullptr, nullptr);  // the request is never read
  processor->Release();
  return hr;
}

}  // namespace

TEST(DirectoryEnumerator, EmptyMatchMissingFolderAndSearchHandleRelease) {
  const auto folder = FreshFolder(L"enumerator") / L"logs";
  const auto search = [&](const wchar_t* mask, const DirectoryEnumerator::EntryCallback& callback) {
    DirectoryEnumerator((folder / mask).wstring()).EnumerateEntries(callback);
  };
  // An open search keeps its folder from being removed; "*" matches "." here.
  int calls = 0;
  const DirectoryEnumerator::EntryCallback stop = [&](const Kestrel::CPath&) {
    EXPECT_FALSE(::RemoveDirectoryW(folder.c_str()));
    return ++calls > 5;
  };
  search(L"*.log", stop);
  search(L"*", stop);
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(::RemoveDirectoryW(folder.c_str()));
  EXPECT_EQ(CodeOf([&] { search(L"*", stop); }), static_cast<HRESULT>(0x80070003));
  fs::create_directory(folder);
  EXPECT_THROW(search(L"*", [](const Kestrel::CPath&) -> bool { throw std::runtime_error("callback"); }),
               std::runtime_error);
  EXPECT_TRUE(::RemoveDirectoryW(folder.c_str()));
}

TEST(ZipArchive, FailuresOfTheLibraryAreLoggedAndRaisedAsEFail) {
  const auto folder = FreshFolder(L"zip-failures");
  LogCapture capture;
  EXPECT_EQ(CodeOf([&] { Kestrel::CZipArchive archive((folder / L"absent" / L"a.zip").wstring()); }), E_FAIL);
  Kestrel::CZipArchive archive((folder / L"logs" / L"closed.zip").wstring());
  archive.Close();
  // Closed: the library refuses with its parameter error.
  EXPECT_EQ(CodeOf([&] { archive.Write((folder / L"logs" / L"closed.zip").wstring(), L"late.log"); }), E_FAIL);
  EXPECT_EQ(capture.Get(L"ZipArchive", 2), (Lines{{126, L"Couldn't open a .ZIP archive file for writing"},
                                                  {127, L"zipOpen return code: TBD"},
                                                  {76, L"Couldn't open a file in a .ZIP archive for writing"},
                                                  {77, L"zipOpenNewFileInZip return code: -102"}}));
}

TEST(LogPackerRules, ArchiveNameAndAgeBounds) {
  EXPECT_EQ(ArchiveName({2026, 1, 5, 2, 9, 5, 7, 999}), L"logs_20260102090507.zip");
  EXPECT_EQ(ArchiveName({987, 12, 0, 31, 23, 59, 59, 0}), L"logs_9871231235959.zip");  // the year unpadded
  using Kestrel::Detail::IsTooOld;
  const std::uint64_t now = 133'000'000'000'000'000ull;
  EXPECT_FALSE(IsTooOld(now, now - 24 * kHour - 9, 24));  // ages count whole microseconds
  EXPECT_TRUE(IsTooOld(now, now - 24 * kHour - 10, 24));
  EXPECT_TRUE(IsTooOld(now, now + 1000, 24));  // created "after now" wraps to a huge age
}

TEST(LogPackerConfiguration, AllOrNothingConfigure) {
  auto& packer = Packer::Instance();
  ::SetEnvironmentVariableW(L"WD64_PACKER_LOGS", L"C:\\packer-logs");
  packer.Configure(PackerNode(L"%WD64_PACKER_LOGS%\\app", 48, 5, L"*.txt").Get());
  // Every key is required; a node lacking one changes nothing.
  NodePtr partial = MakeNode({{L"MaxLogFileAgeInHours", 1}, {L"MaxLogFileSizeInMegabytes", 1}},
                             {{L"LogsDirectoryPath", L"C:\\other"}});
  EXPECT_EQ(PackOnce(partial), static_cast<HRESULT>(0x80070490));
  EXPECT_EQ(packer.LogsDirectory().String(), L"C:\\packer-logs\\app");
  EXPECT_EQ(packer.FileMask().String(), L"*.txt");
  EXPECT_EQ(std::make_pair(packer.MaxAgeInHours(), packer.MaxSizeInMegabytes()), std::make_pair(48ull, 5ull));
}

TEST(LogPackerRun, PacksExactlyTheOldAndLargeLogsAndDeletesThem) {
  const auto folder = FreshFolder(L"packer-run");
  const std::tuple<const wchar_t*, std::uint64_t, std::uint64_t> logs[] = {
      {L"old.log", 5000, 25 * kHour}, {L"empty.log", 0, 30 * kHour}, {L"young.log", 5000, 23 * kHour},
      {L"limit.log", kMiB, 0},        {L"over.log", kMiB + 1, 0},    {L"old.txt", 100, 48 * kHour},
      {L"big.txt", 2 * kMiB, 0}};
  for (const auto& [name, size, age] : logs) MakeLog(folder, name, size, age);
  // Truly 20 hours old, but aged against the local clock: CTest runs this in
  // a zone 9 hours east of UTC, where that makes 29.
  FILETIME utc;
  ::GetSystemTimeAsFileTime(&utc);
  const std::uint64_t utcNow = (std::uint64_t{utc.dwHighDateTime} << 32) | utc.dwLowDateTime;
  const std::uint64_t localNow = Kestrel::GetLocalTimeAsFileTime();
  ASSERT_GE(localNow, utcNow + 5 * kHour) << "run with TZ=Asia/Tokyo, as CTest does";
  MakeLog(folder, L"east.log", 3000, localNow - utcNow + 20 * kHour);
  const auto found = ListFiles(folder / L"logs", L"*.log");

  SYSTEMTIME before, after;
  ::GetLocalTime(&before);
  ASSERT_EQ(PackOnce(PackerNode(folder / L"logs", 24, 1)), S_OK);
  ::GetLocalTime(&after);

  const auto archives = ListFiles(folder / L"logs", L"logs_*.zip");
  ASSERT_EQ(archives.size(), 1u);
  EXPECT_GE(archives[0], ArchiveName(before));
  EXPECT_LE(archives[0], ArchiveName(after));
  for (const auto& name : found) {  // entries in the order the folder lists them
    if (name == L"old.log" || name == L"empty.log" || name == L"over.log" || name == L"east.log") {
      ExpectEntry(folder, L"logs\\" + archives[0], name, L"originals\\" + name);
      EXPECT_FALSE(fs::exists(folder / L"logs" / name)) << name;
    }
  }
  for (const wchar_t* kept : {L"young.log", L"limit.log", L"old.txt", L"big.txt"}) EXPECT_TRUE(Untouched(folder, kept));

  ::Sleep(1100);  // a second archive would get a name of its own
  ASSERT_EQ(PackOnce(PackerNode(folder / L"logs", 24, 1)), S_OK);
  EXPECT_EQ(ListFiles(folder / L"logs", L"logs_*.zip").size(), 1u);
}

TEST(LogPackerRun, FailingRunsNeverDeleteUnpackedFiles) {
  const auto folder = FreshFolder(L"packer-failures");
  LogCapture capture;
  EXPECT_EQ(PackOnce(PackerNode(folder / L"absent", 24, 1)), static_cast<HRESULT>(0x80070003));
  const auto errors = capture.Get(L"LogPackerComponent", 2);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].second.rfind(L"CLogPackerComponent::ProcessRequest failed: 0x80070003", 0), 0u);

  // A file too large for one entry fails the run unread, and stays (sparse:
  // 4 GiB that take no disk space).
  WriteLog(folder / L"logs" / L"huge.log", 0);
  fs::resize_file(folder / L"logs" / L"huge.log", 1ull << 32);
  EXPECT_EQ(PackOnce(PackerNode(folder / L"logs", 24, 100)), E_FAIL);
  EXPECT_EQ(fs::file_size(folder / L"logs" / L"huge.log"), 1ull << 32);
  const auto lines = capture.Get(L"ZipArchive", 2);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].first, 43u);
  EXPECT_NE(lines[2].second.find(L"4294967296"), std::wstring::npos) << lines[2].second;
  const auto archives = ListFiles(folder / L"logs", L"logs_*.zip");
  ASSERT_EQ(archives.size(), 1u);
  ExpectEntry(folder, L"logs\\" + archives[0], L"huge.log", L"*");
  fs::remove(folder / L"logs" / L"huge.log");
}

TEST(LogPackerRun, FileVanishingBeforePackingEndsTheRun) {
  auto& packer = Packer::Instance();
  const auto folder = FreshFolder(L"packer-vanished");
  for (const wchar_t* name : {L"one.log", L"two.log", L"three.log"}) MakeLog(folder, name, 40000, 48 * kHour);
  packer.Configure(PackerNode(folder / L"logs", 24, 100).Get());
  const auto selected = packer.SelectFiles();
  ASSERT_EQ(selected.size(), 3u);
  ASSERT_TRUE(::DeleteFileW(selected[1].c_str()));
  LogCapture capture;
  // The archive is closed while the read failure unwinds: reported, not
  // thrown, or the process would end here.
  EXPECT_THROW(packer.PackFiles(selected), Kestrel::HRX);
  const auto lines = capture.Get(L"ZipArchive", 2);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], std::make_pair(43u, std::wstring(L"Couldn't read file to be written to a .ZIP file")));
  EXPECT_EQ(lines[1], std::make_pair(44u, L"Input file path: " + selected[1].String()));
  EXPECT_EQ(lines[2].second.rfind(L"std::exception::what: ", 0), 0u);

  // What was packed stays deleted; what comes after is untouched.
  std::wstring names[3];
  for (int i = 0; i < 3; ++i) names[i] = Kestrel::GetFileNamePart(selected[i]).String();
  EXPECT_FALSE(fs::exists(selected[0].String()));
  EXPECT_TRUE(Untouched(folder, names[2]));
  const auto archives = ListFiles(folder / L"logs", L"logs_*.zip");
  ASSERT_EQ(archives.size(), 1u);
  ExpectEntry(folder, L"logs\\" + archives[0], names[0], L"originals\\" + names[0]);
  ExpectEntry(folder, L"logs\\" + archives[0], names[1], L"*");
}
