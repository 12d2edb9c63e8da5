// The log packer on real log folders: what is selected, what the archive is
// called and holds, what is deleted, and what a failing run leaves behind.

#include <gtest/gtest.h>

#include "ErrorHandling.h"
#include "LazySingleton.h"
#include "LogPackerConfiguration.h"
#include "PackerTestSupport.h"

using Kestrel::Detail::ArchiveName;

namespace {

constexpr std::uint64_t kHour = 36'000'000'000ull;
constexpr std::uint64_t kMiB = 1ull << 20;

Kestrel::CLogPackerConfiguration& Packer() {
  return Kestrel::CLazySingleton<Kestrel::CLogPackerConfiguration>::Instance();
}

NodePtr PackerNode(const std::filesystem::path& logs, std::int64_t hours, std::int64_t megabytes,
                   const std::wstring& mask = L"*.log") {
  return PackerTest::MakeNode({{L"MaxLogFileAgeInHours", hours}, {L"MaxLogFileSizeInMegabytes", megabytes}},
                              {{L"LogsDirectoryPath", logs.wstring()}, {L"LogFileMask", mask}});
}

// A log file of `size` bytes, aged against the local clock as the packer ages
// it, with a copy kept for the archive check.
void MakeLog(const std::filesystem::path& folder, const wchar_t* name, std::uint64_t size, std::uint64_t age) {
  PackerTest::WriteLog(folder / L"logs" / name, size);
  PackerTest::SetFileTimes(folder / L"logs" / name, Kestrel::GetLocalTimeAsFileTime() - age);
  std::filesystem::copy_file(folder / L"logs" / name, folder / L"originals" / name);
}

bool Untouched(const std::filesystem::path& folder, const wchar_t* name) {
  return std::filesystem::exists(folder / L"logs" / name) &&
         PackerTest::ReadFile(folder / L"logs" / name) == PackerTest::ReadFile(folder / L"originals" / name);
}

// Runs a request through a fresh log packer configured with `node`.
HRESULT PackOnce(const NodePtr& node) {
  auto* component = PackerTest::Create<IVHConfigurable>(WatchDog64::CLSID_LogPacker);
  HRESULT hr = component->Configure(node.Get());
  auto* processor = PackerTest::As<IVHRequestProcessor>(component);
  if (SUCCEEDED(hr)) hr = processor->ProcessRequest(nullptr, nullptr);  // the request is never read
  processor->Release();
  return hr;
}

}  // namespace

TEST(LogPackerRules, ArchiveNameAgeAndSizeBounds) {
  SYSTEMTIME time{2026, 1, 5, 2, 9, 5, 7, 999};
  EXPECT_EQ(ArchiveName(time), L"logs_20260102090507.zip");
  time = {987, 12, 0, 31, 23, 59, 59, 0};
  EXPECT_EQ(ArchiveName(time), L"logs_9871231235959.zip");

  using Kestrel::Detail::IsTooOld;
  const std::uint64_t now = 133'000'000'000'000'000ull;
  EXPECT_FALSE(IsTooOld(now, now - 24 * kHour, 24));
  EXPECT_FALSE(IsTooOld(now, now - 24 * kHour - 9, 24));  // ages count whole microseconds
  EXPECT_TRUE(IsTooOld(now, now - 24 * kHour - 10, 24));
  EXPECT_TRUE(IsTooOld(now, now + 1000, 24));  // created "after now" wraps to a huge age
  EXPECT_FALSE(Kestrel::Detail::IsTooLarge(100 * kMiB, 100));
  EXPECT_TRUE(Kestrel::Detail::IsTooLarge(100 * kMiB + 1, 100));
}

TEST(LogPackerConfiguration, DefaultsAndAllOrNothingConfigure) {
  const Kestrel::CLogPackerConfiguration defaults;
  EXPECT_EQ(defaults.LogsDirectory().String(), Kestrel::CPath(L"%TEMP%").String() + L"\\Logs");
  EXPECT_EQ(defaults.FileMask().String(), L"*.log");
  EXPECT_EQ(defaults.MaxAgeInHours() * 1000 + defaults.MaxSizeInMegabytes(), 24100u);

  ::SetEnvironmentVariableW(L"WD64_PACKER_LOGS", L"C:\\packer-logs");
  Packer().Configure(PackerNode(L"%WD64_PACKER_LOGS%\\app", 48, 5, L"*.txt").Get());
  // Every key is required; a node lacking one changes nothing.
  NodePtr partial = PackerTest::MakeNode({{L"MaxLogFileAgeInHours", 1}, {L"MaxLogFileSizeInMegabytes", 1}},
                                         {{L"LogsDirectoryPath", L"C:\\other"}});
  EXPECT_EQ(PackOnce(partial), static_cast<HRESULT>(0x80070490));
  EXPECT_EQ(Packer().LogsDirectory().String(), L"C:\\packer-logs\\app");
  EXPECT_EQ(Packer().FileMask().String(), L"*.txt");
  EXPECT_EQ(Packer().MaxAgeInHours() * 1000 + Packer().MaxSizeInMegabytes(), 48005u);
}

TEST(LogPackerRun, PacksExactlyTheOldAndLargeLogsAndDeletesThem) {
  const auto folder = PackerTest::FreshFolder(L"packer-run");
  MakeLog(folder, L"old.log", 5000, 25 * kHour);
  MakeLog(folder, L"empty.log", 0, 30 * kHour);
  MakeLog(folder, L"young.log", 5000, 23 * kHour);
  MakeLog(folder, L"limit.log", kMiB, 0);
  MakeLog(folder, L"over.log", kMiB + 1, 0);
  MakeLog(folder, L"old.txt", 100, 48 * kHour);
  MakeLog(folder, L"big.txt", 2 * kMiB, 0);
  // Truly 20 hours old, but aged against the local clock: CTest runs this in
  // a zone 9 hours east of UTC, where that makes 29.
  FILETIME utc;
  ::GetSystemTimeAsFileTime(&utc);
  const std::uint64_t utcNow = (std::uint64_t{utc.dwHighDateTime} << 32) | utc.dwLowDateTime;
  ASSERT_GE(Kestrel::GetLocalTimeAsFileTime(), utcNow + 5 * kHour) << "run with TZ=Asia/Tokyo, as CTest does";
  MakeLog(folder, L"east.log", 3000, 0);
  PackerTest::SetFileTimes(folder / L"logs" / L"east.log", utcNow - 20 * kHour);
  const auto found = PackerTest::ListFiles(folder / L"logs", L"*.log");

  SYSTEMTIME before, after;
  ::GetLocalTime(&before);
  ASSERT_EQ(PackOnce(PackerNode(folder / L"logs", 24, 1)), S_OK);
  ::GetLocalTime(&after);

  const auto archives = PackerTest::ListFiles(folder / L"logs", L"logs_*.zip");
  ASSERT_EQ(archives.size(), 1u);
  EXPECT_GE(archives[0], ArchiveName(before));
  EXPECT_LE(archives[0], ArchiveName(after));
  for (const auto& name : found) {  // entries in the order the folder lists them
    if (name == L"old.log" || name == L"empty.log" || name == L"over.log" || name == L"east.log") {
      PackerTest::ExpectEntry(folder, L"logs\\" + archives[0], name, L"originals\\" + name);
      EXPECT_FALSE(std::filesystem::exists(folder / L"logs" / name)) << name;
    }
  }
  for (const wchar_t* kept : {L"young.log", L"limit.log", L"old.txt", L"big.txt"}) EXPECT_TRUE(Untouched(folder, kept));

  ::Sleep(1100);  // a second archive would get a name of its own
  ASSERT_EQ(PackOnce(PackerNode(folder / L"logs", 24, 1)), S_OK);
  EXPECT_EQ(PackerTest::ListFiles(folder / L"logs", L"logs_*.zip").size(), 1u);
}

TEST(LogPackerRun, FailingRunsNeverDeleteUnpackedFiles) {
  const auto folder = PackerTest::FreshFolder(L"packer-failures");
  PackerTest::LogCapture capture;
  EXPECT_EQ(PackOnce(PackerNode(folder / L"absent", 24, 1)), static_cast<HRESULT>(0x80070003));
  const auto errors = capture.Lines(L"LogPackerComponent", 2);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].second.rfind(L"CLogPackerComponent::ProcessRequest failed: 0x80070003", 0), 0u);

  // A file too large for one entry fails the run unread, and stays (sparse:
  // 4 GiB that take no disk space).
  const auto huge = PackerTest::FreshFolder(L"packer-too-large");
  PackerTest::WriteLog(huge / L"logs" / L"huge.log", 0);
  std::filesystem::resize_file(huge / L"logs" / L"huge.log", 1ull << 32);
  EXPECT_EQ(PackOnce(PackerNode(huge / L"logs", 24, 100)), E_FAIL);
  EXPECT_EQ(std::filesystem::file_size(huge / L"logs" / L"huge.log"), 1ull << 32);
  const auto lines = capture.Lines(L"ZipArchive", 2);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].first, 43u);
  EXPECT_NE(lines[2].second.find(L"4294967296"), std::wstring::npos) << lines[2].second;
  const auto archives = PackerTest::ListFiles(huge / L"logs", L"logs_*.zip");
  ASSERT_EQ(archives.size(), 1u);
  PackerTest::ExpectEntry(huge, L"logs\\" + archives[0], L"huge.log", L"*");
  std::filesystem::remove(huge / L"logs" / L"huge.log");
}

TEST(LogPackerRun, FileVanishingBeforePackingEndsTheRun) {
  const auto folder = PackerTest::FreshFolder(L"packer-vanished");
  for (const wchar_t* name : {L"one.log", L"two.log", L"three.log"}) MakeLog(folder, name, 40000, 48 * kHour);
  Packer().Configure(PackerNode(folder / L"logs", 24, 100).Get());
  const auto selected = Packer().SelectFiles();
  ASSERT_EQ(selected.size(), 3u);
  ASSERT_TRUE(::DeleteFileW(selected[1].c_str()));
  PackerTest::LogCapture capture;
  // The archive is closed while the read failure unwinds: reported, not
  // thrown, or the process would end here.
  EXPECT_THROW(Packer().PackFiles(selected), Kestrel::HRX);
  const auto lines = capture.Lines(L"ZipArchive", 2);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], std::make_pair(43u, std::wstring(L"Couldn't read file to be written to a .ZIP file")));
  EXPECT_EQ(lines[1], std::make_pair(44u, L"Input file path: " + selected[1].String()));
  EXPECT_EQ(lines[2].second.rfind(L"std::exception::what: ", 0), 0u);

  // What was packed stays deleted; what comes after is untouched.
  const std::wstring first = Kestrel::GetFileNamePart(selected[0]).String();
  EXPECT_FALSE(std::filesystem::exists(selected[0].String()));
  EXPECT_TRUE(Untouched(folder, Kestrel::GetFileNamePart(selected[2]).c_str()));
  const auto archives = PackerTest::ListFiles(folder / L"logs", L"logs_*.zip");
  ASSERT_EQ(archives.size(), 1u);
  PackerTest::ExpectEntry(folder, L"logs\\" + archives[0], first, L"originals\\" + first);
  PackerTest::ExpectEntry(folder, L"logs\\" + archives[0], Kestrel::GetFileNamePart(selected[1]).String(), L"*");
}
